#include "KXSealedFiles.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXPropertyList.h>

#include <gtest/gtest.h>

using kxtest::xmlPropertyList;

namespace {

const std::string kKey = "app-key-0123";

const std::string kFullEntries =
    "<key>appId</key><string>app-1</string>\n"
    "<key>inboxDomainId</key><string>inbox-9</string>\n"
    "<key>stageClientId</key><string>stage-id</string>\n"
    "<key>stageClientSecret</key><string>stage-secret</string>\n"
    "<key>prodClientId</key><string>prod-id</string>\n"
    "<key>prodClientSecret</key><string>prod-secret</string>\n"
    "<key>inProduction</key><true/>\n"
    "<key>analyticsEnabled</key><string>YES</string>\n"
    "<key>locationServicesEnabled</key><integer>1</integer>\n"
    "<key>autoGuestEnabled</key><false/>\n"
    "<key>networkActivityIndicatorEnabled</key><string>no</string>\n"
    "<key>locationFuzzEnabled</key><string>true</string>\n"
    "<key>analyticsSessionInterval</key><integer>300</integer>\n";

// Seals a property list (XML text or binary bytes) with the openssl tool; returns the file.
std::filesystem::path sealed(const std::string& plist, const std::string& name = "KXConfig.enc") {
    const auto directory = kxtest::scratchDirectory("config");
    kxtest::writeText(directory / "plain.plist", plist);
    kxtest::sealWithOpenSSL(directory / "plain.plist", directory / name, kKey);
    return directory / name;
}

// Loads the entries through a fresh instance: the loaded values land on the default one.
KXConfig& loaded(const std::string& entries) {
    KXConfig loader;
    EXPECT_TRUE(loader.configWithContentsOfFile(sealed(xmlPropertyList(entries)), kKey));
    return KXConfig::defaultConfig();
}

}  // namespace

TEST(KXConfig, LoadsEveryKeyAndALaterLoadOverwritesEveryPropertyWrongTypesReadingAsAbsent) {
    const auto& config = loaded(kFullEntries);
    EXPECT_EQ(config.appId(), "app-1");
    EXPECT_EQ(config.inboxDomainId(), "inbox-9");
    EXPECT_EQ(config.stageClientId(), "stage-id");
    EXPECT_EQ(config.stageClientSecret(), "stage-secret");
    EXPECT_EQ(config.prodClientId(), "prod-id");
    EXPECT_EQ(config.prodClientSecret(), "prod-secret");
    EXPECT_TRUE(config.inProduction());
    EXPECT_TRUE(config.analyticsEnabled());
    EXPECT_TRUE(config.locationServicesEnabled());
    EXPECT_FALSE(config.autoGuestEnabled());
    EXPECT_FALSE(config.networkActivityIndicatorEnabled());
    EXPECT_TRUE(config.locationFuzzEnabled());
    EXPECT_EQ(config.analyticsSessionInterval(), 300);
    EXPECT_TRUE(config.validateInboxDomainId());

    loaded(
        "<key>appId</key><integer>42</integer>\n"
        "<key>inboxDomainId</key><string></string>\n"
        "<key>stageClientId</key><array><string>x</string></array>\n"
        "<key>unknownKey</key><string>ignored</string>\n");
    EXPECT_EQ(config.appId(), "42");
    EXPECT_EQ(config.inboxDomainId(), "");
    EXPECT_FALSE(config.validateInboxDomainId());
    EXPECT_EQ(config.stageClientId(), std::nullopt);
    EXPECT_EQ(config.prodClientId(), std::nullopt);
    EXPECT_FALSE(config.inProduction()) << "no inProduction selects staging";
    EXPECT_FALSE(config.analyticsEnabled());
    EXPECT_EQ(config.analyticsSessionInterval(), 90);
}

TEST(KXConfig, LoadsABinaryPropertyList) {
    const auto binary = KXPropertyList::toBinary(
        {{"appId", "binary-app"}, {"inProduction", true}, {"analyticsSessionInterval", 120}});
    ASSERT_TRUE(KXConfig::defaultConfig().configWithContentsOfFile(
        sealed(std::string(binary.begin(), binary.end())), kKey));
    EXPECT_EQ(KXConfig::defaultConfig().appId(), "binary-app");
    EXPECT_TRUE(KXConfig::defaultConfig().inProduction());
    EXPECT_EQ(KXConfig::defaultConfig().analyticsSessionInterval(), 120);
}

