#include <map>
#include <utility>

#include "Platform/Darwin/IOReportLibrary.hpp"
#include "Platform/Darwin/PropertyConversion.hpp"
#include "Platform/Darwin/ScopedCFReference.hpp"
#include "Platform/EnergyModelChannels.hpp"
#include "Platform/Mutex.hpp"

namespace quenzel::platform {
namespace {

/// The library pads some of its labels.
std::optional<std::string> withoutBlanks(std::optional<std::string> label) {
  if (label) std::erase(*label, ' ');
  return label;
}

class DarwinEnergyModelChannels final : public EnergyModelChannels {
 public:
  DarwinEnergyModelChannels() {
    if (!library_) return;
    const ScopedCFReference<CFMutableDictionaryRef> desired{
        library_->copyChannelsInGroup(CFSTR("Energy Model"), nullptr, 0, 0, 0)};
    if (!desired) return;
    subscription_.reference =
        library_->createSubscription(nullptr, desired.get(), &subscribed_.reference, 0, nullptr);
  }

  std::optional<std::vector<EnergyModelChannel>> sample() override {
    if (!subscription_ || !subscribed_) return std::nullopt;
    const MutexLock guard(lock_);
    const ScopedCFReference<CFDictionaryRef> sample{
        library_->createSamples(subscription_.get(), subscribed_.get(), nullptr)};
    if (!sample) return std::nullopt;
    const void* const list = CFDictionaryGetValue(sample.get(), CFSTR("IOReportChannels"));
    if (!list || CFGetTypeID(list) != CFArrayGetTypeID()) return std::nullopt;
    const auto array = static_cast<CFArrayRef>(list);
    std::vector<EnergyModelChannel> channels;
    for (CFIndex i = 0; i < CFArrayGetCount(array); ++i) {
      auto channel = channelOf(static_cast<CFDictionaryRef>(CFArrayGetValueAtIndex(array, i)));
      if (keepValid(channel)) channels.push_back(std::move(channel));
    }
    return channels;
  }

 private:
  EnergyModelChannel channelOf(CFDictionaryRef channel) const {
    return {.group = textOf(library_->channelGetGroup(channel)).value_or(""),
            .name = textOf(library_->channelGetChannelName(channel)),
            .unit = withoutBlanks(textOf(library_->channelGetUnitLabel(channel))),
            .value = library_->simpleGetIntegerValue(channel, nullptr)};
  }

  /// A counter without valid data keeps its value, since it would seem to fall to nothing and rise to all it
  /// ever counted; false when it has never had one.
  bool keepValid(EnergyModelChannel& channel) REQUIRES(lock_) {
    if (!channel.name) return false;
    if (channel.value != IOReportLibrary::invalidValue) {
      lastValues_[*channel.name] = channel.value;
      return true;
    }
    const auto last = lastValues_.find(*channel.name);
    if (last == lastValues_.end()) return false;
    channel.value = last->second;
    return true;
  }

  const IOReportLibrary* const library_ = IOReportLibrary::shared();
  ScopedCFReference<IOReportSubscriptionRef> subscription_;
  ScopedCFReference<CFMutableDictionaryRef> subscribed_;
  Mutex lock_;
  std::map<std::string, std::int64_t> lastValues_ GUARDED_BY(lock_);
};

}  // namespace

std::unique_ptr<EnergyModelChannels> makeEnergyModelChannels() {
  return std::make_unique<DarwinEnergyModelChannels>();
}

}  // namespace quenzel::platform
