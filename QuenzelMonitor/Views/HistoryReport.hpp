#pragma once

#include <cstddef>
#include <string>

#include "QuenzelMonitor/Views/HistoryView.hpp"

namespace quenzel {

/// How the report is laid out.
struct HistoryReportLayout {
  std::size_t width = 80;
  std::size_t topApplications = 10;
  bool isUnicode = true;
};

/// A window of the history for a person: totals, battery, the curves of power and energy, and the
/// applications that drew most. Says so when figures are modelled. Times are local, with their offset in the
/// heading.
std::string historyReport(const HistoryView& view, const HistoryReportLayout& layout);

}  // namespace quenzel