TEST(KXConfig, SessionIntervalHasAFloorOfNinety) {
    const std::pair<std::string, std::int64_t> table[] = {
        {"<integer>89</integer>", 90},
        {"<integer>90</integer>", 90},
        {"<integer>91</integer>", 91},
        {"<integer>0</integer>", 90},
        {"<real>91.9</real>", 91},
        {"<string> 95s</string>", 95},
        {"<string>soon</string>", 90},
        {"<true/>", 90},
        {"<integer>99999999999</integer>", 99999999999},
    };
    for (const auto& [value, expected] : table) {
        const auto& config = loaded("<key>analyticsSessionInterval</key>" + value + "\n");
        EXPECT_EQ(config.analyticsSessionInterval(), expected) << value;
    }
    EXPECT_EQ(loaded("").analyticsSessionInterval(), 90) << "missing key";
}

TEST(KXConfig, BooleanAndIntegerReadingFollowThePlatformConversionAndSaturate) {
    for (const char* yes :
         {"YES", "yes", "Y", "true", "T", "t", "1", "9lives", " 7", "+3", "007"}) {
        EXPECT_TRUE(KXConfig::boolValue(yes)) << yes;
    }
    for (const char* no : {"NO", "no", "false", "F", "0", "", "  ", "abc", "000", "-0", "x1"}) {
        EXPECT_FALSE(KXConfig::boolValue(no)) << no;
    }
    EXPECT_TRUE(KXConfig::boolValue(2));
    EXPECT_TRUE(KXConfig::boolValue(0.5));
    EXPECT_FALSE(KXConfig::boolValue(0));
    EXPECT_FALSE(KXConfig::boolValue(KXJSON::array({1})));
    EXPECT_FALSE(KXConfig::boolValue(nullptr));

    EXPECT_EQ(KXConfig::integerValue("99999999999999999999999"), INT64_MAX);
    EXPECT_EQ(KXConfig::integerValue("-99999999999999999999999"), INT64_MIN);
    EXPECT_EQ(KXConfig::integerValue(1e300), INT64_MAX);
    EXPECT_EQ(KXConfig::integerValue(-91.9), -91);
    EXPECT_EQ(KXConfig::integerValue(KXJSON::object()), 0);
}

TEST(KXConfig, OpeningWithTheWrongKeyIsAbsentWithoutStopping) {
    const auto bytes = kxtest::readBytes(sealed(xmlPropertyList(kFullEntries)));
    EXPECT_EQ(KXConfig::openSealedConfiguration(bytes, "wrong"), std::nullopt);
    EXPECT_EQ(KXConfig::openSealedConfiguration({}, kKey), std::nullopt);
    const auto opened = KXConfig::openSealedConfiguration(bytes, kKey);
    ASSERT_TRUE(opened);
    EXPECT_EQ((*opened)["prodClientId"], "prod-id");
}

using KXConfigDeathTest = testing::Test;

// A truncated file fails the same way as the wrong key (TZDecryptor tests catch the truncation).
TEST_F(KXConfigDeathTest, AWrongKeyOrAForeignFileStopsTheProcessNamingTheFile) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto path = sealed(xmlPropertyList(kFullEntries));
    EXPECT_DEATH(KXConfig::defaultConfig().configWithContentsOfFile(path, "not-the-key"),
                 "configurationFile");
    // Opens with the key, but what is inside is not a property list.
    const auto text = sealed("just some text, not a property list", "text.enc");
    EXPECT_DEATH(KXConfig::defaultConfig().configWithContentsOfFile(text, kKey),
                 "configurationFile");
}

TEST(KXConfigMissingFile, ShowsTheAlertAndChangesNothing) {
    auto platform = KXTestPlatform::install();
    loaded("<key>appId</key><string>kept</string>\n");
    const auto missing = kxtest::scratchDirectory("none") / "KXConfig.enc";
    EXPECT_FALSE(KXConfig::defaultConfig().configWithContentsOfFile(missing, kKey));
    EXPECT_FALSE(KXConfig::defaultConfig().configWithContentsOfFile(std::nullopt, kKey));

    const auto alerts = platform->fakeAlertPresenter().alerts();
    ASSERT_EQ(alerts.size(), 2u);
    EXPECT_EQ(alerts[0].title, "Missing Config File");
    EXPECT_EQ(alerts[0].message,
              "KXClientFramework was unable to find 'KXConfig.plist'. KXClientFramework may not "
              "work properly.");
    EXPECT_EQ(alerts[0].buttons, std::vector<std::string>{"Okay"});
    EXPECT_EQ(KXConfig::defaultConfig().appId(), "kept");
}
