#include "Platform/Linux/ProcessTable.hpp"

#include <algorithm>
#include <type_traits>
#include <utility>

#include <fcntl.h>

#include "Base/Number.hpp"
#include "Base/Text.hpp"
#include "Platform/Linux/ControlGroup.hpp"
#include "Platform/Linux/KernelFiles.hpp"

namespace quenzel::platform {
namespace {

constexpr std::uint64_t kernelThreadFlag = 0x00200000;  // PF_KTHREAD of the kernel's linux/sched.h

}  // namespace

std::optional<TaskStat> parseTaskStat(std::string_view text) {
  // The name may hold any character, so only the last parenthesis ends it.
  const std::size_t open = text.find('(');
  const std::size_t close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
  const auto pid = parseInteger<std::int32_t>(trimmedASCII(text.substr(0, open)));
  if (!pid) return std::nullopt;
  TaskStat task;
  task.pid = *pid;
  task.name = text.substr(open + 1, close - open - 1);

  std::string_view rest = trimmedASCII(text.substr(close + 1));
  const std::string_view state = nextPiece(rest, ' ');
  if (state.size() != 1) return std::nullopt;
  task.state = state.front();

  bool valid = true;
  int field = 4;  // numbered as in proc(5); the state was the third
  const auto next = [&](int wanted, auto& value) {
    while (field < wanted && !rest.empty()) {
      nextPiece(rest, ' ');
      ++field;
    }
    const auto number = parseInteger<std::remove_reference_t<decltype(value)>>(nextPiece(rest, ' '));
    ++field;
    valid = valid && number.has_value();
    value = number.value_or(0);
  };
  std::uint64_t flags = 0;
  next(6, task.session);
  next(9, flags);
  next(10, task.minorFaults);
  next(12, task.majorFaults);
  next(14, task.userTicks);
  next(15, task.systemTicks);
  next(19, task.nice);
  next(20, task.threads);
  next(22, task.startTicks);
  next(24, task.residentPages);
  next(39, task.lastProcessor);
  task.kernelThread = (flags & kernelThreadFlag) != 0;
  return valid ? std::optional(std::move(task)) : std::nullopt;
}

std::optional<TaskStorage> parseTaskStorage(std::string_view text) {
  std::optional<std::uint64_t> bytesRead;
  std::optional<std::uint64_t> bytesWritten;
  while (!text.empty()) {
    std::string_view line = nextPiece(text, '\n');
    const std::string_view key = nextPiece(line, ':');
    if (key == "read_bytes") bytesRead = parseInteger<std::uint64_t>(trimmedASCII(line));
    if (key == "write_bytes") bytesWritten = parseInteger<std::uint64_t>(trimmedASCII(line));
  }
  if (!bytesRead || !bytesWritten) return std::nullopt;
  return TaskStorage{*bytesRead, *bytesWritten};
}

ProcessTable::ProcessTable(const std::string& procfsRoot)
    : root_(procfsRoot), folder_(::open(procfsRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

std::optional<std::string> ProcessTable::processFile(std::int32_t pid, const char* name) const {
  if (!folder_) return std::nullopt;
  return fileText(std::to_string(pid) + '/' + name, folder_.get());
}

std::vector<TaskStat> ProcessTable::tasks() const {
  std::vector<TaskStat> tasks;
  for (const std::string& name : folderEntries(root_)) {
    const auto pid = parseInteger<std::int32_t>(name);
    const std::optional<std::string> text = pid ? processFile(*pid, "stat") : std::nullopt;
    std::optional<TaskStat> task = text ? parseTaskStat(*text) : std::nullopt;
    if (task) tasks.push_back(std::move(*task));
  }
  std::sort(tasks.begin(), tasks.end(), [](const TaskStat& a, const TaskStat& b) { return a.pid < b.pid; });
  return tasks;
}

std::optional<TaskStorage> ProcessTable::storage(std::int32_t pid) const {
  const std::optional<std::string> text = processFile(pid, "io");
  return text ? parseTaskStorage(*text) : std::nullopt;
}

std::string ProcessTable::group(const TaskStat& task) const {
  if (task.kernelThread) return kernelGroupName;
  const std::string cgroup = processFile(task.pid, "cgroup").value_or("");
  const std::string_view path = controlGroupPath(cgroup);
  if (const auto unit = controlGroupUnit(path)) return std::string(*unit);
  const std::string_view leaf = path.substr(path.rfind('/') + 1);
  return leaf.empty() ? "session " + std::to_string(task.session) : std::string(leaf);
}

}  // namespace quenzel::platform
