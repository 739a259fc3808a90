#include "SharedModels/Snapshot/SnapshotQuality.hpp"

#include <algorithm>

namespace quenzel {
namespace {

constexpr double leastTotalW = 0.1;
constexpr double meaningfulW = 0.05;

}  // namespace

double attributedProcessW(const DrainSnapshot& snapshot) {
  double sum = 0;
  for (const ProcessDrain& process : snapshot.processes) {
    if (process.drainW > 0) sum += process.drainW;
  }
  return sum;
}

double hiddenWorkloadW(const DrainSnapshot& snapshot) {
  double sum = 0;
  for (const HiddenDrain& hidden : snapshot.hidden) sum += hidden.drainW;
  return sum;
}

double snapshotQuality(double totalW, double attributedW) {
  const double denominator = totalW >= leastTotalW ? totalW : leastTotalW;
  const double coverage = attributedW > 0 ? std::min(attributedW / denominator, 1.0) : 0;
  return attributedW > meaningfulW ? coverage + 1 : coverage;
}

double snapshotQuality(const DrainSnapshot& snapshot) {
  return snapshotQuality(snapshot.totalDischargeW, attributedProcessW(snapshot));
}

}  // namespace quenzel
