#include <dlfcn.h>
#include <sys/types.h>

#include "Platform/ResponsibleProcess.hpp"

namespace quenzel::platform {

/// The function has no public header, so it is looked up: a system without it is one without the record.
std::optional<std::int32_t> responsibleProcess(std::int32_t pid) {
  using Lookup = pid_t(pid_t);
  static const auto lookup =
      reinterpret_cast<Lookup*>(::dlsym(RTLD_DEFAULT, "responsibility_get_pid_responsible_for_pid"));
  const pid_t responsible = lookup ? lookup(pid) : -1;
  return responsible > 0 ? std::optional<std::int32_t>(responsible) : std::nullopt;
}

}  // namespace quenzel::platform
