// A minimal application that joins the service the way every application does: its delegate
// engages the library while the application finishes launching, the main loop runs until the
// library holds a bearer token, and the application ends through the WillTerminate event, after
// which the library has given the delegate slot back.
//
//     engage_app --config /opt/frontdesk/KXConfig.enc --key "$KX_KEY"
//
// Options (each also read from the environment variable named in brackets):
//   --config PATH        the sealed configuration; must be named KXConfig.enc, its folder is
//                        the application's resource folder             [KX_ENGAGE_CONFIG]
//   --key KEY            the application's key                          [KX_ENGAGE_KEY]
//   --token-url URL      base URL of the token host, for staging and production
//                                                                       [KX_ENGAGE_TOKEN_URL]
//   --service-url URL    base URL of the REST service (every environment)
//                                                                       [KX_ENGAGE_SERVICE_URL]
//   --timeout SECONDS    how long to wait for the token (default 30)   [KX_ENGAGE_TIMEOUT]
//   --verbose            the library's DEBUG lines on standard error
//   --help               this summary
//
// Exit status: 0 after a clean termination with a token, 1 when no token arrived in time or the
// configuration does not open with the key, 2 for a usage error.

#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/KXLog.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

struct Options {
    std::string config;
    std::string key;
    std::optional<std::string> tokenURL;
    std::optional<std::string> serviceURL;
    int timeoutSeconds = 30;
    bool verbose = false;
};

std::optional<std::string> environment(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') {
        return std::nullopt;
    }
    return std::string(value);
}

constexpr const char* kUsage =
    "usage: example_engage_app --config DIR/KXConfig.enc --key KEY [--token-url URL]\n"
    "                          [--service-url URL] [--timeout SECONDS] [--verbose]\n"
    "Engages the library as an application does and waits for its bearer token.\n"
    "Each option can also come from the environment: KX_ENGAGE_CONFIG, KX_ENGAGE_KEY,\n"
    "KX_ENGAGE_TOKEN_URL, KX_ENGAGE_SERVICE_URL, KX_ENGAGE_TIMEOUT.\n";

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
// application must not run with the wrong one); an example says so and exits instead.
bool configurationOpens(const Options& options) {
    std::ifstream in(options.config, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "engage_app: cannot read %s\n", options.config.c_str());
        return false;
    }
    const std::vector<std::uint8_t> sealed{std::istreambuf_iterator<char>(in),
                                           std::istreambuf_iterator<char>()};
    if (!KXConfig::openSealedConfiguration(sealed, options.key)) {
        std::fprintf(stderr,
                     "engage_app: %s does not open with the key: wrong key or damaged file\n",
                     options.config.c_str());
        return false;
    }
    return true;
}

bool parse(int argc, char** argv, Options& options) {
    std::map<std::string, std::optional<std::string>> values = {
        {"--config", environment("KX_ENGAGE_CONFIG")},
        {"--key", environment("KX_ENGAGE_KEY")},
        {"--token-url", environment("KX_ENGAGE_TOKEN_URL")},
        {"--service-url", environment("KX_ENGAGE_SERVICE_URL")},
        {"--timeout", environment("KX_ENGAGE_TIMEOUT")},
    };
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--verbose") {
            options.verbose = true;
            continue;
        }
        auto it = values.find(argument);
        if (it == values.end() || i + 1 >= argc) {
            std::fprintf(stderr, "engage_app: unknown option or missing value: %s\n", argv[i]);
            return false;
        }
        it->second = argv[++i];
    }
    if (!values["--config"] || !values["--key"]) {
        std::fprintf(stderr, "engage_app: --config and --key are required\n");
        return false;
    }
    options.config = *values["--config"];
    options.key = *values["--key"];
    options.tokenURL = values["--token-url"];
    options.serviceURL = values["--service-url"];
    if (values["--timeout"]) {
        try {
            options.timeoutSeconds = std::stoi(*values["--timeout"]);
        } catch (const std::exception&) {
            std::fprintf(stderr, "engage_app: --timeout takes whole seconds\n");
            return false;
        }
    }
    if (std::filesystem::path(options.config).filename() != "KXConfig.enc") {
        std::fprintf(stderr, "engage_app: the configuration file must be named KXConfig.enc\n");
        return false;
    }
    return true;
}

// The application's own delegate. It engages the library before the launch callback returns,
// as the library asks, and keeps implementing what it implements after the library's dispatcher
// took its place.
class AppDelegate final : public KXApplicationDelegate {
public:
    explicit AppDelegate(std::string key) : key_(std::move(key)) {}

    bool respondsTo(KXApplicationDelegateCallback callback) const override {
        using C = KXApplicationDelegateCallback;
        return callback == C::DidFinishLaunching || callback == C::WillTerminate ||
               KXApplicationDelegate::respondsTo(callback);
    }

    bool didFinishLaunching(KXApplication& /*application*/, const KXJSON& /*options*/) override {
        KXClientFramework::sharedManager().engageUsingKey(key_);
        return true;
    }

    void willTerminate(KXApplication& /*application*/) override { std::printf("terminating\n"); }

private:
    std::string key_;
};

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
        std::fprintf(stderr, "engage_app: %s\n", error.what());
        return 1;
    }
}

int run(const Options& options) {
    KXLinuxPlatformOptions platformOptions;
    platformOptions.applicationId = "com.example.engage";
    platformOptions.resourceDirectories = {std::filesystem::absolute(options.config).parent_path()};
    auto platform = std::make_shared<KXLinuxPlatform>(std::move(platformOptions));
    KXPlatform::install(platform);
    KXAsioMainQueue& mainQueue = *platform->asioMainQueue();
    KXApplication& application = platform->application();

    if (options.verbose) {
        KXClientFramework::setLogLevel(4);
    }
    KXServiceEndpoints endpoints = KXClientFramework::serviceEndpoints();
    if (options.tokenURL) {
        endpoints.stagingToken = *options.tokenURL;
        endpoints.productionToken = *options.tokenURL;
    }
    if (options.serviceURL) {
        endpoints.production = endpoints.test = endpoints.staging = endpoints.localServer =
            endpoints.development = *options.serviceURL;
    }
    KXClientFramework::setServiceEndpoints(endpoints);

    auto delegate = std::make_shared<AppDelegate>(options.key);
    application.setDelegate(delegate);

    // What the system does for an application: launch it, make it active, run its main loop.
    application.postEvent(KXApplicationEvent::DidFinishLaunching);
    application.postEvent(KXApplicationEvent::DidBecomeActive);

    const bool ready = mainQueue.runUntil(
        [] { return KXHTTPSessionManager::sharedManager().bearerToken() != nullptr; },
        std::chrono::seconds(options.timeoutSeconds));
    if (ready) {
        std::printf("token ready\n");
    } else {
        std::fprintf(stderr, "engage_app: no token within %d seconds\n", options.timeoutSeconds);
    }

    application.postEvent(KXApplicationEvent::WillResignActive);
    application.postEvent(KXApplicationEvent::DidEnterBackground);
    application.postEvent(KXApplicationEvent::WillTerminate);

    // The library has let go of the delegate slot.
    const bool restored = application.delegate() == delegate;
    std::printf("delegate restored: %s\n", restored ? "yes" : "no");
    std::fflush(stdout);
    return ready && restored ? 0 : 1;
}
