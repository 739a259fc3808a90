#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MetricsCollectors/PowermetricsParseOutput.hpp"

namespace quenzel {

/// Reads the plain-text report of powermetrics(1): package power lines ("CPU Power: 1234 mW") anywhere in the
/// text, and the table under "*** Running tasks ***", whose columns are found by where their titles stand in
/// the header line. Rows that begin in the first column are groups and summaries; task rows are indented.
///
/// A pure function of the text that never fails: what is missing or unreadable yields zeros, absent values or
/// no row. Cost: about one pass over the text, and one allocation for each task whose name is longer than
/// fifteen bytes.
class PowermetricsParser {
 public:
  PowermetricsParseOutput parse(std::string_view output) const;

  // The steps of it, open to tests. Lines are views into the text.

  using Lines = std::vector<std::string_view>;

  struct PackageTotals {
    double cpuW = 0;
    double gpuW = 0;
    double aneW = 0;
    double combinedW = 0;
    std::optional<double> totalSystemW;
  };
  /// Of package lines the last counts, of whole-system lines the first.
  static PackageTotals parsePackageTotals(const Lines& lines);

  struct TaskActivityRow {
    std::int64_t pid = 0;
    std::string name;
    double cpuMsPerSec = 0;
    double gpuMsPerSec = 0;

    bool operator==(const TaskActivityRow&) const = default;
  };
  struct RunningTasks {
    std::vector<TaskActivityRow> rows;
    double cpuTotal = 0;
    double gpuTotal = 0;
    std::optional<double> allTasks;
  };
  /// Only the first task section of a text counts.
  static RunningTasks parseRunningTasks(const Lines& lines);

  /// The watts behind `label` on a line that starts with it.
  static std::optional<double> powerValue(std::string_view line, std::string_view label);
  /// uW, mW, kW and W in any letter case; so "MW" is milliwatts, which is what the tool means by it.
  static double convertToWatts(double value, std::string_view unit);
  /// The first white-space separated piece as a number.
  static std::optional<double> parseFirstDouble(std::string_view text);
  /// The user-perceived characters from `start` up to `end` (the end of the line without it).
  static std::string_view columnValue(std::string_view line, std::int64_t start,
                                      std::optional<std::int64_t> end);
  /// Byte position of the character offset, limited to the line: 0 for a negative one.
  static std::size_t boundedIndex(std::string_view line, std::int64_t offset);
};

}  // namespace quenzel

template <>
struct std::hash<quenzel::PowermetricsParser::TaskActivityRow> {
  std::size_t operator()(const quenzel::PowermetricsParser::TaskActivityRow& row) const noexcept;
};
