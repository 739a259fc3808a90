#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "Base/PointInTime.hpp"

namespace quenzel {

class Database;
class JSONPath;

/// What has become of an estimate.
enum class EstimateTrackingStatus {
  pending,
  evaluated,
  skippedPowerSourceChange,
  skippedInsufficientData,
};

inline constexpr EstimateTrackingStatus allEstimateTrackingStatuses[] = {
    EstimateTrackingStatus::pending, EstimateTrackingStatus::evaluated,
    EstimateTrackingStatus::skippedPowerSourceChange, EstimateTrackingStatus::skippedInsufficientData};

/// "pending", "evaluated", "skipped_power_source_change" or "skipped_insufficient_data".
std::string_view rawValue(EstimateTrackingStatus status);
/// The status of exactly that raw value.
std::optional<EstimateTrackingStatus> estimateTrackingStatus(std::string_view rawValue);

/// An estimate of power, drain rate and time remaining, to be held against what happens.
struct EstimateTrackingEstimateInput {
  PointInTime estimatedAt = {};
  std::int64_t horizonSeconds = 0;  ///< how far ahead it looks
  std::string estimateSource = {};
  bool onBatteryPower = false;
  double startingBatteryLevelPercent = 0;
  double estimatedPowerW = 0;
  std::optional<double> estimatedDrainRatePctPerHour = {};
  std::optional<std::int64_t> estimatedTimeRemainingMinutes = {};

  bool operator==(const EstimateTrackingEstimateInput&) const = default;
};

/// The outcome of checking one estimate: what happened over its horizon, and how far it was off. An absent
/// value could not be told.
struct EstimateTrackingEvaluationInput {
  EstimateTrackingStatus status = EstimateTrackingStatus::pending;
  PointInTime evaluatedAt = {};
  std::optional<double> sampleDurationSeconds = {};
  std::optional<double> actualBatteryLevelPercent = {};
  std::optional<double> actualAveragePowerW = {};
  std::optional<double> actualDrainRatePctPerHour = {};
  std::optional<double> actualTimeRemainingMinutes = {};
  std::optional<double> powerErrorW = {};
  std::optional<double> drainRateErrorPctPerHour = {};
  std::optional<double> timeRemainingErrorMinutes = {};

  bool operator==(const EstimateTrackingEvaluationInput&) const = default;
};

/// A stored estimate with its evaluation, as far as there is one: the fields of both inputs.
struct EstimateTrackingRow {
  std::int64_t id = 0;
  PointInTime estimatedAt = {};
  std::int64_t horizonSeconds = 0;
  std::string estimateSource = {};
  bool onBatteryPower = false;
  double startingBatteryLevelPercent = 0;
  double estimatedPowerW = 0;
  std::optional<double> estimatedDrainRatePctPerHour = {};
  std::optional<std::int64_t> estimatedTimeRemainingMinutes = {};
  /// A stored text that is none of the four (a newer version's, say) reads as skippedInsufficientData: this
  /// version can't tell what was found out, and must neither evaluate the estimate again nor count it.
  EstimateTrackingStatus status = EstimateTrackingStatus::pending;
  std::optional<PointInTime> evaluatedAt = {};
  std::optional<double> sampleDurationSeconds = {};
  std::optional<double> actualBatteryLevelPercent = {};
  std::optional<double> actualAveragePowerW = {};
  std::optional<double> actualDrainRatePctPerHour = {};
  std::optional<double> actualTimeRemainingMinutes = {};
  std::optional<double> powerErrorW = {};
  std::optional<double> drainRateErrorPctPerHour = {};
  std::optional<double> timeRemainingErrorMinutes = {};

  /// Skipped estimates are not.
  bool isEvaluated() const { return status == EstimateTrackingStatus::evaluated; }

  bool operator==(const EstimateTrackingRow&) const = default;
};

// JSON forms: one object of all fields; absent optionals may be missing. Each decode throws JSONCodingError.

EstimateTrackingEstimateInput decodeEstimateInput(const nlohmann::json& json, const JSONPath& path);
EstimateTrackingEvaluationInput decodeEvaluationInput(const nlohmann::json& json, const JSONPath& path);
nlohmann::ordered_json encodeEstimateRow(const EstimateTrackingRow& row);

/// The "estimate_tracking" table. Each function throws SnapshotStoreError.
namespace EstimateTracking {
std::int64_t insert(Database& database, const EstimateTrackingEstimateInput& estimate);
/// Returns whether there is such a row.
bool applyEvaluation(Database& database, std::int64_t recordID,
                     const EstimateTrackingEvaluationInput& evaluation);
std::vector<EstimateTrackingRow> fetchPending(Database& database, std::int64_t limit);
std::vector<EstimateTrackingRow> fetchNewest(Database& database, std::int64_t limit);
}  // namespace EstimateTracking

}  // namespace quenzel
