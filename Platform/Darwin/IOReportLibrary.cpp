#include "Platform/Darwin/IOReportLibrary.hpp"

#include <optional>

#include <dlfcn.h>

namespace quenzel::platform {
namespace {

std::optional<IOReportLibrary> load() {
  void* const library = ::dlopen("/usr/lib/libIOReport.dylib", RTLD_LAZY | RTLD_LOCAL);
  if (!library) return std::nullopt;
  const auto find = [library]<typename Function>(const char* name, Function*& function) {
    function = reinterpret_cast<Function*>(::dlsym(library, name));
    return function != nullptr;
  };
  IOReportLibrary functions{};
  const bool complete = find("IOReportCopyChannelsInGroup", functions.copyChannelsInGroup) &&
                        find("IOReportCreateSubscription", functions.createSubscription) &&
                        find("IOReportCreateSamples", functions.createSamples) &&
                        find("IOReportChannelGetGroup", functions.channelGetGroup) &&
                        find("IOReportChannelGetChannelName", functions.channelGetChannelName) &&
                        find("IOReportChannelGetUnitLabel", functions.channelGetUnitLabel) &&
                        find("IOReportSimpleGetIntegerValue", functions.simpleGetIntegerValue);
  return complete ? std::optional(functions) : std::nullopt;
}

}  // namespace

const IOReportLibrary* IOReportLibrary::shared() {
  static const std::optional<IOReportLibrary> library = load();
  return library ? &*library : nullptr;
}

}  // namespace quenzel::platform
