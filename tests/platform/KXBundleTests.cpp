// The directory bundle: resource lookup and the information dictionary.
#include <KXClientFramework/KXDirectoryBundle.h>
#include <KXClientFramework/KXPropertyList.h>

#include "KXCapturingSink.h"
#include "KXPlatformTestSupport.h"
#include "KXTestDirectories.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;
using kxplatformtest::writeFile;

namespace {

fs::path makeDirectory(const std::string& name) {
    const fs::path directory = KXTestDirectories::current() / "bundles" / name;
    fs::create_directories(directory);
    return directory;
}

}  // namespace

TEST(KXDirectoryBundle, FindsResourcesInTheFirstDirectoryThatHasThem) {
    const fs::path first = makeDirectory("first");
    const fs::path second = makeDirectory("second");
    writeFile(second / "KXConfig.enc", "sealed");
    writeFile(first / "folder.png", "image");
    writeFile(second / "folder.png", "other image");
    writeFile(second / "README", "no extension");
    fs::create_directories(first / "KXConfig.enc.d");

    KXDirectoryBundle bundle({first, second});
    EXPECT_EQ(bundle.pathForResource("KXConfig", "enc"), second / "KXConfig.enc");
    EXPECT_EQ(bundle.pathForResource("KXConfig", ".enc"), second / "KXConfig.enc");
    EXPECT_EQ(bundle.pathForResource("folder", "png"), first / "folder.png");
    EXPECT_EQ(bundle.pathForResource("README", ""), second / "README");
    EXPECT_FALSE(bundle.pathForResource("KXConfig", "plist").has_value());
    EXPECT_FALSE(bundle.pathForResource("KXConfig.enc", "d").has_value()) << "not a file";
    EXPECT_FALSE(bundle.pathForResource("", "enc").has_value());

    // Names cannot reach outside the resource directories.
    writeFile(KXTestDirectories::current() / "bundles" / "secret.txt", "outside");
    EXPECT_FALSE(bundle.pathForResource("../secret", "txt").has_value());
    EXPECT_FALSE(
        bundle
            .pathForResource((KXTestDirectories::current() / "bundles" / "secret").string(), "txt")
            .has_value());
}

TEST(KXDirectoryBundle, InfoDictionaryMergesOverridesOverInfoPlist) {
    const fs::path resources = makeDirectory("resources");
    writeFile(resources / "Info.plist",
              KXPropertyList::toXML({{"CFBundleName", "Kiosk"},
                                     {"CFBundleVersion", "1.0"},
                                     {"UIBackgroundModes", {"remote-notification"}}}));

    KXDirectoryBundle bundle({resources}, {{"CFBundleVersion", "2.0"}, {"CFBundleName", nullptr}},
                             "com.example.kiosk");
    const KXJSON info = bundle.infoDictionary();
    EXPECT_EQ(info["CFBundleVersion"], "2.0");
    EXPECT_FALSE(info.contains("CFBundleName")) << "a null override removes the key";
    EXPECT_EQ(info["UIBackgroundModes"], KXJSON({"remote-notification"}));
    EXPECT_EQ(info["CFBundleIdentifier"], "com.example.kiosk");
    EXPECT_EQ(bundle.objectForInfoDictionaryKey("CFBundleIdentifier"), "com.example.kiosk");
    EXPECT_TRUE(bundle.objectForInfoDictionaryKey("Missing").is_null());

    // A binary Info.plist that names its own identifier keeps it.
    const fs::path binary = makeDirectory("binary");
    const auto bytes = KXPropertyList::toBinary({{"CFBundleIdentifier", "com.example.own"}});
    writeFile(binary / "Info.plist", std::string(bytes.begin(), bytes.end()));
    EXPECT_EQ(KXDirectoryBundle({binary}, KXJSON::object(), "fallback")
                  .objectForInfoDictionaryKey("CFBundleIdentifier"),
              "com.example.own");
}

TEST(KXDirectoryBundle, ADamagedInfoPlistIsReportedAndIgnored) {
    auto sink = KXCapturingSink::install();
    const fs::path resources = makeDirectory("damaged");
    writeFile(resources / "Info.plist", "<plist><dict><key>CFBundleName</key><string>Kio");
    KXDirectoryBundle bundle({resources}, {{"CFBundleVersion", "3"}}, "com.example.app");
    EXPECT_EQ(bundle.infoDictionary(),
              (KXJSON{{"CFBundleVersion", "3"}, {"CFBundleIdentifier", "com.example.app"}}));
    EXPECT_EQ(sink->linesContaining("Info.plist").size(), 1u);
    EXPECT_TRUE(fs::exists(resources / "Info.plist")) << "resources are never moved or changed";
}
