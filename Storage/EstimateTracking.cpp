#include "Storage/EstimateTracking.hpp"

#include <tuple>

#include <fmt/format.h>

#include "SharedModels/Runtime/JSONCoding.hpp"
#include "Storage/Database.hpp"

namespace quenzel {
namespace {

constexpr std::string_view insertEstimate =
    "INSERT INTO estimate_tracking (estimate_timestamp, horizon_seconds, estimate_source, on_battery, "
    "start_battery_percent, estimated_power_w, estimated_drain_rate_pct_hr, estimated_time_left_min, "
    "evaluation_status)\n"
    "VALUES (?, ?, ?, ?, ?, ?, ?, ?, 'pending');";

constexpr std::string_view updateEvaluation =
    "UPDATE estimate_tracking\n"
    "SET evaluated_at = ?, sample_duration_seconds = ?, actual_battery_percent = ?, actual_avg_power_w = ?, "
    "actual_drain_rate_pct_hr = ?, actual_time_left_min = ?, power_error_w = ?, drain_rate_error_pct_hr = ?, "
    "time_left_error_min = ?, evaluation_status = ?\n"
    "WHERE id = ?;";

/// The statement that reads rows, ended by what chooses and orders them.
std::string selectRows(std::string_view choice) {
  return fmt::format(
      "SELECT id, estimate_timestamp, horizon_seconds, estimate_source, on_battery, start_battery_percent, "
      "estimated_power_w, estimated_drain_rate_pct_hr, estimated_time_left_min, evaluation_status, "
      "evaluated_at, sample_duration_seconds, actual_battery_percent, actual_avg_power_w, "
      "actual_drain_rate_pct_hr, actual_time_left_min, power_error_w, drain_rate_error_pct_hr, "
      "time_left_error_min\n"
      "FROM estimate_tracking\n"
      "{}\n"
      "LIMIT ?;",
      choice);
}

/// In the order of their columns.
using Actuals = EstimateTrackingActuals;
constexpr auto actualsFields = std::tuple{
    jsonField("sampleDurationSeconds", &Actuals::sampleDurationSeconds),
    jsonField("actualBatteryLevelPercent", &Actuals::actualBatteryLevelPercent),
    jsonField("actualAveragePowerW", &Actuals::actualAveragePowerW),
    jsonField("actualDrainRatePctPerHour", &Actuals::actualDrainRatePctPerHour),
    jsonField("actualTimeRemainingMinutes", &Actuals::actualTimeRemainingMinutes),
    jsonField("powerErrorW", &Actuals::powerErrorW),
    jsonField("drainRateErrorPctPerHour", &Actuals::drainRateErrorPctPerHour),
    jsonField("timeRemainingErrorMinutes", &Actuals::timeRemainingErrorMinutes),
};

EstimateTrackingRow estimateOfRow(const Statement& row) {
  EstimateTrackingRow record;
  record.id = row.column<std::int64_t>(0);
  EstimateTrackingEstimateInput& estimate = record.estimate;
  estimate.estimatedAt = PointInTime::fromSecondsSince1970(row.column<double>(1));
  estimate.horizonSeconds = row.column<std::int64_t>(2);
  estimate.estimateSource = row.column<std::string>(3);
  estimate.onBatteryPower = row.column<bool>(4);
  estimate.startingBatteryLevelPercent = row.column<double>(5);
  estimate.estimatedPowerW = row.column<double>(6);
  estimate.estimatedDrainRatePctPerHour = row.column<std::optional<double>>(7);
  estimate.estimatedTimeRemainingMinutes = row.column<std::optional<std::int64_t>>(8);
  record.status = estimateTrackingStatus(row.column<std::string_view>(9))
                      .value_or(EstimateTrackingStatus::skippedInsufficientData);
  if (const auto evaluatedAt = row.column<std::optional<double>>(10))
    record.evaluatedAt = PointInTime::fromSecondsSince1970(*evaluatedAt);
  int column = 11;
  std::apply(
      [&](const auto&... field) {
        ((record.actuals.*field.member = row.column<std::optional<double>>(column++)), ...);
      },
      actualsFields);
  return record;
}

template <typename... Parameters>
std::vector<EstimateTrackingRow> fetch(Database& database, const std::string& sql, std::int64_t limit,
                                       const Parameters&... parameters) {
  std::vector<EstimateTrackingRow> rows;
  if (limit < 1) return rows;  // SQLite would take a negative limit for none at all
  Statement select = database.prepared(sql);
  select.bind(parameters..., limit);
  while (select.next()) rows.push_back(estimateOfRow(select));
  return rows;
}

EstimateTrackingStatus decodeStatus(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONEnumeration(json, path, estimateTrackingStatus);
}

nlohmann::ordered_json encodeStatus(const EstimateTrackingStatus& status) { return rawValue(status); }

using Estimate = EstimateTrackingEstimateInput;
constexpr auto estimateFields = std::tuple{
    jsonField("estimatedAt", &Estimate::estimatedAt),
    jsonField("horizonSeconds", &Estimate::horizonSeconds),
    jsonField("estimateSource", &Estimate::estimateSource),
    jsonField("onBatteryPower", &Estimate::onBatteryPower),
    jsonField("startingBatteryLevelPercent", &Estimate::startingBatteryLevelPercent),
    jsonField("estimatedPowerW", &Estimate::estimatedPowerW),
    jsonField("estimatedDrainRatePctPerHour", &Estimate::estimatedDrainRatePctPerHour),
    jsonField("estimatedTimeRemainingMinutes", &Estimate::estimatedTimeRemainingMinutes),
};

/// Evaluations and rows have the same fields besides.
template <typename Record>
constexpr auto evaluationFields = std::tuple{
    jsonField("status", &Record::status, decodeStatus, encodeStatus),
    jsonField("evaluatedAt", &Record::evaluatedAt),
};

}  // namespace

std::string_view rawValue(EstimateTrackingStatus status) {
  switch (status) {
    case EstimateTrackingStatus::pending:
      return "pending";
    case EstimateTrackingStatus::evaluated:
      return "evaluated";
    case EstimateTrackingStatus::skippedPowerSourceChange:
      return "skipped_power_source_change";
    case EstimateTrackingStatus::skippedInsufficientData:
      return "skipped_insufficient_data";
  }
  return {};
}

std::optional<EstimateTrackingStatus> estimateTrackingStatus(std::string_view raw) {
  for (const EstimateTrackingStatus status : allEstimateTrackingStatuses) {
    if (rawValue(status) == raw) return status;
  }
  return {};
}

EstimateTrackingEstimateInput decodeEstimateInput(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONRecord<Estimate>(json, path, estimateFields);
}

EstimateTrackingEvaluationInput decodeEvaluationInput(const nlohmann::json& json, const JSONPath& path) {
  using Evaluation = EstimateTrackingEvaluationInput;
  auto evaluation = decodeJSONRecord<Evaluation>(json, path, evaluationFields<Evaluation>);
  evaluation.actuals = decodeJSONRecord<Actuals>(json, path, actualsFields);
  return evaluation;
}

nlohmann::ordered_json encodeEstimateRow(const EstimateTrackingRow& row) {
  nlohmann::ordered_json json = {{"id", row.id}};
  json.update(encodeJSONRecord(row.estimate, estimateFields));
  json.update(encodeJSONRecord(row, evaluationFields<EstimateTrackingRow>));
  json.update(encodeJSONRecord(row.actuals, actualsFields));
  json["isEvaluated"] = row.isEvaluated();
  return json;
}

std::int64_t EstimateTracking::insert(Database& database, const EstimateTrackingEstimateInput& estimate) {
  database.prepared(insertEstimate)
      .run(estimate.estimatedAt.secondsSince1970(), estimate.horizonSeconds, estimate.estimateSource,
           estimate.onBatteryPower, estimate.startingBatteryLevelPercent, estimate.estimatedPowerW,
           estimate.estimatedDrainRatePctPerHour, estimate.estimatedTimeRemainingMinutes);
  return database.lastInsertRowID();
}

bool EstimateTracking::applyEvaluation(Database& database, std::int64_t recordID,
                                       const EstimateTrackingEvaluationInput& evaluation) {
  std::apply(
      [&](const auto&... field) {
        database.prepared(updateEvaluation)
            .run(evaluation.evaluatedAt.secondsSince1970(), evaluation.actuals.*field.member...,
                 rawValue(evaluation.status), recordID);
      },
      actualsFields);
  return database.changes() > 0;
}

std::vector<EstimateTrackingRow> EstimateTracking::fetchPending(Database& database, std::int64_t limit) {
  static const std::string sql = selectRows("WHERE evaluation_status = ?\nORDER BY estimate_timestamp ASC");
  return fetch(database, sql, limit, rawValue(EstimateTrackingStatus::pending));
}

std::vector<EstimateTrackingRow> EstimateTracking::fetchNewest(Database& database, std::int64_t limit) {
  static const std::string sql = selectRows("ORDER BY estimate_timestamp DESC");
  return fetch(database, sql, limit);
}

}  // namespace quenzel
