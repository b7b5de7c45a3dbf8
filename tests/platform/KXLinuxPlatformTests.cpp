#include <KXClientFramework/KXDirectoryBundle.h>
#include <KXClientFramework/KXException.h>
#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/KXPropertyList.h>

#include "KXCapturingSink.h"
#include "KXPlatformTestSupport.h"
#include "KXTestDirectories.h"
#include "KXTestPlatform.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using kxplatformtest::RecordingLocationDelegate;
using kxplatformtest::writeFile;

namespace {

KXLinuxPlatformOptions optionsFor(const std::string& id) {
    KXLinuxPlatformOptions options;
    options.applicationId = id;
    return options;
}

fs::path makeDirectory(const std::string& name) {
    const fs::path directory = KXTestDirectories::current() / "bundles" / name;
    fs::create_directories(directory);
    return directory;
}

// A main queue of the application's own, as a toolkit adapter would provide (never run here).
class ToolkitMainQueue : public KXMainQueue {
public:
    void post(std::function<void()>) override {}
    void postAfter(std::chrono::milliseconds, std::function<void()>) override {}
    bool isMainThread() const override { return true; }
};

}  // namespace

TEST(KXLinuxPlatform, KeepsItsFilesInTheXDGDirectoriesOfTheApplication) {
    const fs::path root = KXTestDirectories::current();
    KXLinuxPlatform platform(optionsFor("com.example.kiosk"));
    EXPECT_EQ(platform.configDirectory(), root / "config" / "com.example.kiosk");
    EXPECT_EQ(platform.dataDirectory(), root / "data" / "com.example.kiosk");
    EXPECT_EQ(platform.cachesDirectory(), root / "cache" / "com.example.kiosk");

    ASSERT_EQ(platform.keychain().add({"svc", "acct"}, {1}), KXKeychainStatus::Success);
    EXPECT_TRUE(fs::exists(root / "data" / "com.example.kiosk" / "keychain.plist"));
}

TEST(KXLinuxPlatform, FallsBackToTheHomeDirectoryAndHonoursExplicitDirectories) {
    const fs::path home = KXTestDirectories::current() / "home";
    unsetenv("XDG_CONFIG_HOME");
    setenv("XDG_DATA_HOME", "relative/paths/are/ignored", 1);
    setenv("XDG_CACHE_HOME", "", 1);
    KXLinuxPlatform platform(optionsFor("app"));
    EXPECT_EQ(platform.configDirectory(), home / ".config" / "app");
    EXPECT_EQ(platform.dataDirectory(), home / ".local" / "share" / "app");
    EXPECT_EQ(platform.cachesDirectory(), home / ".cache" / "app");

    KXLinuxPlatformOptions options = optionsFor("app");
    options.configDirectory = KXTestDirectories::current() / "mine" / "config";
    KXLinuxPlatform custom(options);
    EXPECT_EQ(custom.configDirectory(), *options.configDirectory);

    // An application id never names a path outside those directories.
    KXLinuxPlatform odd(optionsFor("../escape"));
    EXPECT_EQ(odd.configDirectory().parent_path(), home / ".config");
}

