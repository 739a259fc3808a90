#include "MetricsCollectors/PowermetricsParser.hpp"

#include <algorithm>
#include <array>
#include <utility>

#include <re2/re2.h>

#include "Base/Number.hpp"
#include "Base/Text.hpp"

namespace quenzel {
namespace {

constexpr std::string_view cpuPowerLabel = "CPU Power";
constexpr std::string_view gpuPowerLabel = "GPU Power";
constexpr std::string_view anePowerLabel = "ANE Power";
constexpr std::string_view combinedPowerLabel = "Combined Power (CPU + GPU + ANE)";
constexpr std::array<std::string_view, 4> systemPowerLabels = {"System Average Power", "System Power",
                                                               "Total Power", "Total System Power"};
constexpr std::string_view taskSectionTitle = "*** Running tasks ***";
constexpr std::string_view sectionRule = "****";

/// Whether a power label may begin with that character: the cheap test that spares nearly every line the
/// others.
constexpr bool mayBeginPowerLabel(char first) {
  return first == 'C' || first == 'G' || first == 'A' || first == 'S' || first == 'T';
}

/// Where the columns begin, in user-perceived characters from the start of the line.
struct TaskColumns {
  std::size_t name;
  std::size_t id;
  std::size_t cpu;
  std::size_t gpu;

