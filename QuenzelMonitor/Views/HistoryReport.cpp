#include "QuenzelMonitor/Views/HistoryReport.hpp"

#include <algorithm>
#include <cmath>
#include <span>
#include <vector>

#include <fmt/format.h>

#include "Base/Text.hpp"
#include "QuenzelMonitor/Views/Terminal.hpp"
#include "QuenzelMonitor/Views/TerminalChart.hpp"

namespace quenzel {
namespace {

constexpr double hour = 3600;

double share(double part, double whole) { return whole > 0 ? 100 * part / whole : 0; }

/// "50 s", "5 min", "3.5 h", "6.2 days".
std::string duration(double hours) {
  if (hours * 60 < 2) return fmt::format("{:.0f} s", hours * 3600);
  if (hours < 2) return fmt::format("{:.0f} min", hours * 60);
  return hours < 48 ? fmt::format("{:.1f} h", hours) : fmt::format("{:.1f} days", hours / 24);
}

std::string futureNote(const HistoryView& view) {
  if (!view.newestInFuture) return "";
  return fmt::format("Snapshots of the future (up to {}) are left out: the clock was ahead.\n",
                     localTimestampText(*view.newestInFuture));
}

std::string heading(const HistoryView& view) {
  const DetailsPipelineOutput& details = view.details;
  std::string text = fmt::format(
      "The last {} up to {}: {} over {}{}\n", view.period.label, localTimestampText(details.anchor),
      quantity(details.snapshotCount, "snapshot", "snapshots"), duration(details.summary.trackedHours),
      details.modelled ? " (some figures are modelled, not measured)" : "");
  // A gap counts as a minute at most, so energy and average are those of less than the whole time.
  if (details.summary.sampleHours < 0.98 * details.summary.trackedHours)
    text += fmt::format("Only {} of that was sampled; gaps are not interpolated.\n",
                        duration(details.summary.sampleHours));
  return text + futureNote(view);
}

std::string totals(const DetailsWindowSummary& summary) {
  const double averageW = summary.sampleHours > 0 ? summary.totalWh / summary.sampleHours : 0;
  std::string text = fmt::format("Energy     {:.3f} Wh, {:.2f} W on average\n", summary.totalWh, averageW);
  text += fmt::format("On battery {:.3f} Wh\n", summary.batteryWh);
  text += fmt::format("Quenzel    {:.3f} Wh, {:.1f} % of it\n", summary.trackerWh,
                      share(summary.trackerWh, summary.totalWh));
  text += fmt::format("Went to    processes {:.3f} Wh, display and USB {:.3f} Wh, unattributed {:.3f} Wh\n",
                      summary.processWh, summary.screenWh + summary.usbWh, summary.unattributedWh);
  return text;
}

std::string batteryLine(const HistoryView& view) {
  const auto& levels = view.details.batteryLevelPercent;
  if (levels.empty()) return "Battery    unknown\n";
  std::string line = fmt::format("Battery    {:.1f} %", levels.back().value);
  if (const auto rate = view.trends.reliableBatteryDrainRatePerHour) {
    constexpr double leastShownRate = 0.05;
    if (std::abs(*rate) < leastShownRate) {
      line += ", steady";
    } else {
      line += fmt::format(", {} at {:.1f} % an hour", *rate < 0 ? "charging" : "draining", std::abs(*rate));
    }
  }
  return line + "\n";
}

/// A history shorter than the window is drawn over its own length.
ChartAxes axesOf(const HistoryView& view, const char* unit) {
  const auto& points = view.trends.powerTrend;
  ChartAxes axes{.start = view.details.windowStart, .end = view.details.anchor, .unit = unit};
  if (!points.empty()) axes.start = std::max(axes.start, points.front().timestamp);
  const double seconds = axes.end - axes.start;
  // Some missed cycles are no gap, nor is the distance between the points of a thinned curve.
  constexpr double longestCycleSeconds = 120;
  axes.longestJoinSeconds =
      std::max(longestCycleSeconds,
               4 * seconds / static_cast<double>(std::max<std::int64_t>(view.period.graphMaxPoints, 1)));
  const char* const format = seconds < hour / 2 ? "%H:%M:%S" : seconds < 30 * hour ? "%H:%M" : "%a %d %H:%M";
  for (const double part : {0.0, 0.5, 1.0})
    axes.timeLabels.push_back(localTimeText(axes.start + part * seconds, format));
  return axes;
}

template <typename Point>
std::string chart(const char* title, const std::vector<Point>& points, double Point::*value,
                  const ChartAxes& axes, const ChartLayout& layout) {
  std::vector<ChartSample> samples;
  samples.reserve(points.size());
  for (const Point& point : points) samples.push_back({point.timestamp, point.*value});
  std::string text = fmt::format("\n{}\n", title);
  for (const std::string& line : terminalChart(samples, axes, layout)) text += line + "\n";
  return text;
}

/// A name that fits, and that the terminal can show.
std::string shownName(const std::string& name, const HistoryReportLayout& layout, std::size_t room) {
  std::string text = printableLine(name);
  if (!layout.isUnicode) text = asciiLine(text);
  return cutToColumns(text, std::max<std::size_t>(room, 8), layout.isUnicode);
}

std::string applicationTable(const HistoryView& view, const HistoryReportLayout& layout) {
  std::string text = "\nWhere it went\n  ENERGY Wh   SHARE  AVERAGE W      NOW W  PROCESSES  APPLICATION\n";
  std::size_t shown = 0;
  for (const ApplicationUsage& usage : view.applications) {
    if (shown++ == layout.topApplications) break;
    const std::string figures =
        fmt::format("  {:9.4f}  {:5.1f}%  {:9.3f}  {:9.3f}  {:9}  ", usage.energyWh,
                    share(usage.energyWh, view.details.summary.totalWh), usage.averageW, usage.latestW,
                    usage.memberCount > 0 ? std::to_string(usage.memberCount) : "-");
    const std::size_t room = layout.width > figures.size() ? layout.width - figures.size() : 0;
    text += figures + shownName(usage.name, layout, room) + "\n";
  }
  return text;
}

}  // namespace

std::string historyReport(const HistoryView& view, const HistoryReportLayout& layout) {
  if (view.details.snapshotCount == 0)
    return fmt::format("The last {} has no snapshots.\n", view.period.label) + futureNote(view);
  constexpr std::size_t powerHeight = 10, energyHeight = 7;
  return heading(view) + totals(view.details.summary) + batteryLine(view) +
         chart("Power, smoothed", view.trends.powerTrend, &PowerTrendPoint::totalW, axesOf(view, "W"),
               {layout.width, powerHeight, layout.isUnicode}) +
         chart("Energy", view.trends.energyTrend, &EnergyTrendPoint::totalWh, axesOf(view, "Wh"),
               {layout.width, energyHeight, layout.isUnicode}) +
         applicationTable(view, layout);
}

}  // namespace quenzel
