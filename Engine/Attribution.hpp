#pragma once

#include <cstdint>

#include "MetricsCollectors/LiveAttributionInputBuilder.hpp"
#include "MetricsCollectors/SystemPowerSnapshot.hpp"
#include "Platform/HardwareModel.hpp"
#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel {

/// What an attribution pass has to know beside its input.
struct AttributionSituation {
  bool onBattery = false;
  std::int64_t logicalCPUCount = 1;  ///< at least 1
  platform::ModelledHardware modelled = {};
  SystemPowerSnapshot componentPower = {};  ///< what the chip's counters say, where there are any
  bool batteryLevelKnown = true;            ///< without a level there is no battery reading
};

/// Splits the total power of one cycle. A measured watt outranks a modelled one, and that a shared-out one:
/// the parts are served in this order, each from what those before it have left.
///
/// 1. Processes get the watts that powermetrics measured for them ("powermetrics", and
///    "powermetrics-gpu-estimated" where their GPU part was allocated by CPU share). Where they add up to
///    more than the total, which is measured over another span, all are scaled down alike
///    ("scaled-to-total").
/// 2. Display and USB get what their models say, scaled down alike to what is left.
/// 3. Only where no process has a measured watt: what is left is shared out by CPU ("cpu-share"). A process
///    that keeps one of eight processors busy gets an eighth; the part of idle processors belongs to nobody.
///    CPU use is what ps reports: on Linux the average over the process's life.
/// 4. Hidden workloads take their shares out of the watts of their hosts, each share being a fraction of the
///    host's watts ("hidden-workload-host"). The shares of one host are scaled down alike to 1.
/// 5. The rest is unattributed.
///
/// Every part is finite and at least 0, and display + USB + processes + hidden workloads + unattributed =
/// total but for rounding. Inputs that are negative or no finite number count 0. A row whose watts come from
/// modelled hardware says "modelled".
///
/// There is a row for each process, even without watts (see dropNegligibleRows); a process listed twice
/// counts once. `energyShare` is its fraction of all that is not unattributed. Of `components`, all but
/// display and USB come from the chip's counters: they are another view of the same total, not further parts
/// of it. Their `confidence` is the fraction of the total that all components account for; absent without
/// counters.
DrainSnapshot attribute(const AttributionBuildResult& build, const AttributionSituation& situation);

/// The least watts of a row that is kept: 0.024 Wh a day, less than a two-thousandth of any laptop's battery.
inline constexpr double leastRowW = 0.001;

/// Takes off the rows of processes and hidden workloads below leastRowW, most of a machine's; their watts
/// become unattributed. A history of all rows would grow by four million a day.
void dropNegligibleRows(DrainSnapshot& snapshot);

}  // namespace quenzel
