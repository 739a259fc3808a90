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

/// The fields of an estimate in the order of their columns, in a record that has them.
template <typename Record>
constexpr auto estimateFields = std::tuple{
    jsonField("estimatedAt", &Record::estimatedAt),
    jsonField("horizonSeconds", &Record::horizonSeconds),
    jsonField("estimateSource", &Record::estimateSource),
    jsonField("onBatteryPower", &Record::onBatteryPower),
    jsonField("startingBatteryLevelPercent", &Record::startingBatteryLevelPercent),
    jsonField("estimatedPowerW", &Record::estimatedPowerW),
    jsonField("estimatedDrainRatePctPerHour", &Record::estimatedDrainRatePctPerHour),
    jsonField("estimatedTimeRemainingMinutes", &Record::estimatedTimeRemainingMinutes),
};

/// The same of the values that an evaluation finds.
template <typename Record>
constexpr auto actualsFields = std::tuple{
    jsonField("sampleDurationSeconds", &Record::sampleDurationSeconds),
    jsonField("actualBatteryLevelPercent", &Record::actualBatteryLevelPercent),
    jsonField("actualAveragePowerW", &Record::actualAveragePowerW),
    jsonField("actualDrainRatePctPerHour", &Record::actualDrainRatePctPerHour),
    jsonField("actualTimeRemainingMinutes", &Record::actualTimeRemainingMinutes),
    jsonField("powerErrorW", &Record::powerErrorW),
    jsonField("drainRateErrorPctPerHour", &Record::drainRateErrorPctPerHour),
    jsonField("timeRemainingErrorMinutes", &Record::timeRemainingErrorMinutes),
};

EstimateTrackingRow estimateOfRow(const Statement& row) {
  EstimateTrackingRow record;
  record.id = row.column<std::int64_t>(0);
  record.estimatedAt = PointInTime::fromSecondsSince1970(row.column<double>(1));
  record.horizonSeconds = row.column<std::int64_t>(2);
  record.estimateSource = row.column<std::string>(3);
  record.onBatteryPower = row.column<bool>(4);
  record.startingBatteryLevelPercent = row.column<double>(5);
  record.estimatedPowerW = row.column<double>(6);
  record.estimatedDrainRatePctPerHour = row.column<std::optional<double>>(7);
  record.estimatedTimeRemainingMinutes = row.column<std::optional<std::int64_t>>(8);
  record.status = estimateTrackingStatus(row.column<std::string_view>(9))
                      .value_or(EstimateTrackingStatus::skippedInsufficientData);
  if (const auto evaluatedAt = row.column<std::optional<double>>(10))
    record.evaluatedAt = PointInTime::fromSecondsSince1970(*evaluatedAt);
  int column = 11;
  std::apply(
      [&](const auto&... field) {
        ((record.*field.member = row.column<std::optional<double>>(column++)), ...);
      },
      actualsFields<EstimateTrackingRow>);
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

template <typename Record>
constexpr auto evaluationFields = std::tuple_cat(std::tuple{jsonField("status", &Record::status, decodeStatus,
                                                                      encodeStatus),
                                                            jsonField("evaluatedAt", &Record::evaluatedAt)},
                                                 actualsFields<Record>);

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
  return decodeJSONRecord<EstimateTrackingEstimateInput>(json, path,
                                                         estimateFields<EstimateTrackingEstimateInput>);
}

EstimateTrackingEvaluationInput decodeEvaluationInput(const nlohmann::json& json, const JSONPath& path) {
  return decodeJSONRecord<EstimateTrackingEvaluationInput>(json, path,
                                                           evaluationFields<EstimateTrackingEvaluationInput>);
}

nlohmann::ordered_json encodeEstimateRow(const EstimateTrackingRow& row) {
  nlohmann::ordered_json json = {{"id", row.id}};
  json.update(encodeJSONRecord(row, estimateFields<EstimateTrackingRow>));
  json.update(encodeJSONRecord(row, evaluationFields<EstimateTrackingRow>));
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
            .run(evaluation.evaluatedAt.secondsSince1970(), evaluation.*field.member...,
                 rawValue(evaluation.status), recordID);
      },
      actualsFields<EstimateTrackingEvaluationInput>);
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
