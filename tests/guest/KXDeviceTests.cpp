#include "KXCapturingSink.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXFileUserDefaults.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Strings = std::vector<std::string>;

class KXDeviceTest : public testing::Test {
protected:
    KXDeviceTest() {
        KXTestPlatformOptions options;
        options.infoDictionary = {{"CFBundleName", "Front Desk"},
                                  {"CFBundleShortVersionString", "2.1"},
                                  {"CFBundleVersion", "2100"}};
        platform = KXTestPlatform::install(options);
    }

    // What a later launch finds in the file: a store freshly read from it.
    KXJSON storedOnDisk() {
        return KXFileUserDefaults(platform->fileUserDefaults().path()).dictionaryRepresentation();
    }

    std::shared_ptr<KXTestPlatform> platform;
    KXDevice device;
};

}  // namespace

TEST_F(KXDeviceTest, SavedTokensAccumulateOnceEachAndAbsentOrEmptyOnesAreRefused) {
    kxLogLevel = 4;
    auto sink = KXCapturingSink::install();
    device.saveDeviceToken("aa01");
    EXPECT_FALSE(device.multipleDeviceTokens());
    // Someone changed the current entry behind the device's back; saving again restores it.
    platform->userDefaults().setObject("applicationDeviceToken", "other");
    device.saveDeviceToken("aa01");
    EXPECT_EQ(device.retrieveDeviceTokenFromUserDefaults(), "aa01");
    device.saveDeviceToken("bb02");
    device.saveDeviceToken("aa01");
    device.saveDeviceToken(std::string());
    device.saveDeviceToken(std::nullopt);

    EXPECT_EQ(device.deviceToken(), "aa01");
    EXPECT_EQ(device.retrieveDeviceTokenListFromUserDefaults(), (Strings{"aa01", "bb02"}));
    EXPECT_TRUE(device.multipleDeviceTokens());
    EXPECT_EQ(sink->linesContaining("No device token found").size(), 2u);

    // The diagnostic dump: the stored token, the list and the device data, one debug line each.
    sink->clear();
    device.printDeviceTokensSavedInUserDefaults();
    const auto lines = sink->lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("] retrieveDeviceTokenFromUserDefaults: aa01"), std::string::npos);
    EXPECT_NE(lines[1].find(R"(] retrieveDeviceTokenListFromUserDefaults: ["aa01","bb02"])"),
              std::string::npos);
    EXPECT_NE(lines[2].find(R"(] deviceUserAgent: {"appName":"Front Desk")"), std::string::npos);

    // A later launch reads the file alone, with nothing in memory: the save was synchronised.
    platform = KXTestPlatform::install();
    KXDevice nextLaunch;
    EXPECT_EQ(nextLaunch.deviceToken(), "aa01");
    EXPECT_EQ(nextLaunch.retrieveDeviceTokenListFromUserDefaults(), (Strings{"aa01", "bb02"}));
    EXPECT_TRUE(nextLaunch.multipleDeviceTokens());
}

TEST_F(KXDeviceTest, TheTokenInMemoryAndTheStoredTokenAndListChangeApart) {
    // The current entry takes the token in memory, not the argument; setDeviceToken alone
    // touches memory only.
    device.setDeviceToken("memory");
    device.saveToUserDefaults("argument");
    EXPECT_EQ(device.retrieveDeviceTokenFromUserDefaults(), "memory");
    EXPECT_EQ(device.retrieveDeviceTokenListFromUserDefaults(), (Strings{"argument"}));
    device.setDeviceToken("later");
    EXPECT_EQ(device.retrieveDeviceTokenFromUserDefaults(), "memory");

    // Deleting the token keeps the list, and deleting the list keeps the token.
    device.saveDeviceToken("bb02");
    device.deleteDeviceToken();
    EXPECT_EQ(device.deviceToken(), std::nullopt);
    EXPECT_EQ(device.retrieveDeviceTokenListFromUserDefaults(), (Strings{"argument", "bb02"}));
    EXPECT_FALSE(storedOnDisk().contains("applicationDeviceToken"));
    device.saveDeviceToken("cc03");
    device.deleteDeviceTokenList();
    EXPECT_EQ(device.deviceToken(), "cc03");
    EXPECT_EQ(device.retrieveDeviceTokenFromUserDefaults(), "cc03");
    EXPECT_TRUE(device.retrieveDeviceTokenListFromUserDefaults().empty());
    EXPECT_FALSE(storedOnDisk().contains("applicationDeviceTokenList"));
}

TEST_F(KXDeviceTest, DeviceDataCarriesWhatThePlatformKnowsAndThePushSwitch) {
    KXDeviceFacts& facts = platform->fakeDeviceFacts();
    facts.systemVersion = "12.4";
    facts.model = "Kiosk 7";
    facts.manufacturer = "Acme Devices";
    facts.carrierName = "Carrier One";
    facts.localeIdentifier = "de_CH";
    facts.preferredLanguages = {"de-CH", "en"};
    KXClientFramework::sharedManager().setPushEnabledOnDevice(true);
    EXPECT_EQ(device.deviceData(), KXJSON::parse(R"({"manufacturer":"Acme Devices",
        "osVersion":"12.4","deviceModel":"Kiosk 7","appName":"Front Desk","appVersion":"2100",
        "carrier":"Carrier One","country":"de_CH","language":"de-CH",
        "frameworkVersion":"1.0.8.1","pushEnabled":true})"));

    // What the platform does not know is left out (this platform has no bundle name either).
    platform = KXTestPlatform::install();
    platform->fakeDeviceFacts() = KXDeviceFacts{};
    platform->fakeDeviceFacts().manufacturer = "Unknown";
    KXClientFramework::sharedManager().setPushEnabledOnDevice(false);
    EXPECT_EQ(device.deviceData(), KXJSON::parse(R"({"manufacturer":"Unknown",
        "frameworkVersion":"1.0.8.1","pushEnabled":false})"));
}
