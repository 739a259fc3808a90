#pragma once

#include <optional>

#include <gtest/gtest.h>

namespace quenzel::testing {

/// The error of that type that the call throws, so that a test can look at its case, its payload and its
/// text; none, and a failed expectation, when it throws nothing.
template <typename Error, typename Call>
std::optional<Error> thrownBy(Call&& call) {
  try {
    call();
  } catch (const Error& error) {
    return error;
  }
  ADD_FAILURE() << "nothing was thrown";
  return std::nullopt;
}

}  // namespace quenzel::testing
