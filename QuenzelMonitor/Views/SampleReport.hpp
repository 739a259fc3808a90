#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "Engine/SamplingCycle.hpp"

namespace quenzel {

/// How the report is laid out.
struct SampleReportLayout {
  std::size_t topProcesses = 15;
  std::optional<std::size_t> width;  ///< columns of the terminal; without it no line is cut
  bool isUnicode = true;             ///< whether it shows more than ASCII
};

/// One cycle for a person: power situation, battery, total and its source, components, the top processes with
/// where each figure comes from, and what was unavailable and why. Modelled figures are marked.
std::string sampleReport(const SamplingCycleResult& result, const SampleReportLayout& layout);

/// The same cycle for a program: time (ISO 8601, UTC), input, metadata, battery status, unavailable sources,
/// modelled hardware.
nlohmann::ordered_json encodeSample(const SamplingCycleResult& result);

}  // namespace quenzel
