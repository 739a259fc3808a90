#include "QuenzelMonitor/Inspect/EnergyModelStage.hpp"

#include <cstddef>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "MetricsCollectors/AppleSiliconPowerReader.hpp"
#include "SharedModels/Runtime/JSONCoding.hpp"

namespace quenzel {
namespace {

using Channels = std::vector<platform::EnergyModelChannel>;

struct Reading {
  PointInTime now;
  std::optional<Channels> channels;  ///< none where the counters could not be read
};
struct Capture {
  std::vector<Reading> readings;
};

// Captures are only read: nothing encodes them.

Channels decodeChannels(const nlohmann::json& json, const JSONPath& path) {
  using Channel = platform::EnergyModelChannel;
  static constexpr auto fields =
      std::tuple{jsonField("group", &Channel::group), jsonField("name", &Channel::name),
                 jsonField("unit", &Channel::unit), jsonField("value", &Channel::value)};
  return decodeJSONList(json, path, [](const nlohmann::json& channel, const JSONPath& channelPath) {
    return decodeJSONRecord<Channel>(channel, channelPath, fields);
  });
}

Reading decodeReading(const nlohmann::json& json, const JSONPath& path) {
  static constexpr auto fields = std::tuple{
      jsonField("now", &Reading::now), jsonField("channels", &Reading::channels, &decodeChannels, nullptr)};
  return decodeJSONRecord<Reading>(json, path, fields);
}

class ReplayedChannels final : public platform::EnergyModelChannels {
 public:
  explicit ReplayedChannels(const std::vector<Reading>& readings) : readings_(readings) {}
  std::optional<Channels> sample() override { return readings_[next_++].channels; }

 private:
  const std::vector<Reading>& readings_;
  std::size_t next_ = 0;
};

/// An inspection leaves no trace.
class SilentLog final : public platform::SystemLog {
 public:
  bool isEnabled(const std::string&, const std::string&, platform::SystemLogType) override { return false; }
  void write(const std::string&, const std::string&, platform::SystemLogType, const std::string&) override {}
};

}  // namespace

nlohmann::ordered_json inspectEnergyModel(std::string_view input) {
  static constexpr auto fields =
      std::tuple{jsonField("readings", &Capture::readings, &decodeReading, nullptr)};
  const auto capture = decodeJSONRecord<Capture>(parseJSON(input), {}, fields);
  SilentLog log;
  AppleSiliconPowerReader reader(std::make_unique<ReplayedChannels>(capture.readings), log);
  return encodeJSONList(capture.readings, [&](const Reading& reading) {
    return encodeSystemPowerSnapshot(reader.sample(reading.now));
  });
}

}  // namespace quenzel
