#include "Platform/Linux/PowermetricsReport.hpp"

#include <algorithm>
#include <string_view>

#include <fmt/format.h>
#include <unistd.h>

#include "Base/Text.hpp"
#include "Platform/Linux/EnergyZoneChannels.hpp"
#include "Platform/Linux/KernelFiles.hpp"
#include "Platform/Linux/ModelledPower.hpp"

namespace quenzel::platform {
namespace {

constexpr double millisecondsPerSecond = 1000;
constexpr double microjoulesPerMillijoule = 1000;

/// How far a counter went; a counter that went back starts a new life and says nothing of this interval.
double increase(std::uint64_t before, std::uint64_t after) {
  return after > before ? static_cast<double>(after - before) : 0;
}

double interval(const PowermetricsScan& before, const PowermetricsScan& after) {
  return std::max(after.seconds - before.seconds, 1e-3);
}

PowermetricsRow taskRow(const TaskStat& before, const TaskStat& after, double seconds,
                        double ticksPerSecond) {
  const double milliseconds = millisecondsPerSecond / ticksPerSecond / seconds;
  PowermetricsRow row;
  row.name = after.name;
  row.id = after.pid;
  row.cpuMs = increase(before.processorTicks(), after.processorTicks()) * milliseconds;
  row.userMs = increase(before.userTicks, after.userTicks) * milliseconds;
  row.threads = after.threads;
  row.faults = increase(before.minorFaults, after.minorFaults) / seconds;
  row.pageIns = increase(before.majorFaults, after.majorFaults) / seconds;
  row.residentPages = after.residentPages;
  row.task = after;
  return row;
}

void addRate(std::optional<double>& sum, const std::optional<double>& rate) {
  if (rate) sum = sum.value_or(0) + *rate;
}

void add(PowermetricsRow& sum, const PowermetricsRow& row) {
  sum.cpuMs += row.cpuMs;
  sum.userMs += row.userMs;
  sum.threads += row.threads;
  sum.faults += row.faults;
  sum.pageIns += row.pageIns;
  sum.residentPages += row.residentPages;
  addRate(sum.bytesRead, row.bytesRead);
  addRate(sum.bytesWritten, row.bytesWritten);
}

bool isBusier(const PowermetricsRow& a, const PowermetricsRow& b) {
  return a.cpuMs != b.cpuMs ? a.cpuMs > b.cpuMs : a.id < b.id;
}

/// Finds the former state of the processes of a later scan.
class FormerTasks {
 public:
  explicit FormerTasks(const PowermetricsScan& scan) {
    for (const TaskStat& task : scan.tasks) byPid_.emplace(task.pid, &task);
  }

  /// The process at the former scan. One that did not exist then, or whose pid meant another process, had
  /// used nothing.
  TaskStat of(const TaskStat& task) const {
    const auto former = byPid_.find(task.pid);
    return former != byPid_.end() && former->second->startTicks == task.startTicks ? *former->second
                                                                                   : TaskStat{};
  }