TEST(KXLinuxPlatform, FindsResourcesThroughTheResourcePathAndMergesTheInfoDictionary) {
    const fs::path a = KXTestDirectories::current() / "res-a";
    const fs::path b = KXTestDirectories::current() / "res-b";
    fs::create_directories(a);
    writeFile(b / "KXConfig.enc", "sealed");
    writeFile(b / "Info.plist",
              "<plist><dict><key>CFBundleName</key><string>Kiosk</string>"
              "<key>CFBundleVersion</key><string>1</string></dict></plist>");
    setenv("KX_RESOURCE_PATH", (a.string() + "::" + b.string()).c_str(), 1);

    KXLinuxPlatformOptions options = optionsFor("com.example.res");
    options.infoDictionaryJSON = R"({"CFBundleVersion": "7"})";
    KXLinuxPlatform platform(options);
    EXPECT_EQ(platform.mainBundle().pathForResource("KXConfig", "enc"), b / "KXConfig.enc");
    const KXJSON info = platform.mainBundle().infoDictionary();
    EXPECT_EQ(info["CFBundleName"], "Kiosk");
    EXPECT_EQ(info["CFBundleVersion"], "7");

    // Explicit directories win over the environment; without either: the executable's.
    KXLinuxPlatformOptions explicitOptions = optionsFor("x");
    explicitOptions.resourceDirectories = {a};
    EXPECT_FALSE(KXLinuxPlatform(explicitOptions).mainBundle().pathForResource("KXConfig", "enc"));
    unsetenv("KX_RESOURCE_PATH");
    const fs::path executable = fs::read_symlink("/proc/self/exe");
    EXPECT_EQ(KXLinuxPlatform(optionsFor("x"))
                  .mainBundle()
                  .pathForResource(executable.filename().string(), ""),
              executable);

    auto sink = KXCapturingSink::install();
    KXLinuxPlatformOptions bad = optionsFor("x");
    bad.infoDictionaryJSON = "[not an object";
    EXPECT_EQ(KXLinuxPlatform(bad).mainBundle().infoDictionary(),
              (KXJSON{{"CFBundleIdentifier", "x"}}));
    EXPECT_EQ(sink->linesContaining("overrides").size(), 1u);
}

