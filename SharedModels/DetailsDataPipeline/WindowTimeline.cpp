#include "SharedModels/DetailsDataPipeline/WindowTimeline.hpp"

#include <algorithm>

#include "SharedModels/Snapshot/EnergySlice.hpp"

namespace quenzel {
namespace {

constexpr std::size_t spanCount = DetailsPipelineOutput::maxSeriesPoints;

std::size_t spanAt(PointInTime time, PointInTime start, PointInTime end) {
  const double share = (time - start) / (end - start);
  if (!(share > 0)) return 0;
  return std::min(static_cast<std::size_t>(share * static_cast<double>(spanCount)), spanCount - 1);
}

}  // namespace

WindowTimeline::WindowTimeline(const std::vector<PointInTime>& timestamps, PointInTime start, PointInTime end)
    : samples_(timestamps.size()), spans_(spanCount) {
  for (std::size_t index = 1; index < timestamps.size(); ++index) {
    const double hours = sliceHours(timestamps[index] - timestamps[index - 1]);
    samples_[index - 1].hours += hours / 2;
    samples_[index].hours += hours / 2;
    samples_[index].hoursBefore = hours;
  }
  for (std::size_t index = 0; index < timestamps.size(); ++index) {
    Sample& sample = samples_[index];
    sample.span = spanAt(timestamps[index], start, end);
    spans_[sample.span].newest = timestamps[index];
    spans_[sample.span].hours += sample.hours;
  }
}

std::vector<ChartPoint> WindowTimeline::averageWatts(const std::vector<double>& spanWh) const {
  std::vector<ChartPoint> points;
  for (std::size_t index = 0; index < spanWh.size(); ++index) {
    const Span& span = spans_[index];
    if (span.hours > 0) points.push_back({span.newest, chartValue(spanWh[index] / span.hours)});
  }
  return points;
}

}  // namespace quenzel
