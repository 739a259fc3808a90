#include <cstddef>

#include "Platform/Darwin/IOReportLibrary.hpp"
#include "Platform/Darwin/PropertyConversion.hpp"
#include "Platform/Darwin/ScopedCFReference.hpp"
#include "Platform/EnergyModelChannels.hpp"
#include "Platform/Mutex.hpp"

namespace quenzel::platform {
namespace {

/// The library pads some of its labels.
std::optional<std::string> withoutPadding(const std::optional<std::string>& label) {
  if (!label) return std::nullopt;
  const std::size_t first = label->find_first_not_of(' ');
  if (first == std::string::npos) return "";
  return label->substr(first, label->find_last_not_of(' ') - first + 1);
}

/// A counter may have no valid data for a while, from the first sample on, too. It then stands still: it
/// would otherwise seem to fall to nothing, or to rise at once by all that it has counted since the machine
/// started.
class Counter {
 public:
  /// What it has counted since its first valid value.
  std::int64_t counted(std::int64_t value) {
    if (value != IOReportLibrary::invalidValue) {
      if (!first_) first_ = value;
      last_ = value;
    }
    return first_ ? last_ - *first_ : 0;
  }

 private:
  std::optional<std::int64_t> first_;
  std::int64_t last_ = 0;
};

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
    const auto list = referenceAs<CFArrayRef>(CFDictionaryGetValue(sample.get(), CFSTR("IOReportChannels")),
                                              CFArrayGetTypeID());
    if (!list) return std::nullopt;
    const auto count = static_cast<std::size_t>(CFArrayGetCount(list));
    if (counters_.size() < count) counters_.resize(count);
    std::vector<EnergyModelChannel> channels;
    for (std::size_t i = 0; i < count; ++i) {
      const auto channel = referenceAs<CFDictionaryRef>(CFArrayGetValueAtIndex(list, static_cast<CFIndex>(i)),
                                                        CFDictionaryGetTypeID());
      if (channel) channels.push_back(channelOf(channel, counters_[i]));
    }
    return channels;
  }

 private:
  EnergyModelChannel channelOf(CFDictionaryRef channel, Counter& counter) const {
    return {.group = textOf(library_->channelGetGroup(channel)).value_or(""),
            .name = textOf(library_->channelGetChannelName(channel)),
            .unit = withoutPadding(textOf(library_->channelGetUnitLabel(channel))),
            .value = counter.counted(library_->simpleGetIntegerValue(channel, nullptr))};
  }

  const IOReportLibrary* const library_ = IOReportLibrary::shared();
  ScopedCFReference<IOReportSubscriptionRef> subscription_;
  ScopedCFReference<CFMutableDictionaryRef> subscribed_;
  Mutex lock_;
  /// By place in the list, which a subscription fixes; names may occur twice.
  std::vector<Counter> counters_ GUARDED_BY(lock_);
};

}  // namespace

std::unique_ptr<EnergyModelChannels> makeEnergyModelChannels() {
  return std::make_unique<DarwinEnergyModelChannels>();
}

}  // namespace quenzel::platform
