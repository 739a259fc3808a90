#include <gtest/gtest.h>

#include "SharedModels/Runtime/AppConfiguration.hpp"

namespace quenzel {
namespace {

using platform::PropertyDictionary;

struct FakeBundle final : platform::BundleInformation {
  std::optional<std::string> identifier;
  PropertyDictionary info;
  std::optional<std::string> bundleIdentifier() const override { return identifier; }
  const PropertyDictionary* infoDictionary() const override { return info.empty() ? nullptr : &info; }
};

TEST(AppConfiguration, ResolvesIdentifiers) {
  constexpr auto prefixKey = "QZLBundleIdentifierPrefix", labelKey = "QZLDaemonLabel";
  const struct {
    std::optional<std::string> identifier;
    PropertyDictionary info;
    std::string prefix, daemon;
  } rows[] = {
      {std::nullopt, {}, "com.quenzel", "com.quenzel.metricsd"},
      {" \n", {}, "com.quenzel", "com.quenzel.metricsd"},
      {"com.quenzel.app ", {}, "com.quenzel.app", "com.quenzel.app.metricsd"},
      {"com.x", {{prefixKey, "  sample.prefix \n"}}, "sample.prefix", "sample.prefix.metricsd"},
      {"com.x", {{prefixKey, " "}, {labelKey, " \t"}}, "com.x", "com.x.metricsd"},
      {"com.x", {{labelKey, " my.daemon "}}, "com.x", "my.daemon"},
      {"com.x", {{prefixKey, true}}, "com.x", "com.x.metricsd"},
  };
  for (const auto& row : rows) {
    FakeBundle bundle;
    bundle.identifier = row.identifier;
    bundle.info = row.info;
    EXPECT_EQ(AppConfiguration::bundleIdentifierPrefix(bundle), row.prefix);
    EXPECT_EQ(AppConfiguration::daemonBundleIdentifier(bundle), row.daemon);
    EXPECT_EQ(AppConfiguration::daemonPlistName(bundle), row.daemon + ".plist");
    EXPECT_EQ(AppConfiguration::Logging::subsystem(bundle), row.prefix + ".runtime");
  }
}

TEST(AppConfiguration, TakesTheFeedFromTheFirstPlaceThatSetsOne) {
  constexpr auto variable = "QZL_UPDATE_FEED_URL";
  const std::string standard = AppConfiguration::Updates::defaultFeedURL();
  const PropertyDictionary none, ours{{"SUFeedURL", "https://b.example"}}, odd{{"SUFeedURL", true}};
  const std::tuple<std::map<std::string, std::string>, PropertyDictionary, std::string> rows[] = {
      {{}, none, standard},
      {{{variable, "https://a.example/feed.xml?x=%20"}}, none, "https://a.example/feed.xml?x=%20"},
      {{{variable, "not a url"}}, ours, standard},
      {{{variable, ""}}, ours, standard},
      {{{variable, "https://a.example/%2"}}, none, standard},
      {{{variable, "https://"}}, none, standard},
      {{}, ours, "https://b.example"},
      {{}, odd, standard},
  };
  for (const auto& [environment, info, feed] : rows) {
    EXPECT_EQ(AppConfiguration::Updates::feedURL(environment, &info), feed);
  }
  using AppConfiguration::Updates::publicEDKey;
  const PropertyDictionary info{{"SUPublicEDKey", " a2V5 "}};
  EXPECT_EQ(publicEDKey({}, &info), "a2V5");
  EXPECT_EQ(publicEDKey({{"QZL_SPARKLE_PUBLIC_ED_KEY", " "}}, &info), std::nullopt);
  EXPECT_EQ(publicEDKey({{"QZL_SPARKLE_PUBLIC_ED_KEY", "b\n"}}, &info), "b");
  EXPECT_EQ(publicEDKey({}, nullptr), std::nullopt);
}

}  // namespace
}  // namespace quenzel
