#include "MetricsCollectors/ProcessSampler.hpp"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <numeric>
#include <system_error>
#include <unordered_map>
#include <utility>

#include <fmt/format.h>

#include "Base/FatalError.hpp"
#include "Base/Number.hpp"
#include "Base/Text.hpp"
#include "MetricsCollectors/RunningProcessMetadataResolver.hpp"
#include "SharedModels/Runtime/DiagnosticSwitch.hpp"
#include "SharedModels/Runtime/RuntimeLog.hpp"

namespace quenzel {
namespace {

using PSRow = ProcessSampler::PSRow;

constexpr std::string_view component = "ProcessSampler";
constexpr std::size_t typicalLineLength = 32;
constexpr std::size_t mostReservedRows = 512;
/// No system opens a longer path (PATH_MAX of Linux; macOS allows 1024).
constexpr std::size_t longestPath = 4096;
/// Nor a longer name in a folder (NAME_MAX of both); what exceeds it need not be looked for.
constexpr std::size_t longestFileName = 255;

/// Busier first, then the smaller pid.
bool ranksBefore(const PSRow& row, const PSRow& other) {
  if (row.cpuPercent != other.cpuPercent) return row.cpuPercent > other.cpuPercent;
  return row.pid < other.pid;
}

/// Indices of the rows that rank first, at most as many as the limit; rows of equal rank stay in the order of
/// the text.
std::vector<std::uint32_t> topEntriesOf(const std::vector<PSRow>& rows, std::size_t limit) {
  std::vector<std::uint32_t> entries(rows.size());
  std::iota(entries.begin(), entries.end(), 0U);
  const auto end = entries.begin() + static_cast<std::ptrdiff_t>(std::min(limit, entries.size()));
  std::partial_sort(entries.begin(), end, entries.end(), [&](std::uint32_t left, std::uint32_t right) {
    if (ranksBefore(rows[left], rows[right])) return true;
    return !ranksBefore(rows[right], rows[left]) && left < right;
  });
  entries.erase(end, entries.end());
  return entries;
}

/// The characters between the opening quote and its next unescaped match, or the end of the text.
std::string quotedToken(std::string_view text) {
  const char quote = text.front();
  std::string token;
  bool escaped = false;
  for (const char c : text.substr(1)) {
    if (escaped) {
      token += c;
      escaped = false;
    } else if (c == '\\') {
      escaped = true;
    } else if (c == quote) {
      break;
    } else {
      token += c;
    }
  }
  return token;
}

bool fileExistsHere(const std::string& path) {
  std::error_code failure;
  return std::filesystem::exists(path, failure);
}

std::int32_t checkedPID(std::int64_t pid) {
  if (pid < std::numeric_limits<std::int32_t>::min() || pid > std::numeric_limits<std::int32_t>::max()) {
    fatalError(fmt::format("ps listed the process id {}, which no system gives out.", pid));
  }
  return static_cast<std::int32_t>(pid);
}

}  // namespace

ProcessSampler::Surroundings ProcessSampler::Surroundings::ofThisSystem() {
  return {RunningProcessMetadataResolver::resolve, RunningProcessMetadataCache::shared(), fileExistsHere,
          quenzel::now, ComponentProfiler::shared()};
}

ProcessSampler::ProcessSampler(const ShellRunning& shell, Surroundings surroundings)
    : shell_(shell), surroundings_(std::move(surroundings)) {}

ProcessSampler::ProcessSampler(const ShellRunning& shell, RunningProcessMetadataLookup metadataResolver,
                               RunningProcessMetadataCache& metadataCache,
                               ComponentProfiler& componentProfiler)
    : ProcessSampler(shell, {std::move(metadataResolver), metadataCache, fileExistsHere, quenzel::now,
                             componentProfiler}) {}

std::vector<ProcessSample> ProcessSampler::sampleTopProcesses(std::int64_t limit) const {
  return sampleProcesses(limit, false).snapshot.sampledProcesses;
}

ProcessSamplingSnapshot ProcessSampler::sampleProcessTree(std::int64_t limit) const {
  return sampleProcesses(limit, true).snapshot;
}

ProcessSamplingReport ProcessSampler::sampleProcesses(std::int64_t limit, bool includeAllProcesses) const {
  ProcessSamplingReport sampled = report(psOutput(), limit, includeAllProcesses);
  if (sampled.unreadableRows > 0) {
    // Not the rows themselves: command lines hold secrets, and others read the log.
    RuntimeLog::warn(component, fmt::format("rows of ps that can't be read: {}", sampled.unreadableRows));
  }
  return sampled;
}

std::string ProcessSampler::psOutput() const {
  ShellResult result = shell_.run("/bin/ps", {"-A", "-ww", "-o", "pid=,ppid=,%cpu=,%mem=,command="});
  if (result.status != 0) {
    throw ShellRunnerError::nonZeroExit(result.status, std::move(result.stdout), std::move(result.stderr));
  }
  return std::move(result.stdout);
}

ProcessSamplingSnapshot ProcessSampler::snapshotFrom(std::string_view psOutput, std::int64_t limit,
                                                     bool includeAllProcesses) const {
  return report(psOutput, limit, includeAllProcesses).snapshot;
}

ProcessSamplingReport ProcessSampler::report(std::string_view psOutput, std::int64_t limit,
                                             bool includeAllProcesses) const {
  const auto rowLimit = static_cast<std::size_t>(std::max<std::int64_t>(limit, 1));
  ComponentProfiler& profiler = surroundings_.componentProfiler;
  const SpanOrigin origin{profiler.makeCorrelationID("process-sampler"), "MetricsCollectors/ProcessSampler",
                          "sampleProcesses(limit:includeAllProcesses:)"};
  const auto context = [&] {
    return ComponentProfiler::Context{{"stage", "parse"},
                                      {"limit", std::to_string(rowLimit)},
                                      {"includeAll", includeAllProcesses ? "1" : "0"}};
  };
  const ParsedRows parsed = profiler.measure(BenchmarkComponent::daemonSampleProcessSampler, origin, context,
                                             [&] { return parse(psOutput, rowLimit); });

  const PointInTime now = surroundings_.nowProvider();
  const bool logsNames = isNameDebugEnabled();
  if (includeAllProcesses) return {tree(parsed, now, logsNames), parsed.unreadableRows};
  ProcessSamplingSnapshot snapshot;
  snapshot.sampledProcesses.reserve(parsed.topEntries.size());
  for (const std::uint32_t index : parsed.topEntries) {
    snapshot.sampledProcesses.push_back(resolveProcessSample(parsed.rows[index], now, logsNames));
  }
  return {std::move(snapshot), parsed.unreadableRows};
}

ProcessSamplingSnapshot ProcessSampler::tree(const ParsedRows& parsed, PointInTime now,
                                             bool logsNames) const {
  ProcessSamplingSnapshot snapshot;
  snapshot.allProcesses.reserve(parsed.rows.size());
  std::unordered_map<std::int64_t, std::size_t> indexByPID;
  for (const PSRow& row : parsed.rows) {
    if (!indexByPID.emplace(row.pid, snapshot.allProcesses.size()).second) {
      fatalError(fmt::format("ps listed process {} twice.", row.pid));
    }
    snapshot.allProcesses.push_back(resolveProcessSample(row, now, logsNames));
  }
  for (const std::uint32_t index : parsed.topEntries) {
    snapshot.sampledProcesses.push_back(snapshot.allProcesses[indexByPID.at(parsed.rows[index].pid)]);
  }
  return snapshot;
}

ProcessSampler::ParsedRows ProcessSampler::parse(std::string_view psOutput, std::size_t limit) {
  ParsedRows parsed;
  parsed.rows.reserve(std::min(psOutput.size() / typicalLineLength, mostReservedRows));
  for (std::string_view line = nextLine(psOutput); !line.empty(); line = nextLine(psOutput)) {
    if (const auto row = parsePSLine(line)) {
      parsed.rows.push_back(*row);
    } else if (!isBlank(line)) {
      ++parsed.unreadableRows;
    }
  }
  parsed.topEntries = topEntriesOf(parsed.rows, limit);
  return parsed;
}

std::optional<PSRow> ProcessSampler::parsePSLine(std::string_view line) {
  NumberScanner scanner(trimmedLeft(line));
  const auto pid = scanner.integer();
  const auto parentPID = pid ? scanner.integer() : std::nullopt;
  const auto cpuPercent = parentPID ? scanner.decimal() : std::nullopt;
  const auto mem = cpuPercent ? scanner.decimal() : std::nullopt;
  if (!mem) return std::nullopt;
  const std::string_view commandLine = trimmed(scanner.rest());
  if (commandLine.empty()) return std::nullopt;
  return PSRow{*pid, *parentPID, *cpuPercent, *mem, commandLine};
}

ProcessSample ProcessSampler::resolveProcessSample(const PSRow& row, PointInTime now, bool logsNames) const {
  auto metadata =
      surroundings_.metadataCache.resolve(checkedPID(row.pid), now, surroundings_.metadataResolver);
  ProcessSample sample;
  sample.pid = row.pid;
  if (row.parentPID >= 1) sample.parentPID = row.parentPID;
  if (metadata) sample.bundleID = std::move(metadata->bundleID);
  sample.name = resolveProcessName(row.commandLine, std::move(metadata));
  sample.cpuPercent = row.cpuPercent;
  if (logsNames) {
    RuntimeLog::info(component, printableLine(fmt::format("pid={} cpu={:.2f} raw={} resolved={}", row.pid,
                                                          row.cpuPercent, row.commandLine, sample.name)));
  }
  return sample;
}

std::string ProcessSampler::resolveProcessName(std::string_view commandLine,
                                               std::optional<RunningProcessMetadata> metadata) const {
  if (metadata) {
    // A blank executable path does not fall back to the bundle: something is wrong with that record.
    auto& path = metadata->executablePath ? metadata->executablePath : metadata->bundlePath;
    if (path && !isBlank(*path)) return std::move(*path);
  }
  if (auto path = resolvedCommandPath(commandLine)) return *path;
  return std::string(trimmed(commandLine));
}

std::optional<std::string> ProcessSampler::executableToken(std::string_view commandLine) {
  const std::string_view text = trimmed(commandLine);
  if (text.empty()) return std::nullopt;
  std::string token =
      text.front() == '"' || text.front() == '\'' ? quotedToken(text) : std::string(firstWord(text));
  if (token.empty()) return std::nullopt;
  return token;
}

std::optional<std::string> ProcessSampler::resolvedCommandPath(std::string_view commandLine) const {
  if (auto token = executableToken(commandLine)) {
    if (*token == commandLine || surroundings_.fileExists(*token)) return token;
  }
  const std::string_view text = trimmed(commandLine);
  if (!text.starts_with('/')) return std::nullopt;
  // A path with blanks in it looks like a command with arguments: the longest run of words that exists is the
  // path.
  std::string path;
  std::vector<std::size_t> wordEnds;
  for (std::string_view rest = text; path.size() <= longestPath;) {
    const std::string_view word = firstWord(rest);
    if (word.empty()) break;
    rest.remove_prefix(static_cast<std::size_t>(word.data() + word.size() - rest.data()));
    if (!path.empty()) path += ' ';
    path += word;
    wordEnds.push_back(path.size());
  }
  for (auto end = wordEnds.rbegin(); end != wordEnds.rend(); ++end) {
    path.resize(*end);
    const bool tooLong = path.size() > longestPath || lastPathComponent(path).size() > longestFileName;
    if (!tooLong && surroundings_.fileExists(path)) return path;
  }
  return std::nullopt;
}

bool isNameDebugEnabled() {
  return isDiagnosticSwitchOn("QZL_PROCESS_NAME_DEBUG", "/tmp/qzl-process-name-debug.flag");
}

}  // namespace quenzel
