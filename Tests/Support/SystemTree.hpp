#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

namespace quenzel::testing {

/// A machine made of text: folders that stand in for /sys, /proc and the shared directory as long as it
/// lives, with nothing in them and no hardware modelled until a test says so.
class SystemTree {
 public:
  using Files = std::map<std::string, std::string>;

  SystemTree();

  /// Writes the attributes of a supply under /sys/class/power_supply; a line end is added as the kernel does.
  void powerSupply(const std::string& name, const Files& attributes) const;
  /// Writes a zone of /sys/class/powercap.
  void energyZone(const std::string& folder, const std::string& name, std::int64_t microjoules,
                  std::int64_t rangeMicrojoules) const;
  /// Writes the files of a process; its "exe" becomes a symbolic link.
  void process(std::int32_t pid, const Files& files) const;
  /// Writes the "cpu" line of /proc/stat and /proc/uptime.
  void processors(const std::string& ticks, const std::string& uptime) const;

  void set(const std::string& variable, const std::optional<std::string>& value) {
    environment_.set(variable, value);
  }

  const TemporaryDirectory& folder() const { return folder_; }
  std::string sys() const { return folder_ / "sys"; }
  std::string proc() const { return folder_ / "proc"; }
  std::string shared() const { return folder_ / "shared"; }

 private:
  TemporaryDirectory folder_;
  ScopedEnvironment environment_;
};

/// Text of /proc/<pid>/stat of a process of session 700 that started at tick 5000 + pid.
std::string taskStatText(std::int32_t pid, const std::string& name, std::int64_t userTicks,
                         std::int64_t systemTicks);

}  // namespace quenzel::testing
