#include "Platform/ResponsibleProcess.hpp"

namespace quenzel::platform {

std::optional<std::int32_t> responsibleProcess(std::int32_t) { return std::nullopt; }

}  // namespace quenzel::platform
