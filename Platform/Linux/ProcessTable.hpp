#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Base/ScopedResource.hpp"

namespace quenzel::platform {

/// How many bytes of its name the kernel keeps for a process.
inline constexpr std::size_t mostTaskNameBytes = 15;

/// What all threads of the kernel are called together.
inline constexpr const char* kernelGroupName = "Linux kernel";

/// One process as /proc/<pid>/stat shows it (proc(5)); times in clock ticks.
struct TaskStat {
  std::int32_t pid = 0;
  std::string name;  ///< at most 15 bytes (63 of a kernel worker), any bytes: ") (", half a UTF-8 character
  char state = '?';
  std::int32_t session = 0;
  bool kernelThread = false;
  std::uint64_t minorFaults = 0;
  std::uint64_t majorFaults = 0;
  std::uint64_t userTicks = 0;
  std::uint64_t systemTicks = 0;
  std::int64_t nice = 0;
  std::int64_t threads = 0;
  std::uint64_t startTicks = 0;  ///< since boot; with the pid it names the process for good
  std::int64_t residentPages = 0;
  std::int64_t lastProcessor = 0;

  std::uint64_t processorTicks() const { return userTicks + systemTicks; }
  bool operator==(const TaskStat&) const = default;
};

/// None for text that is not of the form.
std::optional<TaskStat> parseTaskStat(std::string_view text);

/// What a process moved to and from storage, from /proc/<pid>/io; readable for own processes and for root.
struct TaskStorage {
  std::uint64_t bytesRead = 0;
  std::uint64_t bytesWritten = 0;

  bool operator==(const TaskStorage&) const = default;
};

std::optional<TaskStorage> parseTaskStorage(std::string_view text);

/// The processes of the machine, read through one open folder. Not thread-safe.
class ProcessTable {
 public:
  explicit ProcessTable(const std::string& procfsRoot);

  /// All processes in the order of their pids, one file read for each. One that ends meanwhile is left out.
  std::vector<TaskStat> tasks() const;

  std::optional<TaskStorage> storage(std::int32_t pid) const;

  /// What the process belongs to: its systemd unit, else its control group, else "Linux kernel" for a
  /// kernel thread, else "session <id>".
  std::string group(const TaskStat& task) const;

 private:
  std::optional<std::string> processFile(std::int32_t pid, const char* name) const;

  std::string root_;
  FileDescriptor folder_;
};

}  // namespace quenzel::platform