  std::size_t last() const { return std::max({name, id, cpu, gpu}); }
};

std::optional<TaskColumns> taskColumns(std::string_view header) {
  const auto offsetOf = [&](std::string_view title) -> std::optional<std::size_t> {
    const std::size_t position = header.find(title);
    if (position == std::string_view::npos) return std::nullopt;
    return graphemeCount(header.substr(0, position));
  };
  const auto name = offsetOf("Name");
  const auto id = offsetOf("ID");
  const auto cpu = offsetOf("CPU ms/s");
  const auto gpu = offsetOf("GPU ms/s");
  if (!name || !id || !cpu || !gpu) return std::nullopt;
  return TaskColumns{*name, *id, *cpu, *gpu};
}

/// The texts of one row's columns, untrimmed.
struct TaskCells {
  std::string_view name;
  std::string_view id;
  std::string_view cpu;
  std::string_view gpu;
};

std::string_view bytesBetween(std::string_view line, std::size_t start, std::size_t end) {
  return start < std::min(end, line.size()) ? line.substr(start, end - start) : std::string_view();
}

TaskCells taskCells(std::string_view line, const TaskColumns& columns) {
  // In a line that is ASCII up to its last column, character offsets are byte offsets: there is no CR LF
  // within a line, and no combining mark behind the characters counted.
  const bool isASCII = isASCIIText(line.substr(0, columns.last() + 1));
  const auto position = [&](std::size_t offset) { return isASCII ? offset : graphemeOffset(line, offset); };
  const std::size_t name = position(columns.name);
  const std::size_t id = position(columns.id);
  const std::size_t cpu = position(columns.cpu);
  const std::size_t gpu = position(columns.gpu);
  return {bytesBetween(line, name, id), bytesBetween(line, id, cpu), bytesBetween(line, cpu, gpu),
          bytesBetween(line, gpu, line.size())};
}

/// The row as a task, with its trimmed name; none for group rows, summaries and rows without a usable id.
std::optional<PowermetricsParser::TaskActivityRow> taskRow(const TaskCells& cells, std::string_view name) {
  if (!startsWithWhitespace(cells.name) || name.empty() || equalsIgnoringASCIICase(name, "DEAD_TASKS") ||
      name.starts_with("***")) {
    return std::nullopt;
  }
  const auto pid = parseInteger(trimmed(cells.id));
  if (!pid || *pid < 1) return std::nullopt;
  return PowermetricsParser::TaskActivityRow{
      *pid, std::string(name), nonNegative(PowermetricsParser::parseFirstDouble(cells.cpu).value_or(0)),
      nonNegative(PowermetricsParser::parseFirstDouble(cells.gpu).value_or(0))};
}

}  // namespace

double PowermetricsParser::convertToWatts(double value, std::string_view unit) {
  if (equalsIgnoringASCIICase(unit, "uw")) return value / 1'000'000;
  if (equalsIgnoringASCIICase(unit, "mw")) return value / 1000;
  if (equalsIgnoringASCIICase(unit, "kw")) return value * 1000;
  return value;
}

std::optional<double> PowermetricsParser::powerValue(std::string_view line, std::string_view label) {
  if (!line.starts_with(label)) return std::nullopt;
  // A number and its unit up to the end of the word. Blanks and word ends are meant as Unicode has them,
  // which RE2's own \s and \b are not; so they are spelled out. What stands before the match does not matter,
  // so neither do the colon and the blanks behind the label.
  static const RE2 pattern(
      R"(([0-9]+(?:\.[0-9]+)?)[\t\n\v\f\r\x{85}\pZ]*([muMkK]?W)(?:[^\pL\pM\p{Nd}\p{Nl}\p{Pc}\x{200C}\x{200D}\x{24B6}-\x{24E9}]|$))",
      RE2::Quiet);
  re2::StringPiece number;
  re2::StringPiece unit;
  const std::string_view rest = line.substr(label.size());
  if (!RE2::PartialMatch(re2::StringPiece(rest.data(), rest.size()), pattern, &number, &unit))
    return std::nullopt;
  const auto value = parseDouble({number.data(), number.size()});
  if (!value) return std::nullopt;
  return convertToWatts(*value, {unit.data(), unit.size()});
}

PowermetricsParser::PackageTotals PowermetricsParser::parsePackageTotals(const Lines& lines) {
  PackageTotals totals;
  const std::array<std::pair<std::string_view, double*>, 4> packageFigures = {
      {{cpuPowerLabel, &totals.cpuW},
       {gpuPowerLabel, &totals.gpuW},
       {anePowerLabel, &totals.aneW},
       {combinedPowerLabel, &totals.combinedW}}};
  const auto takePackageFigure = [&](std::string_view line) {
    return std::any_of(packageFigures.begin(), packageFigures.end(), [&](const auto& figure) {
      const auto watts = powerValue(line, figure.first);
      if (watts) *figure.second = *watts;
      return watts.has_value();
    });
  };
  for (const std::string_view rawLine : lines) {
    std::string_view line = trimmedLeft(rawLine);
    if (line.empty() || !mayBeginPowerLabel(line.front())) continue;
    line = trimmed(line);
    if (takePackageFigure(line) || totals.totalSystemW) continue;
    for (const std::string_view label : systemPowerLabels) {
      totals.totalSystemW = powerValue(line, label);
      if (totals.totalSystemW) break;
    }
  }
  return totals;
}

std::optional<double> PowermetricsParser::parseFirstDouble(std::string_view text) {
  return parseDouble(firstWord(text));
}

std::size_t PowermetricsParser::boundedIndex(std::string_view line, std::int64_t offset) {
  return offset > 0 ? graphemeOffset(line, static_cast<std::size_t>(offset)) : 0;
}

std::string_view PowermetricsParser::columnValue(std::string_view line, std::int64_t start,
                                                 std::optional<std::int64_t> end) {
  return bytesBetween(line, boundedIndex(line, start), end ? boundedIndex(line, *end) : line.size());
}

PowermetricsParser::RunningTasks PowermetricsParser::parseRunningTasks(const Lines& lines) {
  RunningTasks tasks;
  const auto isTitle = [](std::string_view line) { return trimmed(line) == taskSectionTitle; };
  auto line = std::find_if(lines.begin(), lines.end(), isTitle);
  if (line == lines.end()) return tasks;

  tasks.rows.reserve(static_cast<std::size_t>(lines.end() - line));
  std::optional<TaskColumns> columns;
  for (++line; line != lines.end(); ++line) {
    const std::string_view text = trimmedLeft(*line);
    if (text.starts_with(sectionRule) && trimmed(text).ends_with(sectionRule)) break;
    if (!columns) {
      columns = taskColumns(*line);
      continue;
    }
    if (text.empty()) continue;
    const TaskCells cells = taskCells(*line, *columns);
    const std::string_view name = trimmed(cells.name);
    if (equalsIgnoringASCIICase(name, "ALL_TASKS")) {
      tasks.allTasks = parseFirstDouble(cells.cpu);
    } else if (auto row = taskRow(cells, name)) {
      tasks.cpuTotal += row->cpuMsPerSec;
      tasks.gpuTotal += row->gpuMsPerSec;
      tasks.rows.push_back(std::move(*row));
    }
  }
  return tasks;
}

PowermetricsParseOutput PowermetricsParser::parse(std::string_view text) const {
  const Lines lines = splitAtLineFeeds(text);
  const PackageTotals totals = parsePackageTotals(lines);
  RunningTasks tasks = parseRunningTasks(lines);

  PowermetricsParseOutput output;
  output.cpuPackageW = totals.cpuW;
  output.gpuPackageW = totals.gpuW;
  output.anePackageW = totals.aneW;
  output.combinedPackageW =
      totals.combinedW > 0 ? totals.combinedW : nonNegative(totals.cpuW + totals.gpuW + totals.aneW);
  output.totalSystemWatts = totals.totalSystemW;
  output.totalTaskCPUmsPerSec = tasks.cpuTotal;
  output.totalTaskGPUmsPerSec = tasks.gpuTotal;
  output.allTasksCPUmsPerSec = tasks.allTasks;

  const double cpuDenominator = output.resolvedCPUAttributionDenominator();
  const bool gpuByCPUShare = output.gpuPackageAllocatedByCPUShare();
  output.processes.reserve(tasks.rows.size());
  for (TaskActivityRow& row : tasks.rows) {
    const double cpuShare = cpuDenominator > 0 ? row.cpuMsPerSec / cpuDenominator : 0;
    const double gpuShare = tasks.gpuTotal > 0 ? row.gpuMsPerSec / tasks.gpuTotal
                            : gpuByCPUShare    ? cpuShare
                                               : 0;
    PowermetricsProcessRecord& record = output.processes.emplace_back();
    record.pid = row.pid;
    record.name = std::move(row.name);
    record.cpuMsPerSec = row.cpuMsPerSec;
    record.gpuMsPerSec = row.gpuMsPerSec;
    record.cpuPackageW = totals.cpuW * cpuShare;
    record.gpuPackageW = totals.gpuW * gpuShare;
    record.anePackageW = totals.aneW * cpuShare;  // nothing says which task keeps the neural engine busy
    record.packageW = record.anePackageW + (record.gpuPackageW + record.cpuPackageW);
  }
  return output;
}

}  // namespace quenzel

std::size_t std::hash<quenzel::PowermetricsParser::TaskActivityRow>::operator()(
    const quenzel::PowermetricsParser::TaskActivityRow& row) const noexcept {
  quenzel::PowermetricsProcessRecord record;
  record.pid = row.pid;
  record.name = row.name;
  record.cpuMsPerSec = row.cpuMsPerSec;
  record.gpuMsPerSec = row.gpuMsPerSec;
  return std::hash<quenzel::PowermetricsProcessRecord>{}(record);
}
