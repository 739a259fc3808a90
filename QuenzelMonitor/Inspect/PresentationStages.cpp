#include "QuenzelMonitor/Inspect/PresentationStages.hpp"

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "QuenzelMonitor/Console.hpp"
#include "SharedModels/Presentation/AppleProcessDetector.hpp"
#include "SharedModels/Presentation/ProcessAttributionPresentationService.hpp"
#include "SharedModels/Presentation/ProcessTerminationTargetResolver.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;
namespace Presentation = ProcessAttributionPresentationService;

// Records that only these stages read.

struct PresentationInput {
  std::vector<DrainSnapshot> snapshots;
};
constexpr auto presentationInputFields = std::tuple{
    jsonField("snapshots", &PresentationInput::snapshots, decodeDrainSnapshot, encodeDrainSnapshot)};

struct TerminationInput {
  ProcessDrain groupedProcess;
  std::vector<ProcessDrain> subprocesses;
};
constexpr auto terminationInputFields = std::tuple{
    jsonField("groupedProcess", &TerminationInput::groupedProcess, decodeProcessDrain, encodeProcessDrain),
    jsonField("subprocesses", &TerminationInput::subprocesses, decodeProcessDrain, encodeProcessDrain)};

struct NamedProcess {
  std::string name;
  std::optional<std::string> bundleID;
  std::string displayName;
};
constexpr auto namedProcessFields =
    std::tuple{jsonField("name", &NamedProcess::name), jsonField("bundleID", &NamedProcess::bundleID),
               jsonField("displayName", &NamedProcess::displayName)};

OrderedJson encodePresentation(const ProcessDrain& process) {
  OrderedJson json = {{"processDisplayName", processDisplayName(process)}};
  const auto put = [&](const char* key, const std::optional<std::string>& value) {
    if (value) json[key] = *value;
  };
  put("processSubtitleText", processSubtitleText(process));
  json["processPresentationScore"] = processPresentationScore(process);
  json["executableLeaf"] = Presentation::executableLeaf(process);
  put("processAppBundlePath", processAppBundlePath(process));
  put("processExecutablePath", processExecutablePath(process));
  json["hasPowermetricsSourceFlag"] = process.hasPowermetricsSourceFlag();
  json["isAppleSystemProcess"] = isAppleSystemProcess(process);
  return json;
}

/// The resolver takes an impossible number for a broken system and aborts; a capture deserves an answer.
void requireProcessNumber(const ProcessDrain& process) {
  if (process.pid > std::numeric_limits<std::int32_t>::max())
    throw CommandError(fmt::format("the process id {} is out of range", process.pid));
}

}  // namespace

OrderedJson inspectPresentation(std::string_view input) {
  const auto [snapshots] = decodeJSONRecord<PresentationInput>(parseJSON(input), {}, presentationInputFields);
  const ProcessPresentationContext context = Presentation::makePresentationContext(snapshots);
  OrderedJson annotated = OrderedJson::array();
  OrderedJson processes = OrderedJson::array();
  for (const DrainSnapshot& snapshot : snapshots) {
    annotated.push_back(encodeDrainSnapshot(Presentation::annotateSnapshot(snapshot, context)));
    processes.push_back(encodeJSONList(snapshot.processes, encodePresentation));
  }
  return {{"annotated", std::move(annotated)}, {"processes", std::move(processes)}};
}

OrderedJson inspectSyntheticPID(std::string_view input) {
  return encodeJSONList(decodeJSONList(parseJSON(input), {}, decodeJSON<std::string>),
                        [](const std::string& key) { return Presentation::stableSyntheticPID(key); });
}

OrderedJson inspectTermination(std::string_view input) {
  const auto [groupedProcess, subprocesses] =
      decodeJSONRecord<TerminationInput>(parseJSON(input), {}, terminationInputFields);
  for (const ProcessDrain& member : subprocesses) requireProcessNumber(member);
  const bool hasRealMember = std::any_of(subprocesses.begin(), subprocesses.end(),
                                         [](const ProcessDrain& member) { return member.pid >= 1; });
  if (!hasRealMember) requireProcessNumber(groupedProcess);  // else its own number goes nowhere
  return {{"targetPIDs", ProcessTerminationTargetResolver::targetPIDs(groupedProcess, subprocesses)}};
}

OrderedJson inspectAppleProcess(std::string_view input) {
  const auto decode = [](const Json& json, const JSONPath& path) {
    return decodeJSONRecord<NamedProcess>(json, path, namedProcessFields);
  };
  return encodeJSONList(decodeJSONList(parseJSON(input), {}, decode), [](const NamedProcess& process) {
    return AppleProcessDetector::isAppleSystemProcess(process.name, process.bundleID, process.displayName);
  });
}

}  // namespace quenzel
