#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace quenzel {

/// The components whose time is measured.
namespace BenchmarkComponent {
inline constexpr std::string_view daemonSampleProcessSampler = "daemonSampleProcessSampler";
inline constexpr std::string_view daemonInputBuild = "daemonInputBuild";
inline constexpr std::string_view daemonInputPowermetrics = "daemonInputPowermetrics";
inline constexpr std::string_view daemonInputProcessMerge = "daemonInputProcessMerge";
inline constexpr std::string_view daemonInputBatteryStatus = "daemonInputBatteryStatus";
inline constexpr std::string_view daemonInputDisplayEstimate = "daemonInputDisplayEstimate";
inline constexpr std::string_view daemonInputUSBEstimate = "daemonInputUSBEstimate";
}  // namespace BenchmarkComponent

/// Where a span was measured and what it belongs to: all spans of one operation share a correlation id.
struct SpanOrigin {
  std::string correlationID;
  std::string_view sourceFile;
  std::string_view function;
};

/// One measured stretch of time.
struct ComponentSpan {
  std::string_view component;
  SpanOrigin origin;
  std::map<std::string, std::string> context;
  double seconds = 0;
};

/// Times named stages and hands each span to a recorder. Without one no context is built, and a stage costs
/// two readings of the clock. Thread-safe when its recorder is.
class ComponentProfiler {
 public:
  using Context = std::map<std::string, std::string>;
  using Recorder = std::function<void(const ComponentSpan&)>;

  ComponentProfiler() = default;
  explicit ComponentProfiler(Recorder recorder) : recorder_(std::move(recorder)) {}

  /// The profiler of this kind of process; it records nothing.
  static ComponentProfiler& shared();

  /// The prefix, a hyphen, and a number that this profiler hands out once.
  std::string makeCorrelationID(std::string_view prefix);

  /// Calls `work` and passes its result on. `context` is called after it, and only when the span is recorded.
  /// A stage that throws is not recorded.
  template <typename Work, typename MakeContext>
  auto measure(std::string_view component, const SpanOrigin& origin, MakeContext&& context, Work&& work) {
    const auto start = std::chrono::steady_clock::now();
    if constexpr (std::is_void_v<decltype(work())>) {
      work();
      record(component, origin, start, context);
    } else {
      auto result = work();
      record(component, origin, start, context);
      return result;
    }
  }

 private:
  template <typename MakeContext>
  void record(std::string_view component, const SpanOrigin& origin,
              std::chrono::steady_clock::time_point start, MakeContext& context) const {
    if (!recorder_) return;
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    recorder_({component, origin, context(), elapsed.count()});
  }

  Recorder recorder_;
  std::atomic<std::uint64_t> nextCorrelation_{1};
};

}  // namespace quenzel
