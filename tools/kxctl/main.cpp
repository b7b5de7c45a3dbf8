// kxctl: drives the library from a shell. Opens the sealed configuration, starts the library
// the way an application does (launch event, engageUsingKey() from the application delegate,
// the bearer token), runs one command, prints JSON lines on standard output and terminates the
// application (WillTerminate).
//
// Exit status: 0 everything succeeded, 1 a service, token or configuration failure, 2 a usage
// error, 3 the --timeout ran out.

#include "KXCtlPlatform.h"

#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXLogSink.h>
#include <KXClientFramework/KXSessionManager.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;
constexpr int kTimedOut = 3;

struct Options {
    std::string configPath = "KXConfig.enc";
    std::string key;
    std::int64_t environment = 0;
    std::optional<std::string> businessUnit;
    std::vector<std::string> endpoints;
    double timeout = 30;
    bool verbose = false;

    std::string method;
    std::string path;
    std::optional<std::string> data;
    int repeat = 1;

    std::string deviceTokenHex;
};

/// A usage error found after parsing (exit status 2).
struct UsageError {
    std::string message;
};

/// A failure to report before anything was sent (exit status 1).
struct Failure {
    std::string message;
};

void printLine(const KXJSON& line) {
    std::cout << line.dump(-1, ' ', false, KXJSON::error_handler_t::replace) << '\n' << std::flush;
}

KXJSON errorLine(const KXError& error) {
    return {
        {"error", {{"domain", error.domain}, {"code", error.code}, {"userInfo", error.userInfo}}}};
}

KXServiceEndpoints parseEndpoints(const std::vector<std::string>& assignments) {
    KXServiceEndpoints endpoints;
    const std::map<std::string, std::string KXServiceEndpoints::*> fields = {
        {"production", &KXServiceEndpoints::production},
        {"test", &KXServiceEndpoints::test},
        {"staging", &KXServiceEndpoints::staging},
        {"local", &KXServiceEndpoints::localServer},
        {"development", &KXServiceEndpoints::development},
        {"production-token", &KXServiceEndpoints::productionToken},
        {"staging-token", &KXServiceEndpoints::stagingToken},
    };
    for (const std::string& assignment : assignments) {
        const std::size_t equals = assignment.find('=');
        const auto field = fields.find(assignment.substr(0, equals));
        if (equals == std::string::npos || field == fields.end() ||
            equals + 1 == assignment.size()) {
            throw UsageError{
                "--endpoint takes NAME=URL with NAME one of production, test, staging, "
                "local, development, production-token, staging-token: " +
                assignment};
        }
        endpoints.*(field->second) = assignment.substr(equals + 1);
    }
    return endpoints;
}

/// Opens the configuration with the key and makes it the library's configuration. The library's
/// own loader stops the process on a wrong key; here it is a clean failure.
void loadConfiguration(const Options& options) {
    std::ifstream file(options.configPath, std::ios::binary);
    if (!file) {
        throw Failure{"cannot read the configuration file " + options.configPath};
    }
    const std::vector<std::uint8_t> sealed((std::istreambuf_iterator<char>(file)),
                                           std::istreambuf_iterator<char>());
    const std::optional<KXJSON> configuration =
        KXConfig::openSealedConfiguration(sealed, options.key);
    if (!configuration || !configuration->is_object()) {
        throw Failure{"the configuration file " + options.configPath +
                      " does not open with this key"};
    }
    KXConfig::defaultConfig().applyConfiguration(*configuration);
}

std::optional<std::string> isoDate(const std::optional<KXBearerToken::Date>& date) {
    if (!date || *date == KXBearerToken::distantFuture()) {
        return std::nullopt;
    }
    const std::time_t seconds =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(*date));
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return std::string(text);
}

KXJSON answerLine(const KXHTTPResponse& response) {
    KXJSON headers = KXJSON::object();
    for (const auto& [name, value] : response.headers) {
        headers[name] = value;
    }
    return {{"status", response.statusCode},
            {"headers", headers},
            {"body", KXHTTPSessionManager::JSONObjectWithData(response.body)}};
}

