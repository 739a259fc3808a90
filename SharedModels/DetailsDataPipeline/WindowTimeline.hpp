#pragma once

#include <cstddef>
#include <vector>

#include "Base/PointInTime.hpp"
#include "SharedModels/DetailsDataPipeline/DetailsPipelineOutput.hpp"

namespace quenzel {

/// How much of a window each of its snapshots stands for, and where on a chart of it.
///
/// The trapezoid rule gives every snapshot half of the slice on either side of it. So the energy of anything
/// that never has a power below 0 is the sum of power times these hours, in whatever order the powers come;
/// what is missing from a snapshot drew nothing at that time. Where a power below 0 is among them, the rule
/// floors the average of each slice at 0, and the slices must be taken one by one.
class WindowTimeline {
 public:
  /// @param timestamps ascending, all between start and end
  WindowTimeline(const std::vector<PointInTime>& timestamps, PointInTime start, PointInTime end);

  double hoursOf(std::size_t snapshot) const { return samples_[snapshot].hours; }
  /// The counted hours of the slice from the snapshot before it, and to the one after it; 0 at either end.
  double hoursBefore(std::size_t snapshot) const { return samples_[snapshot].hoursBefore; }
  double hoursAfter(std::size_t snapshot) const {
    return snapshot + 1 < samples_.size() ? samples_[snapshot + 1].hoursBefore : 0;
  }

  /// Which of the chart's spans a snapshot lies in.
  std::size_t spanOf(std::size_t snapshot) const { return samples_[snapshot].span; }
  /// The average power of each span that was sampled, from the energy in each.
  std::vector<ChartPoint> averageWatts(const std::vector<double>& spanWh) const;

 private:
  struct Sample {
    double hours = 0;
    double hoursBefore = 0;
    std::size_t span = 0;
  };
  struct Span {
    PointInTime newest = {};
    double hours = 0;
  };
  std::vector<Sample> samples_;
  std::vector<Span> spans_;
};

}  // namespace quenzel
