#pragma once

#include <stdexcept>

namespace quenzel {

/// The error of exactly that type that the call throws; a failure of the test when it throws none.
template <typename Error, typename Call>
Error thrownBy(Call&& call) {
  try {
    call();
  } catch (const Error& error) {
    return error;
  }
  throw std::logic_error("nothing was thrown");
}

}  // namespace quenzel
