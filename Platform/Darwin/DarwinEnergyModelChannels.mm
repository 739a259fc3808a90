#include "Base/Mutex.hpp"
#include "Base/Text.hpp"
#include "Platform/Darwin/IOReportLibrary.hpp"
#include "Platform/Darwin/PropertyConversion.hpp"
#include "Platform/Darwin/ScopedCFReference.hpp"
#include "Platform/EnergyModelChannels.hpp"

namespace quenzel::platform {
namespace {

/// The library pads some of its unit labels.
std::optional<std::string> withoutPadding(const std::optional<std::string>& label) {
  return label ? std::optional(std::string(trimmedASCII(*label))) : std::nullopt;
}

class DarwinEnergyModelChannels final : public EnergyModelChannels {
 public:
  DarwinEnergyModelChannels() {
    if (!library_) return;
    @autoreleasepool {
      const ScopedCFReference<CFMutableDictionaryRef> desired{
          library_->copyChannelsInGroup(CFSTR("Energy Model"), nullptr, 0, 0, 0)};
      if (!desired) return;
      subscription_.reference =
          library_->createSubscription(nullptr, desired.get(), &subscribed_.reference, 0, nullptr);
    }
  }

  std::optional<std::vector<EnergyModelChannel>> sample() override {
    @autoreleasepool {
      return channels();
    }
  }

 private:
  std::optional<std::vector<EnergyModelChannel>> channels() {
    if (!subscription_ || !subscribed_) return std::nullopt;
    const MutexLock guard(lock_);
    const ScopedCFReference<CFDictionaryRef> sample{
        library_->createSamples(subscription_.get(), subscribed_.get(), nullptr)};
    if (!sample) return std::nullopt;
    const auto list = referenceAs<CFArrayRef>(CFDictionaryGetValue(sample.get(), CFSTR("IOReportChannels")),
                                              CFArrayGetTypeID());
    if (!list) return std::nullopt;
    std::vector<EnergyModelChannel> channels;
    for (CFIndex i = 0; i < CFArrayGetCount(list); ++i) {
      const auto channel =
          referenceAs<CFDictionaryRef>(CFArrayGetValueAtIndex(list, i), CFDictionaryGetTypeID());
      if (channel) channels.push_back(channelOf(channel));
    }
    return channels;
  }

  EnergyModelChannel channelOf(CFDictionaryRef channel) const {
    return {.group = textOf(library_->channelGetGroup(channel)).value_or(""),
            .name = textOf(library_->channelGetChannelName(channel)),
            .unit = withoutPadding(textOf(library_->channelGetUnitLabel(channel))),
            .value = library_->simpleGetIntegerValue(channel, nullptr)};
  }

  const IOReportLibrary* const library_ = IOReportLibrary::shared();
  ScopedCFReference<IOReportSubscriptionRef> subscription_;
  ScopedCFReference<CFMutableDictionaryRef> subscribed_;
  Mutex lock_;  ///< one sample at a time
};

}  // namespace

std::unique_ptr<EnergyModelChannels> makeEnergyModelChannels() {
  return std::make_unique<DarwinEnergyModelChannels>();
}

}  // namespace quenzel::platform