TEST(KXPlatform, TheFirstUseInstallsTheLinuxDefaultOnceForAllThreads) {
    setenv("KX_APPLICATION_ID", "com.example.auto", 1);
    std::vector<std::thread> threads;
    std::vector<KXPlatform*> seen(4, nullptr);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&seen, t] { seen[t] = &KXPlatform::current(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (auto* platform : seen) {
        EXPECT_EQ(platform, seen[0]);
    }
    auto* installed = dynamic_cast<KXLinuxPlatform*>(seen[0]);
    ASSERT_NE(installed, nullptr);
    EXPECT_EQ(installed->options().applicationId, "com.example.auto");
    EXPECT_EQ(KXPlatform::currentShared().get(), seen[0]);
    EXPECT_EQ(&KXLinuxPlatform::defaultMainQueue(), installed->asioMainQueue());

    auto mine = KXLinuxPlatform::installDefault("com.example.mine");
    EXPECT_EQ(&KXPlatform::current(), mine.get());

    // A platform with its own main queue has no asio main queue to hand out.
    KXLinuxPlatformOptions options = optionsFor("com.example.toolkit");
    options.mainQueue = std::make_shared<ToolkitMainQueue>();
    auto toolkit = std::make_shared<KXLinuxPlatform>(options);
    EXPECT_EQ(&toolkit->mainQueue(), options.mainQueue.get());
    EXPECT_EQ(toolkit->asioMainQueue(), nullptr);
    KXPlatform::install(toolkit);
    EXPECT_THROW(KXLinuxPlatform::defaultMainQueue(), KXException);

    unsetenv("KX_APPLICATION_ID");  // then the program's name is the application's id
    EXPECT_EQ(KXLinuxPlatform::defaultApplicationId(),
              fs::read_symlink("/proc/self/exe").filename().string());
}

TEST(KXLinuxLocationSource, DeliversFedFixesOnTheMainQueueWhileUpdatesAreOn) {
    KXAsioMainQueue queue;
    KXSystemClock clock;
    KXLinuxLocationSource source(queue, clock);
    RecordingLocationDelegate delegate;
    source.setDelegate(&delegate);
    source.setDistanceFilter(50.0);  // fed fixes are not filtered

    const KXLocation fix{52.52, 13.40, std::chrono::system_clock::now()};
    source.deliver({fix});  // updates are off: dropped
    queue.poll();
    EXPECT_TRUE(delegate.fixes.empty());

    source.startUpdatingLocation();
    std::thread feeder([&] { source.deliver({fix, fix}); });  // a GPS reader thread
    feeder.join();
    EXPECT_TRUE(delegate.fixes.empty()) << "delivery happens on the main queue";
    ASSERT_TRUE(queue.runUntil([&] { return delegate.fixes.size() == 2; }, 10s));
    EXPECT_TRUE(delegate.onMainThread);
    source.deliverError(KXError("kCLErrorDomain", 0));
    queue.poll();
    ASSERT_EQ(delegate.errors.size(), 1u);

    // Stopping before queued fixes arrive drops them too.
    source.deliver({fix});
    source.stopUpdatingLocation();
    queue.poll();
    EXPECT_EQ(delegate.fixes.size(), 2u);

    source.startMonitoringSignificantLocationChanges();
    source.deliver({fix});
    queue.poll();
    EXPECT_EQ(delegate.fixes.size(), 3u);
}

TEST(KXLinuxLocationSource, AFixedPositionIsDeliveredWhenUpdatesStart) {
    setenv("KX_FIXED_LOCATION", " 48.8566 , 2.3522 ", 1);
    KXLinuxPlatform platform(optionsFor("com.example.fixed"));
    auto source = platform.makeLocationSource();
    RecordingLocationDelegate delegate;
    source->setDelegate(&delegate);
    source->startUpdatingLocation();
    ASSERT_TRUE(platform.asioMainQueue()->runUntil([&] { return !delegate.fixes.empty(); }, 10s));
    EXPECT_DOUBLE_EQ(delegate.fixes[0].latitude, 48.8566);
    EXPECT_DOUBLE_EQ(delegate.fixes[0].longitude, 2.3522);
    EXPECT_NE(delegate.fixes[0].timestamp, std::chrono::system_clock::time_point{});
    source->setDelegate(nullptr);
    source.reset();
    platform.asioMainQueue()->poll();  // work queued for the destroyed source is skipped

    for (const char* bad : {"48.8", "91,0", "0,181", "abc,def", "1,2,3", "nan,1", ""}) {
        EXPECT_FALSE(KXLinuxLocationSource::parseFixedPosition(bad).has_value()) << bad;
    }
    auto sink = KXCapturingSink::install();
    setenv("KX_FIXED_LOCATION", "somewhere", 1);
    KXLinuxPlatform ignored(optionsFor("com.example.fixed"));
    EXPECT_EQ(sink->linesContaining("KX_FIXED_LOCATION").size(), 1u);
}

TEST(KXLinuxPlatform, AuthorisationIsAnsweredLaterAndAlertsGoToTheLog) {
    KXLinuxPlatformOptions options = optionsFor("com.example.quiet");
    options.notificationsAuthorized = false;
    KXLinuxPlatform platform(options);
    std::optional<bool> answer;
    platform.notificationAuthorizer().requestAuthorization(
        KXUserNotificationTypeAlert | KXUserNotificationTypeSound,
        [&](bool granted, const std::optional<KXError>& error) {
            EXPECT_FALSE(error.has_value());
            answer = granted;
        });
    EXPECT_FALSE(answer.has_value()) << "never answered inside the call";
    ASSERT_TRUE(platform.asioMainQueue()->runUntil([&] { return answer.has_value(); }, 10s));
    EXPECT_FALSE(*answer);

    auto sink = KXCapturingSink::install();
    platform.alertPresenter().present({"Missing Config File", "Add it.", {"OK", "Cancel"}});
    EXPECT_EQ(sink->lines(), std::vector<std::string>{"Missing Config File: Add it. [OK, Cancel]"});
}

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
    EXPECT_FALSE(bundle.pathForResource("KXConfig.enc", "d").has_value()) << "not a file";
    EXPECT_FALSE(bundle.pathForResource("", "enc").has_value());

    const fs::path outside = KXTestDirectories::current() / "bundles" / "secret";
    writeFile(outside.string() + ".txt", "outside");
    EXPECT_FALSE(bundle.pathForResource("../secret", "txt"));
    EXPECT_FALSE(bundle.pathForResource(outside.string(), "txt"));
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
    EXPECT_EQ(bundle.objectForInfoDictionaryKey("CFBundleIdentifier"), "com.example.kiosk");
    EXPECT_TRUE(bundle.objectForInfoDictionaryKey("Missing").is_null());

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
