#include "Base/ErrorText.hpp"

#include <system_error>

namespace quenzel {

std::string errorText(int errorNumber) { return std::generic_category().message(errorNumber); }

}  // namespace quenzel
