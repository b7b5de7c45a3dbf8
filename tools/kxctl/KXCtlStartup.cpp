#include "KXCtlStartup.h"

#include "KXCtlArguments.h"
#include "KXCtlHints.h"
#include "KXCtlPlatform.h"

#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXLogSink.h>
#include <KXClientFramework/KXTransportActivity.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>

namespace kxctl {
namespace {

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
    KXJSON configuration;
    if (auto problem = configurationProblem(options.configPath, options.key, configuration)) {
        throw Failure{*problem};
    }
    KXConfig::defaultConfig().applyConfiguration(configuration);
}

/// kxctl's application delegate: engages the library while the application finishes
/// launching, as every application does. Like a current application it takes remote
/// notifications with a completion handler (it has no work of its own for them), so the
/// library's delegate receives them whatever the information dictionary declares.
class KXCtlAppDelegate final : public KXApplicationDelegate {
public:
    KXCtlAppDelegate(std::string key, std::function<void(const std::string&)> engage)
        : key_(std::move(key)), engage_(std::move(engage)) {}

    bool respondsTo(KXApplicationDelegateCallback callback) const override {
        return callback == KXApplicationDelegateCallback::DidFinishLaunching ||
               callback == KXApplicationDelegateCallback::
                               DidReceiveRemoteNotificationWithCompletionHandler ||
               KXApplicationDelegate::respondsTo(callback);
    }

    void didReceiveRemoteNotification(
        KXApplication& /*application*/, const KXJSON& /*userInfo*/,
        std::function<void(KXBackgroundFetchResult)> completionHandler) override {
        completionHandler(KXBackgroundFetchResult::NoData);
    }

    bool didFinishLaunching(KXApplication& /*application*/, const KXJSON& /*options*/) override {
        if (engage_) {
            engage_(key_);
        } else {
            KXClientFramework::sharedManager().engageUsingKey(key_);
        }
        return true;
    }

private:
    std::string key_;
    std::function<void(const std::string&)> engage_;
};

std::string keyFromEnvironment() {
    const char* fromEnvironment = std::getenv("KX_APP_KEY");
    if (fromEnvironment == nullptr || *fromEnvironment == '\0') {
        throw UsageError{"no key: pass --key or set KX_APP_KEY"};
    }
    return fromEnvironment;
}

}  // namespace

int startAndRun(Options options, const Command& command) {
    if (options.key.empty()) {
        options.key = keyFromEnvironment();
    }
    if (command.validate) {
        command.validate();
    }
    KXJSON launchOptions = command.launchOptions;
    if (options.launchNotification) {
        if (!launchOptions.is_object()) {
            launchOptions = KXJSON::object();
        }
        launchOptions[UIApplicationLaunchOptionsRemoteNotificationKey] =
            parseNotificationArgument("--launch-notification", *options.launchNotification);
    }
    const KXServiceEndpoints endpoints = parseEndpoints(options.endpoints);

    // The library would stop the process on a wrong key; checked here first, it is a clean
    // failure.
    loadConfiguration(options);
    if (auto problem = environmentProblem(options.environment, options.businessUnit.has_value(),
                                          KXConfig::defaultConfig().inProduction())) {
        throw UsageError{*problem};
    }

    // How engaging's authentication ended, told by the library on the main queue.
    std::optional<std::optional<KXError>> authentication;
    KXClientFramework::setEngagementAuthenticationHandler(
        [&authentication](const std::optional<KXError>& error) { authentication = error; });
    KXLog::setSink(std::make_shared<KXStandardErrorSink>());
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
    // Runs the main queue in short slices: a request may also end off the main thread (a
    // completion nobody waits for), which posts nothing that would wake the queue.
    auto runUntil = [&](const std::function<bool()>& done) {
        constexpr std::chrono::milliseconds kSlice{20};
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (done()) {
                return;
            }
            if (left.count() <= 0) {
                break;
            }
            if (mainQueue.runUntil(done, std::min(left, kSlice))) {
                return;
            }
        }
        const bool haveToken = KXHTTPSessionManager::sharedManager().bearerToken() != nullptr;
        std::cerr << "kxctl: " << timeoutReason(options.timeout, haveToken);
        if (haveToken && KXTransportActivity::requestsWaitingForToken() > 0) {
            std::cerr << ": a request is still waiting for a bearer token (the token endpoint "
                         "answered without one it could read)";
        }
        std::cerr << '\n';
        std::cout << std::flush;
        std::_Exit(kTimedOut);  // requests may still be under way; do not wait for them
    };

    // Start-up: the application launches, its delegate engages the library (the library's
    // launch handler runs once that callback has returned), the library authenticates.
    application.setDelegate(std::make_shared<KXCtlAppDelegate>(options.key, command.engage));
    application.postEvent(KXApplicationEvent::DidFinishLaunching, launchOptions);
    if (command.becomesActive) {
        application.postEvent(KXApplicationEvent::DidBecomeActive);
    }
    runUntil([&] {
        return authentication.has_value() ||
               KXHTTPSessionManager::sharedManager().bearerToken() != nullptr;
    });

    int status = kSuccess;
    if (authentication && *authentication && !KXHTTPSessionManager::sharedManager().bearerToken()) {
        printLine(errorLine(**authentication));
        status = kFailure;
    } else {
        Run run(options, mainQueue, application);
        mainQueue.post([&] { command.start(run); });
        // The command is over when the library is idle and no step waits for that.
        for (;;) {
            runUntil([&] { return run.libraryIsIdle(); });
            std::optional<std::function<void()>> step = run.takeIdleStep();
            if (!step) {
                break;
            }
            mainQueue.post(std::move(*step));
        }
        status = run.failed() ? kFailure : kSuccess;
    }

    // The application ends; the library gives the delegate slot back.
    application.postEvent(KXApplicationEvent::WillTerminate);
    KXClientFramework::setEngagementAuthenticationHandler(nullptr);
    return status;
}

}  // namespace kxctl
