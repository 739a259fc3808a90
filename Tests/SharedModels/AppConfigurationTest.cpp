#include <gtest/gtest.h>

#include "SharedModels/Runtime/AppConfiguration.hpp"

namespace quenzel {
namespace {

using platform::PropertyDictionary;

class FakeBundle final : public platform::BundleInformation {
 public:
  FakeBundle(std::optional<std::string> identifier, PropertyDictionary info)
      : identifier_(std::move(identifier)), info_(std::move(info)) {}
  std::optional<std::string> bundleIdentifier() const override { return identifier_; }
  const PropertyDictionary* infoDictionary() const override { return info_.empty() ? nullptr : &info_; }

 private:
  std::optional<std::string> identifier_;
  PropertyDictionary info_;
};

TEST(AppConfiguration, ResolvesIdentifiers) {
  struct Row {
    std::optional<std::string> identifier;
    PropertyDictionary info;
    std::string prefix;
    std::string daemon;
  };
  const Row rows[] = {
      {std::nullopt, {}, "com.quenzel", "com.quenzel.metricsd"},
      {" \n", {}, "com.quenzel", "com.quenzel.metricsd"},
      {"com.quenzel.app ", {}, "com.quenzel.app", "com.quenzel.app.metricsd"},
      {"com.x",
       {{"QZLBundleIdentifierPrefix", "  sample.prefix \n"}},
       "sample.prefix",
       "sample.prefix.metricsd"},
      {"com.x", {{"QZLBundleIdentifierPrefix", " "}, {"QZLDaemonLabel", " \t"}}, "com.x", "com.x.metricsd"},
      {"com.x", {{"QZLDaemonLabel", " my.daemon "}}, "com.x", "my.daemon"},
      {"com.x", {{"QZLBundleIdentifierPrefix", true}}, "com.x", "com.x.metricsd"},
  };
  for (const Row& row : rows) {
    const FakeBundle bundle(row.identifier, row.info);
    EXPECT_EQ(AppConfiguration::bundleIdentifierPrefix(bundle), row.prefix);
    EXPECT_EQ(AppConfiguration::daemonBundleIdentifier(bundle), row.daemon);
    EXPECT_EQ(AppConfiguration::daemonPlistName(bundle), row.daemon + ".plist");
    EXPECT_EQ(AppConfiguration::Logging::subsystem(bundle), row.prefix + ".runtime");
  }
}

TEST(AppConfiguration, TakesTheFeedFromTheFirstPlaceThatSetsOne) {
  const std::string standard = AppConfiguration::Updates::defaultFeedURL();
  struct Row {
    std::map<std::string, std::string> environment;
    PropertyDictionary info;
    std::string feed;
  };
  const Row rows[] = {
      {{}, {}, standard},
      {{{"QZL_UPDATE_FEED_URL", "https://a.example/feed.xml?x=%20"}}, {}, "https://a.example/feed.xml?x=%20"},
      {{{"QZL_UPDATE_FEED_URL", "not a url"}}, {{"SUFeedURL", "https://b.example"}}, standard},
      {{{"QZL_UPDATE_FEED_URL", ""}}, {{"SUFeedURL", "https://b.example"}}, standard},
      {{{"QZL_UPDATE_FEED_URL", "https://a.example/%2"}}, {}, standard},
      {{{"QZL_UPDATE_FEED_URL", "https://"}}, {}, standard},
      {{}, {{"SUFeedURL", "https://b.example"}}, "https://b.example"},
      {{}, {{"SUFeedURL", true}}, standard},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(AppConfiguration::Updates::feedURL(row.environment, &row.info), row.feed);
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
