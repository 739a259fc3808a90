#pragma once

#include <cstdint>
#include <optional>

namespace quenzel::platform {

/// The process that the system holds responsible for another, as an application is for its helpers; a process
/// that answers for itself yields itself. None where the system keeps no such record (Linux), has none of
/// this process, or does not let it be read. Thread-safe.
std::optional<std::int32_t> responsibleProcess(std::int32_t pid);

}  // namespace quenzel::platform
