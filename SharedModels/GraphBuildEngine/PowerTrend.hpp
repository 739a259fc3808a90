#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "Base/PointInTime.hpp"
#include "SharedModels/GraphBuildEngine/PreparedSnapshot.hpp"

namespace quenzel {

/// What a point keeps through every stage, and over every rebuild of its trend. A number, because points are
/// copied by the ten thousand; whoever has other names for points keeps the table from number to name.
using TrendPointID = std::int64_t;

/// One point of the power trend.
struct PowerTrendPoint {
  TrendPointID id = 0;
  PointInTime timestamp = {};
  double totalW = 0;         ///< the whole machine's draw
  double processW = 0;       ///< the part attributed to processes
  double componentW = 0;     ///< the part attributed to hardware components
  double unattributedW = 0;  ///< the rest
  bool onBatteryPower = false;

  bool operator==(const PowerTrendPoint&) const = default;
};

/// The power fields, for what is done to all alike; the parts are all but the first.
inline constexpr double PowerTrendPoint::*powerFields[] = {
    &PowerTrendPoint::totalW, &PowerTrendPoint::processW, &PowerTrendPoint::componentW,
    &PowerTrendPoint::unattributedW};

namespace GraphBuildEngine {

/// The identity of what happened at that time: milliseconds since 2001. Snapshots of a history lie further
/// apart than that.
TrendPointID trendPointID(PointInTime time);

/// One point a snapshot, in their order. A power that is no finite number becomes 0: the stages that follow
/// carry each value on into its neighbours.
std::vector<PowerTrendPoint> powerTrend(std::span<const PreparedSnapshot> snapshots);

}  // namespace GraphBuildEngine

}  // namespace quenzel