/// Token bytes from hexadecimal text (two digits a byte, either case); absent when the text is
/// not that.
std::optional<std::vector<std::uint8_t>> bytesFromHex(const std::string& text) {
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'a' && c <= 'f') {
            return c - 'a' + 10;
        }
        if (c >= 'A' && c <= 'F') {
            return c - 'A' + 10;
        }
        return -1;
    };
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = digit(text[i]);
        const int low = digit(text[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return bytes;
}

/// The error of a line "Error Domain=D Code=C "text" UserInfo=JSON" (KXError::description()).
std::optional<KXError> errorFromDescription(std::string_view text) {
    constexpr std::string_view kDomain = "Error Domain=";
    constexpr std::string_view kCode = " Code=";
    constexpr std::string_view kUserInfo = " UserInfo=";
    const std::size_t domainAt = text.find(kDomain);
    if (domainAt == std::string_view::npos) {
        return std::nullopt;
    }
    const std::size_t codeAt = text.find(kCode, domainAt);
    const std::size_t userInfoAt = text.rfind(kUserInfo);
    if (codeAt == std::string_view::npos || userInfoAt == std::string_view::npos ||
        userInfoAt < codeAt) {
        return std::nullopt;
    }
    KXError error;
    error.domain =
        std::string(text.substr(domainAt + kDomain.size(), codeAt - domainAt - kDomain.size()));
    const std::string code(text.substr(codeAt + kCode.size()));
    error.code = std::strtoll(code.c_str(), nullptr, 10);
    const KXJSON userInfo =
        KXJSON::parse(text.substr(userInfoAt + kUserInfo.size()), nullptr, false);
    // The description writes an absent user info as {}.
    if (!userInfo.is_discarded() && !(userInfo.is_object() && userInfo.empty())) {
        error.userInfo = userInfo;
    }
    return error;
}

/// Passes every library log line on to standard error and notices the line with which the
/// library reports that engaging could not authenticate (the library reports it nowhere else).
class StartupWatcher final : public KXLogSink {
public:
    void write(std::string_view line) override {
        standardError_.write(line);
        constexpr std::string_view kTrouble = "] Error Zandrel had trouble starting.\n";
        const std::size_t at = line.find(kTrouble);
        if (at == std::string_view::npos) {
            return;
        }
        std::lock_guard lock(mutex_);
        failure_ = errorFromDescription(line.substr(at + kTrouble.size()))
                       .value_or(KXError::withMessage(std::string(line)));
    }

    std::optional<KXError> failure() const {
        std::lock_guard lock(mutex_);
        return failure_;
    }

private:
    KXStandardErrorSink standardError_;
    mutable std::mutex mutex_;
    std::optional<KXError> failure_;
};

/// kxctl's application delegate: engages the library while the application finishes
/// launching, as every application does.
class KXCtlAppDelegate final : public KXApplicationDelegate {
public:
    explicit KXCtlAppDelegate(std::string key) : key_(std::move(key)) {}

    bool respondsTo(KXApplicationDelegateCallback callback) const override {
        return callback == KXApplicationDelegateCallback::DidFinishLaunching ||
               KXApplicationDelegate::respondsTo(callback);
    }

    bool didFinishLaunching(KXApplication& /*application*/, const KXJSON& /*options*/) override {
        KXClientFramework::sharedManager().engageUsingKey(key_);
        return true;
    }

private:
    std::string key_;
};

/// Runs the command once the library is set up; calls `finish(status)` when it is over.
class Run {
public:
    Run(const Options& options, std::function<void(int)> finish)
        : options_(options), finish_(std::move(finish)) {}

    void engage() {
        KXClientFramework& manager = KXClientFramework::sharedManager();
        printLine({{"ready", true},
                   {"environment", manager.environment()},
                   {"baseURL", KXHTTPSessionManager::sharedManager().baseURL()},
                   {"basePath", KXSessionManager::kxBaseURI()},
                   {"backgroundNotificationEnabled", manager.backgroundNotificationEnabled()}});
        finish_(kSuccess);
    }

    void token() {
        const auto token = KXHTTPSessionManager::sharedManager().bearerToken();
        const std::optional<std::string> expiresAt =
            token ? isoDate(token->expirationDate()) : std::nullopt;
        printLine({{"token", token && token->token() ? KXJSON(*token->token()) : KXJSON()},
                   {"expiresAt", expiresAt ? KXJSON(*expiresAt) : KXJSON()}});
        finish_(kSuccess);
    }

    void call() { next(); }

    /// Hands the token to the application's delegate (the library's dispatcher), as the
    /// platform does after a registration, and prints the device data.
    void deviceToken(const std::vector<std::uint8_t>& token) {
        KXPlatform::current().application().deliverDeviceToken(token);
        printLine(KXDevice::currentDevice().deviceData());
        finish_(kSuccess);
    }

private:
    void next() {
        if (done_ == options_.repeat) {
            finish_(failed_ ? kFailure : kSuccess);
            return;
        }
        ++done_;
        KXHTTPSessionManager& transport = KXHTTPSessionManager::sharedManager();
        using Verb = void (KXHTTPSessionManager::*)(const std::string&, const KXJSON&,
                                                    KXHTTPSessionManager::SuccessBlock,
                                                    KXHTTPSessionManager::FailureBlock);
        static const std::map<std::string, Verb> verbs = {
            {"GET", &KXHTTPSessionManager::GET},
            {"POST", &KXHTTPSessionManager::POST},
            {"PUT", &KXHTTPSessionManager::PUT},
            {"DELETE", &KXHTTPSessionManager::DELETE},
        };
        const KXJSON parameters = options_.data ? KXJSON::parse(*options_.data) : KXJSON();
        (transport.*verbs.at(options_.method))(
            KXSessionManager::kxBaseURI() + options_.path, parameters,
            [this](std::shared_ptr<const KXHTTPResponse> response, const KXJSON&) {
                printLine(answerLine(*response));
                next();
            },
            [this](std::shared_ptr<const KXHTTPResponse>, const KXError& error) {
                printLine(errorLine(error));
                failed_ = true;
                next();
            });
    }

    const Options& options_;
    std::function<void(int)> finish_;
    int done_ = 0;
    bool failed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app{"kxctl: call the guest-messaging service through KXClientFramework"};
    app.require_subcommand(1);
    app.add_option("--config", options.configPath, "sealed configuration file")
        ->capture_default_str();
    app.add_option("--key", options.key, "the application key (default: $KX_APP_KEY)");
    app.add_option("--env", options.environment, "service environment")->capture_default_str();
    app.add_option("--business-unit", options.businessUnit, "business unit of the base path");
    app.add_option("--endpoint", options.endpoints,
                   "NAME=URL, NAME one of production, test, staging, local, development, "
                   "production-token, staging-token (repeatable)");
    app.add_option("--timeout", options.timeout, "give up after this many seconds (exit 3)")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_flag("-v", options.verbose, "library log at DEBUG on standard error");

    auto* engage = app.add_subcommand(
        "engage", "start the library as an application does and print where it is connected");
    auto* token = app.add_subcommand("token", "authenticate and print the bearer token");
    auto* call = app.add_subcommand("call", "send METHOD PATH (appended to the base path)");
    call->add_option("METHOD", options.method, "GET, POST, PUT or DELETE")
        ->required()
        ->check(CLI::IsMember({"GET", "POST", "PUT", "DELETE"}));
    call->add_option("PATH", options.path, "path below the base path, e.g. /guests/42")->required();
    call->add_option("--data", options.data, "JSON parameters (the request body)");
    call->add_option("--repeat", options.repeat, "send the request N times, one after another")
        ->check(CLI::PositiveNumber);
    auto* deviceToken = app.add_subcommand(
        "device-token", "hand a push token (hexadecimal) to the library and print the device data");
    deviceToken->add_option("HEX", options.deviceTokenHex, "the token bytes, e.g. 0a0b0c")
        ->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        app.exit(error);
        return kUsage;
    }

    try {
        if (options.key.empty()) {
            const char* fromEnvironment = std::getenv("KX_APP_KEY");
            if (fromEnvironment == nullptr || *fromEnvironment == '\0') {
                throw UsageError{"no key: pass --key or set KX_APP_KEY"};
            }
            options.key = fromEnvironment;
        }
        if (options.data) {
            const KXJSON parsed = KXJSON::parse(*options.data, nullptr, false);
            if (parsed.is_discarded()) {
                throw UsageError{"--data is not JSON: " + *options.data};
            }
        }
        const KXServiceEndpoints endpoints = parseEndpoints(options.endpoints);
        std::optional<std::vector<std::uint8_t>> deviceTokenBytes;
        if (deviceToken->parsed()) {
            deviceTokenBytes = bytesFromHex(options.deviceTokenHex);
            if (!deviceTokenBytes || deviceTokenBytes->empty()) {
                throw UsageError{"device-token takes hexadecimal bytes: " + options.deviceTokenHex};
            }
        }

        // The library would stop the process on a wrong key; checked here first, it is a clean
        // failure.
        loadConfiguration(options);

        auto watcher = std::make_shared<StartupWatcher>();
        KXLog::setSink(watcher);
        KXClientFramework::setLogging(true);
        KXClientFramework::setLogLevel(options.verbose ? 4 : 1);
        auto platform = std::make_shared<KXCtlPlatform>(options.configPath);
        KXPlatform::install(platform);
        KXAsioMainQueue& mainQueue = platform->asioMainQueue();
        KXApplication& application = platform->application();

        KXClientFramework::setServiceEndpoints(endpoints);
        KXClientFramework::setEnvironment(options.environment);
        if (options.businessUnit) {
            KXClientFramework::sharedManager().setBusinessUnit(options.businessUnit);
        }

        const auto deadline =
            std::chrono::steady_clock::now() +
            std::chrono::milliseconds(static_cast<std::int64_t>(options.timeout * 1000));
        auto runUntil = [&](const std::function<bool()>& done) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() > 0 && mainQueue.runUntil(done, left)) {
                return;
            }
            if (done()) {
                return;
            }
            std::cerr << "kxctl: no answer within " << options.timeout << " s\n";
            std::cout << std::flush;
            std::_Exit(kTimedOut);  // requests may still be under way; do not wait for them
        };

        // Start-up: the application launches, its delegate engages the library, the library
        // authenticates.
        application.setDelegate(std::make_shared<KXCtlAppDelegate>(options.key));
        application.postEvent(KXApplicationEvent::DidFinishLaunching);
        application.postEvent(KXApplicationEvent::DidBecomeActive);
        runUntil([&] {
            return KXHTTPSessionManager::sharedManager().bearerToken() != nullptr ||
                   watcher->failure().has_value();
        });

        std::optional<int> status;
        if (auto failure = watcher->failure();
            failure && !KXHTTPSessionManager::sharedManager().bearerToken()) {
            printLine(errorLine(*failure));
            status = kFailure;
        } else {
            Run run(options, [&status](int result) { status = result; });
            mainQueue.post([&] {
                if (engage->parsed()) {
                    run.engage();
                } else if (token->parsed()) {
                    run.token();
                } else if (deviceToken->parsed()) {
                    run.deviceToken(*deviceTokenBytes);
                } else {
                    run.call();
                }
            });
            runUntil([&] { return status.has_value(); });
        }

        // The application ends; the library gives the delegate slot back.
        application.postEvent(KXApplicationEvent::WillTerminate);
        return *status;
    } catch (const UsageError& error) {
        std::cerr << "kxctl: " << error.message << '\n';
        return kUsage;
    } catch (const Failure& failure) {
        std::cerr << "kxctl: " << failure.message << '\n';
        return kFailure;
    }
}
