#include <KXClientFramework/KXLinuxPlatform.h>

#include "KXPlatformTestSupport.h"
#include "KXTestDirectories.h"
#include "platform/linux/internal/KXLinuxDeviceFacts.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

namespace fs = std::filesystem;
using kxplatformtest::writeFile;

namespace {

class KXLinuxDeviceFactsTest : public testing::Test {
protected:
    fs::path root = KXTestDirectories::current() / "facts" /
                    testing::UnitTest::GetInstance()->current_test_info()->name();
    std::map<std::string, std::string> environment;
    KXLinuxDeviceFactsSources sources;

    void SetUp() override {
        fs::create_directories(root);
        sources.osRelease = root / "os-release";
        sources.osReleaseFallback = root / "usr-lib-os-release";
        sources.dmiProductName = root / "product_name";
        sources.dmiSysVendor = root / "sys_vendor";
        sources.deviceTreeModel = root / "model";
        sources.environment = [this](const std::string& name) -> std::optional<std::string> {
            auto it = environment.find(name);
            return it != environment.end() ? std::optional(it->second) : std::nullopt;
        };
    }
};

}  // namespace

TEST_F(KXLinuxDeviceFactsTest, ReadsOsReleaseAndDMIOfAPC) {
    writeFile(sources.osRelease,
              "# c\nPRETTY_NAME=\"D\"\nNAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\n");
    writeFile(sources.dmiProductName, "ThinkPad X1 Carbon Gen 9\n");
    writeFile(sources.dmiSysVendor, "LENOVO\n");
    writeFile(sources.deviceTreeModel, std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31));

    const KXDeviceFacts facts = kxReadLinuxDeviceFacts(sources);
    EXPECT_EQ(facts.systemName, "Debian GNU/Linux");
    EXPECT_EQ(facts.systemVersion, "12");
    EXPECT_EQ(facts.model, "ThinkPad X1 Carbon Gen 9") << "DMI comes before the device tree";
    EXPECT_EQ(facts.manufacturer, "LENOVO");
}

TEST_F(KXLinuxDeviceFactsTest, EmbeddedBoardsAndMissingFilesFallBack) {
    // /etc/os-release missing: the fallback file; unquoted and single-quoted values.
    writeFile(sources.osReleaseFallback, "NAME='Raspbian GNU/Linux'\nVERSION_ID=11\n");
    // Device tree strings end with NUL; DMI is absent on such boards.
    writeFile(sources.deviceTreeModel, std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31));

    KXDeviceFacts facts = kxReadLinuxDeviceFacts(sources);
    EXPECT_EQ(facts.systemName, "Raspbian GNU/Linux");
    EXPECT_EQ(facts.systemVersion, "11");
    EXPECT_EQ(facts.model, "Raspberry Pi 4 Model B Rev 1.4");
    EXPECT_EQ(facts.manufacturer, "Unknown");

    // Firmware placeholders count as unknown.
    writeFile(sources.dmiProductName, "To be filled by O.E.M.\n");
    writeFile(sources.dmiSysVendor, "System manufacturer\n");
    facts = kxReadLinuxDeviceFacts(sources);
    EXPECT_EQ(facts.model, "Raspberry Pi 4 Model B Rev 1.4");
    EXPECT_EQ(facts.manufacturer, "Unknown");

    fs::remove_all(root);
    facts = kxReadLinuxDeviceFacts(sources);
    EXPECT_FALSE(facts.systemName.has_value());
    EXPECT_FALSE(facts.systemVersion.has_value());
    EXPECT_FALSE(facts.model.has_value());
}

TEST_F(KXLinuxDeviceFactsTest, OsReleaseQuotingFollowsTheShellRules) {
    const std::string text =
        "NAME=\"Say \\\"hi\\\" \\\\ \\$HOME\"\n"
        "VERSION_ID='1.2 \\n'\n"
        "ID=arch\n"
        "ID=later\n"
        "  BLANK_KEY = spaced \n";
    EXPECT_EQ(kxOsReleaseValue(text, "NAME"), "Say \"hi\" \\ $HOME");
    EXPECT_EQ(kxOsReleaseValue(text, "VERSION_ID"), "1.2 \\n");
    EXPECT_EQ(kxOsReleaseValue(text, "ID"), "later");
    EXPECT_EQ(kxOsReleaseValue(text, "BLANK_KEY"), "spaced");
    EXPECT_FALSE(kxOsReleaseValue(text, "VERSION").has_value());
    EXPECT_FALSE(kxOsReleaseValue("NAME", "NAME").has_value());
}

TEST_F(KXLinuxDeviceFactsTest, LocaleAndPreferredLanguagesComeFromTheEnvironment) {
    environment = {{"LANG", "en_US.UTF-8"}};
    KXDeviceFacts facts = kxReadLinuxDeviceFacts(sources);
    EXPECT_EQ(facts.localeIdentifier, "en_US");
    EXPECT_EQ(facts.preferredLanguages, std::vector<std::string>{"en-US"});

    // LC_ALL wins over LC_MESSAGES over LANG; LANGUAGE lists the preferred languages.
    environment = {{"LANG", "en_US.UTF-8"},
                   {"LC_MESSAGES", "fr_FR.UTF-8"},
                   {"LC_ALL", "de_DE.ISO-8859-1@euro"},
                   {"LANGUAGE", "en_GB:en:C:en_GB"}};
    facts = kxReadLinuxDeviceFacts(sources);
    EXPECT_EQ(facts.localeIdentifier, "de_DE");
    EXPECT_EQ(facts.preferredLanguages, (std::vector<std::string>{"en-GB", "en"}));

    environment = {{"LC_ALL", ""}, {"LC_MESSAGES", "pt_BR"}};
    EXPECT_EQ(kxReadLinuxDeviceFacts(sources).localeIdentifier, "pt_BR");

    environment = {{"LANG", "C.UTF-8"}};
    facts = kxReadLinuxDeviceFacts(sources);
    EXPECT_FALSE(facts.localeIdentifier.has_value());
    EXPECT_TRUE(facts.preferredLanguages.empty());
}
