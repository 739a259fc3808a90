#import <AppKit/NSRunningApplication.h>
#import <Foundation/Foundation.h>
#include <libproc.h>
#include <sys/param.h>

#include "Platform/Darwin/FoundationText.hpp"
#include "Platform/RunningProcesses.hpp"

namespace quenzel::platform {
namespace {

class DarwinRunningProcesses final : public RunningProcesses {
 public:
  std::optional<std::string> executablePath(std::int32_t pid) override {
    char path[MAXPATHLEN];
    const int length = proc_pidpath(pid, path, sizeof(path));
    if (length <= 0) return std::nullopt;
    return std::string(path, static_cast<std::size_t>(length));
  }

  /// Only applications of the caller's own login session are known.
  std::optional<RunningApplication> runningApplication(std::int32_t pid) override {
    @autoreleasepool {
      NSRunningApplication* const application =
          [NSRunningApplication runningApplicationWithProcessIdentifier:pid];
      if (!application) return std::nullopt;
      return RunningApplication{.bundleLocation = textOf(application.bundleURL.path),
                                .bundleIdentifier = textOf(application.bundleIdentifier)};
    }
  }

  std::optional<std::string> bundleIdentifier(const std::string& bundlePath) override {
    @autoreleasepool {
      return textOf([NSBundle bundleWithPath:foundationText(bundlePath)].bundleIdentifier);
    }
  }
};

}  // namespace

std::unique_ptr<RunningProcesses> makeRunningProcesses() {
  return std::make_unique<DarwinRunningProcesses>();
}

}  // namespace quenzel::platform
