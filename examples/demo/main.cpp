// The library end to end against the local sandbox service, as a short console tour: the
// application launches and engages with its automatic guest, a push token arrives, and each
// step prints what the library got back: the guest, the inbox, the lists, an analytics session.
// scripts/demo.sh builds everything, starts the sandbox and runs this.
//
//     example_demo --config DIR/KXConfig.enc --key KEY --service http://127.0.0.1:PORT
//                  [--business-unit DEMO] [--verbose]
//
// The tour covers the parts of the library this build has: the guest, inbox and analytics
// steps are compiled in when their headers are part of the library.
//
// Exit status: 0 when every step worked, 1 when one failed or the configuration does not open
// with the key, 2 for a usage error.

#include "KXDemoSteps.h"
#include "KXDemoTour.h"

#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/KXLog.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

struct Options {
    std::string config;
    std::string key;
    std::string service;
    std::string businessUnit = "DEMO";
    bool verbose = false;
};

constexpr const char* kUsage =
    "usage: example_demo --config DIR/KXConfig.enc --key KEY --service URL\n"
    "                    [--business-unit DEMO] [--verbose]\n"
    "Tours the library against the local sandbox service at URL (see scripts/demo.sh).\n";

bool wantsHelp(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            return true;
        }
    }
    return false;
}

// The library stops the process on a configuration that does not open with the key (an
// application must not run with the wrong one); the demo says so and exits instead.
bool configurationOpens(const Options& options) {
    std::ifstream in(options.config, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "demo: cannot read %s\n", options.config.c_str());
        return false;
    }
    const std::vector<std::uint8_t> sealed{std::istreambuf_iterator<char>(in),
                                           std::istreambuf_iterator<char>()};
    const auto opened = KXConfig::openSealedConfiguration(sealed, options.key);
    if (!opened || !opened->is_object()) {
        std::fprintf(stderr, "demo: %s does not open with the key: wrong key or damaged file\n",
                     options.config.c_str());
        return false;
    }
    return true;
}

bool parse(int argc, char** argv, Options& options) {
    std::map<std::string, std::string*> values = {{"--config", &options.config},
                                                  {"--key", &options.key},
                                                  {"--service", &options.service},
                                                  {"--business-unit", &options.businessUnit}};
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--verbose") {
            options.verbose = true;
            continue;
        }
        const auto value = values.find(argument);
        if (value == values.end() || i + 1 >= argc) {
            std::fprintf(stderr, "demo: unknown option or missing value: %s\n", argv[i]);
            return false;
        }
        *value->second = argv[++i];
    }
    if (options.config.empty() || options.key.empty() || options.service.empty()) {
        std::fprintf(stderr, "demo: --config, --key and --service are required\n");
        return false;
    }
    if (std::filesystem::path(options.config).filename() != "KXConfig.enc") {
        std::fprintf(stderr, "demo: the configuration file must be named KXConfig.enc\n");
        return false;
    }
    return true;
}

std::vector<std::uint8_t> randomPushToken() {
    std::random_device random;
    std::vector<std::uint8_t> token(32);
    for (std::uint8_t& byte : token) {
        byte = static_cast<std::uint8_t>(random());
    }
    return token;
}

}  // namespace

int run(const Options& options);

int main(int argc, char** argv) {
    if (wantsHelp(argc, argv)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    Options options;
    if (!parse(argc, argv, options)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (!configurationOpens(options)) {
        return 1;
    }
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "demo: %s\n", error.what());
        return 1;
    }
}

int run(const Options& options) {
    KXLinuxPlatformOptions platformOptions;
    platformOptions.applicationId = "com.example.demo";
    platformOptions.resourceDirectories = {std::filesystem::absolute(options.config).parent_path()};
    auto platform = std::make_shared<KXLinuxPlatform>(std::move(platformOptions));
    KXPlatform::install(platform);
    KXAsioMainQueue& mainQueue = *platform->asioMainQueue();
    KXApplication& application = platform->application();

    KXClientFramework::setLogging(true);
    KXClientFramework::setLogLevel(options.verbose ? 4 : 1);
    // The sandbox is the local development server (environment 3) and the staging token host.
    KXServiceEndpoints endpoints = KXClientFramework::serviceEndpoints();
    endpoints.localServer = options.service;
    endpoints.stagingToken = options.service;
    KXClientFramework::setServiceEndpoints(endpoints);
    KXClientFramework::setEnvironment(3);
    KXClientFramework::sharedManager().setBusinessUnit(options.businessUnit);

    std::printf("KXClientFramework demo against %s/ZandrelService/rest/bu/%s\n\n",
                options.service.c_str(), options.businessUnit.c_str());
    KXDemoTour tour(mainQueue, kxDemoStepCount, std::chrono::seconds(20));

    // The application launches; its delegate engages the library (with the automatic guest
    // where this build has guests) and the application becomes active.
    auto delegate = std::make_shared<KXDemoDelegate>(options.key);
    application.setDelegate(delegate);
    application.postEvent(KXApplicationEvent::DidFinishLaunching);
    application.postEvent(KXApplicationEvent::DidBecomeActive);
    kxDemoEngage(tour, *delegate);

    // What the platform does once the push service issued the application a token.
    if (!tour.failed()) {
        application.deliverDeviceToken(randomPushToken());
    }
    tour.until(
        "Registering this device's push token",
        [] { return KXDevice::currentDevice().deviceToken().has_value(); },
        [] { return std::string("the library kept no device token"); });
    if (!tour.failed()) {
        KXDemoTour::detail("push token " + KXDevice::currentDevice().deviceToken().value_or(""));
    }

    kxDemoServiceSteps(tour, application);

    application.postEvent(KXApplicationEvent::WillTerminate);
    std::printf("\n%d of %d steps worked.\n", tour.completed(), kxDemoStepCount);
    return tour.failed() ? 1 : 0;
}
