// The directory bundle: resource lookup and the information dictionary.
#include <KXClientFramework/KXDirectoryBundle.h>
#include <KXClientFramework/KXPropertyList.h>

#include "KXCapturingSink.h"
#include "KXTestDirectories.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

fs::path makeDirectory(const std::string& name) {
    const fs::path directory = KXTestDirectories::current() / "bundles" / name;
    fs::create_directories(directory);
    return directory;
}

void write(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

}  // namespace

TEST(KXDirectoryBundle, FindsResourcesInTheFirstDirectoryThatHasThem) {
    const fs::path first = makeDirectory("first");
    const fs::path second = makeDirectory("second");
    write(second / "KXConfig.enc", "sealed");
    write(first / "folder.png", "image");
    write(second / "folder.png", "other image");
    write(second / "README", "no extension");
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
    write(KXTestDirectories::current() / "bundles" / "secret.txt", "outside");
    EXPECT_FALSE(bundle.pathForResource("../secret", "txt").has_value());
    EXPECT_FALSE(
        bundle
            .pathForResource((KXTestDirectories::current() / "bundles" / "secret").string(), "txt")
            .has_value());
}

TEST(KXDirectoryBundle, InfoDictionaryMergesOverridesOverInfoPlist) {
    const fs::path resources = makeDirectory("resources");
    write(resources / "Info.plist",
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
    write(binary / "Info.plist", std::string(bytes.begin(), bytes.end()));
    EXPECT_EQ(KXDirectoryBundle({binary}, KXJSON::object(), "fallback")
                  .objectForInfoDictionaryKey("CFBundleIdentifier"),
              "com.example.own");
}

TEST(KXDirectoryBundle, ADamagedInfoPlistIsReportedAndIgnored) {
    auto sink = KXCapturingSink::install();
    const fs::path resources = makeDirectory("damaged");
    write(resources / "Info.plist", "<plist><dict><key>CFBundleName</key><string>Kio");
    KXDirectoryBundle bundle({resources}, {{"CFBundleVersion", "3"}}, "com.example.app");
    EXPECT_EQ(bundle.infoDictionary(),
              (KXJSON{{"CFBundleVersion", "3"}, {"CFBundleIdentifier", "com.example.app"}}));
    EXPECT_EQ(sink->linesContaining("Info.plist").size(), 1u);
    EXPECT_TRUE(fs::exists(resources / "Info.plist")) << "resources are never moved or changed";
}