 private:
  std::map<std::int32_t, const TaskStat*> byPid_;
};

void setStorageRates(PowermetricsRow& row, const PowermetricsScan& before, const PowermetricsScan& after) {
  const auto now = after.storage.find(static_cast<std::int32_t>(row.id));
  if (now == after.storage.end()) return;
  const auto former = before.storage.find(now->first);
  const TaskStorage start = former == before.storage.end() ? TaskStorage{} : former->second;
  row.bytesRead = increase(start.bytesRead, now->second.bytesRead) / interval(before, after);
  row.bytesWritten = increase(start.bytesWritten, now->second.bytesWritten) / interval(before, after);
}

bool endsWith(const std::optional<std::string>& name, std::string_view suffix) {
  return name && std::string_view(*name).ends_with(suffix);
}

// The table

constexpr std::size_t nameWidth = 36;

/// The text in a cell of that width, a blank at its end.
std::string cell(std::string_view text, std::size_t width) {
  return fmt::format("{:<{}}", text.substr(0, width - 1), width);
}

std::string number(double value) { return fmt::format("{:.2f}", value); }

std::string rate(const std::optional<double>& value) { return value ? number(*value) : "-"; }

std::int64_t kilobytes(std::int64_t pages) {
  static const std::int64_t pageSize = ::sysconf(_SC_PAGESIZE);
  return pages * pageSize / 1024;
}

template <typename Field>
std::string ofTask(const PowermetricsRow& row, Field field) {
  return row.task ? fmt::format("{}", (*row.task).*field) : "-";
}

struct Column {
  const char* header;
  std::size_t width;  // wide enough for any real figure
  bool always;
  std::string (*text)(const PowermetricsRow& row);
};

const Column columns[] = {
    {"ID", 9, true, [](const PowermetricsRow& row) { return fmt::format("{}", row.id); }},
    {"CPU ms/s", 12, true, [](const PowermetricsRow& row) { return number(row.cpuMs); }},
    {"User%", 8, true,
     [](const PowermetricsRow& row) { return number(row.cpuMs > 0 ? row.userMs / row.cpuMs * 100 : 0); }},
    {"Threads", 9, false, [](const PowermetricsRow& row) { return fmt::format("{}", row.threads); }},
    {"State", 7, false, [](const PowermetricsRow& row) { return ofTask(row, &TaskStat::state); }},
    {"Nice", 6, false, [](const PowermetricsRow& row) { return ofTask(row, &TaskStat::nice); }},
    {"Last CPU", 10, false, [](const PowermetricsRow& row) { return ofTask(row, &TaskStat::lastProcessor); }},
    {"Session", 10, false, [](const PowermetricsRow& row) { return ofTask(row, &TaskStat::session); }},
    {"Start (ticks)", 22, false,
     [](const PowermetricsRow& row) { return ofTask(row, &TaskStat::startTicks); }},
    {"Resident (KB)", 16, false,
     [](const PowermetricsRow& row) { return fmt::format("{}", kilobytes(row.residentPages)); }},
    {"Faults/s", 14, false, [](const PowermetricsRow& row) { return number(row.faults); }},
    {"Page-ins/s", 14, false, [](const PowermetricsRow& row) { return number(row.pageIns); }},
    {"Bytes read/s", 18, false, [](const PowermetricsRow& row) { return rate(row.bytesRead); }},
    {"Bytes written/s", 18, false, [](const PowermetricsRow& row) { return rate(row.bytesWritten); }},
    // No time of graphics is counted for a process; the column is there because readers look for it.
    {"GPU ms/s", 10, true, [](const PowermetricsRow&) { return number(0); }},
};

constexpr std::string_view deadTasks = "DEAD_TASKS";
constexpr std::string_view allTasks = "ALL_TASKS";

/// Whether a name could pass for another line of the report: every label of a power line holds " Power".
bool couldDeceive(std::string_view name) {
  std::string upper(name);
  for (char& character : upper) {
    if (character >= 'a' && character <= 'z') character = static_cast<char>(character - 'a' + 'A');
  }
  return upper.starts_with('*') || upper.starts_with(deadTasks) || upper.starts_with(allTasks) ||
         upper.find(" POWER") != std::string::npos;
}

std::string printableName(std::string_view name) {
  std::string printable;
  for (const char character : name) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 0x80 && byte < 0xC0) continue;  // inside a UTF-8 character
    printable += byte >= 0x20 && byte < 0x7F ? character : '?';
  }
  const std::string_view text = trimmedASCII(printable);
  return text.empty() || couldDeceive(text) ? '?' + std::string(text) : std::string(text);
}

std::string tableLine(std::string_view name, const PowermetricsRow& row, bool showAll) {
  std::string line = cell(name, nameWidth);
  for (const Column& column : columns) {
    if (column.always || showAll) line += cell(column.text(row), column.width);
  }
  return line + '\n';
}

std::string headerLine(bool showAll) {
  std::string line = cell("Name", nameWidth);
  for (const Column& column : columns) {
    if (column.always || showAll) line += cell(column.header, column.width);
  }
  return line + '\n';
}

}  // namespace

