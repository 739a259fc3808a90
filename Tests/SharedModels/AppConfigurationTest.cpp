#include <gtest/gtest.h>

#include "Base/Text.hpp"
#include "SharedModels/Runtime/AppConfiguration.hpp"

namespace quenzel {
namespace {

using namespace AppConfiguration;
using platform::PropertyDictionary;

struct FakeBundle final : platform::BundleInformation {
  std::optional<std::string> identifier;
  PropertyDictionary info;
  std::optional<std::string> bundleIdentifier() const override { return identifier; }
  const PropertyDictionary* infoDictionary() const override { return info.empty() ? nullptr : &info; }
};

TEST(AppConfiguration, ResolvesIdentifiers) {
  constexpr auto prefixKey = "QZLBundleIdentifierPrefix", labelKey = "QZLDaemonLabel";
  const std::tuple<std::optional<std::string>, PropertyDictionary, std::string, std::string> rows[] = {
      {std::nullopt, {}, "com.quenzel", "com.quenzel.metricsd"},
      {" \n", {}, "com.quenzel", "com.quenzel.metricsd"},
      {"com.quenzel.app ", {}, "com.quenzel.app", "com.quenzel.app.metricsd"},
      {"com.x", {{prefixKey, "  sample.prefix \n"}}, "sample.prefix", "sample.prefix.metricsd"},
      {"com.x", {{prefixKey, " "}, {labelKey, " \t"}}, "com.x", "com.x.metricsd"},
      {"com.x", {{labelKey, " my.daemon "}}, "com.x", "my.daemon"},
      {"com.x", {{prefixKey, true}}, "com.x", "com.x.metricsd"},
  };
  for (const auto& [identifier, info, prefix, daemon] : rows) {
    FakeBundle bundle;
    bundle.identifier = identifier;
    bundle.info = info;
    EXPECT_EQ(bundleIdentifierPrefix(bundle), prefix);
    EXPECT_EQ(daemonBundleIdentifier(bundle), daemon);
    EXPECT_EQ(daemonPlistName(bundle), daemon + ".plist");
    EXPECT_EQ(Logging::subsystem(bundle), prefix + ".runtime");
  }
}

TEST(AppConfiguration, TakesTheFeedFromTheFirstPlaceThatSetsOne) {
  constexpr auto variable = "QZL_UPDATE_FEED_URL";
  using Updates::feedURL;
  const std::string standard = Updates::defaultFeedURL();
  const PropertyDictionary ours{{"SUFeedURL", "https://b.example"}};
  const PropertyDictionary odd{{"SUFeedURL", true}}, wrong{{"SUFeedURL", "b.example"}};
  EXPECT_EQ(feedURL({}, &ours), "https://b.example");
  for (const PropertyDictionary* info : {static_cast<const PropertyDictionary*>(nullptr), &odd, &wrong})
    EXPECT_EQ(feedURL({}, info), standard);
  for (
      const std::string_view url : splitWhitespace(
          R"(https://a.example/feed.xml?x=%20 H2+x-y.z://a file://host/%aF%Fa%09 x://a https://a:8080 https://a:
              https://user:word@a:1 https://[::1]:80/x https://[fe80::1] https://a?b#c
              https://AZaz09-._~:/?#[]@!$&'()*+,;=)"))
    EXPECT_EQ(feedURL({{variable, std::string(url)}}, &ours), url);
  for (
      const std::string_view text : splitWhitespace(
          R"(https https:/a https:a ://a 1https://a -x://a ht_tp://a https:// https:///a https://?a https://#a
              https://:80 https://user@ https://u@:1 https://a:8x https://a:80a/ https://[::1 https://[::1]:x
              https://a/% https://a/%2 https://a/%2g https://a/%g2 https://a/%20% https://a/" https://a/ä
              https://a#b#c)"))
    EXPECT_EQ(feedURL({{variable, std::string(text)}}, &ours), standard) << text;
  for (const char* text : {"", "not a url", "https://a/b c", " https://a", "https://a\n"})
    EXPECT_EQ(feedURL({{variable, text}}, &ours), standard) << text;
  using Updates::publicEDKey;
  const PropertyDictionary info{{"SUPublicEDKey", " a2V5 "}};
  EXPECT_EQ(publicEDKey({}, &info), "a2V5");
  EXPECT_EQ(publicEDKey({{"QZL_SPARKLE_PUBLIC_ED_KEY", " "}}, &info), std::nullopt);
  EXPECT_EQ(publicEDKey({{"QZL_SPARKLE_PUBLIC_ED_KEY", "b\n"}}, &info), "b");
  EXPECT_EQ(publicEDKey({}, nullptr), std::nullopt);
}

}  // namespace
}  // namespace quenzel