PowermetricsTaskReport taskReport(const PowermetricsScan& before, const PowermetricsScan& after,
                                  const std::map<std::int32_t, std::string>& groupNames,
                                  double ticksPerSecond) {
  const double seconds = interval(before, after);
  const FormerTasks former(before);
  PowermetricsTaskReport report;
  report.dead.name = deadTasks;
  report.all.name = allTasks;
  report.all.id = -2;  // as the original numbers it
  std::map<std::string, PowermetricsGroup> groups;
  for (const TaskStat& task : after.tasks) {
    PowermetricsRow row = taskRow(former.of(task), task, seconds, ticksPerSecond);
    setStorageRates(row, before, after);
    const auto name = groupNames.find(task.pid);
    PowermetricsGroup& group = groups[name == groupNames.end() ? task.name : name->second];
    if (group.tasks.empty()) group.sum.id = task.pid;
    add(group.sum, row);
    add(report.all, row);
    group.tasks.push_back(std::move(row));
  }
  for (auto& [name, group] : groups) {
    group.sum.name = name;
    std::sort(group.tasks.begin(), group.tasks.end(), isBusier);
    report.groups.push_back(std::move(group));
  }
  std::sort(report.groups.begin(), report.groups.end(),
            [](const PowermetricsGroup& a, const PowermetricsGroup& b) { return isBusier(a.sum, b.sum); });

  const double taskMs = increase(before.processors.taskTicks(), after.processors.taskTicks()) *
                        millisecondsPerSecond / ticksPerSecond / seconds;
  report.dead.cpuMs = std::max(taskMs - report.all.cpuMs, 0.0);
  add(report.all, report.dead);
  return report;
}

std::optional<PowermetricsPower> measuredPower(const PowermetricsScan& before,
                                               const PowermetricsScan& after) {
  if (!before.energy || !after.energy) return std::nullopt;
  PowermetricsPower power;
  for (const EnergyModelChannel& channel : *after.energy) {
    const auto former =
        std::find_if(before.energy->begin(), before.energy->end(),
                     [&](const EnergyModelChannel& other) { return other.name == channel.name; });
    if (former == before.energy->end()) continue;
    const double milliwatts = static_cast<double>(channel.value - former->value) / microjoulesPerMillijoule /
                              interval(before, after);
    if (endsWith(channel.name, "CPU Energy")) addRate(power.cpuMilliwatts, milliwatts);
    if (endsWith(channel.name, "GPU Energy")) addRate(power.gpuMilliwatts, milliwatts);
    if (channel.name == wholeMachineChannelName) power.systemMilliwatts = milliwatts;
  }
  return power;
}

PowermetricsPower modelledPower(const PowermetricsScan& before, const PowermetricsScan& after) {
  const double busy = increase(before.processors.busyTicks(), after.processors.busyTicks());
  const double total = increase(before.processors.totalTicks(), after.processors.totalTicks());
  PowermetricsPower power;
  power.cpuMilliwatts = modelledPackageWatts(total > 0 ? busy / total : 0) * 1000;
  power.modelled = true;
  return power;
}

std::string taskSection(const PowermetricsTaskReport& report, bool showAll) {
  std::string text = "*** Running tasks ***\n\n" + headerLine(showAll);
  for (const PowermetricsGroup& group : report.groups) {
    text += tableLine(printableName(group.sum.name), group.sum, showAll);
    for (const PowermetricsRow& task : group.tasks) {
      text += tableLine("  " + printableName(task.name), task, showAll);
    }
  }
  return text + tableLine(report.dead.name, report.dead, showAll) +
         tableLine(report.all.name, report.all, showAll) + '\n';
}

std::string powerSection(const std::optional<PowermetricsPower>& power,
                         const std::optional<std::string>& refusal) {
  std::string text = "**** Processor usage ****\n\n";
  if (!power && refusal) return text + "Energy counters: " + *refusal + "\n\n";
  if (!power) return text + "No energy counters are readable on this machine.\n\n";
  if (power->modelled) text += "Modelled hardware: these figures are modelled from the measured load.\n";
  const auto line = [&](const char* label, const std::optional<double>& milliwatts) {
    if (milliwatts) text += fmt::format("{}: {:.0f} mW\n", label, std::max(*milliwatts, 0.0));
  };
  std::optional<double> combined = power->cpuMilliwatts;
  addRate(combined, power->gpuMilliwatts);
  line("CPU Power", power->cpuMilliwatts);
  line("GPU Power", power->gpuMilliwatts);
  line("Combined Power (CPU + GPU + ANE)", combined);
  line("System Power", power->systemMilliwatts);
  return text + '\n';
}

}  // namespace quenzel::platform
