#pragma once

// A test platform, a loopback service that every endpoint points at, a transport with a token
// that does not expire, and helpers to run the main queue while the analytics engine talks to
// the service.

#include "KXCapturingSink.h"
#include "KXLoopbackService.h"
#include "KXServiceAddress.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXAnalytics.h>
#include <KXClientFramework/KXBearerToken.h>
#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXSession.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class KXAnalyticsTest : public ::testing::Test {
protected:
    static constexpr std::chrono::milliseconds kPatience{15000};
    static constexpr const char* kSessions = "/KXFrontier-stg/sessions";

    explicit KXAnalyticsTest(KXTestPlatformOptions options = {})
        : platform(KXTestPlatform::install(std::move(options))) {
        kxtest::pointServiceAt(service.baseURL());
        KXHTTPSessionManager::sharedManager().setBearerToken(
            std::make_shared<KXBearerToken>("test-token", std::nullopt));
        // Long enough that only the tick due at each resume fires during a test.
        KXConfig::defaultConfig().setAnalyticsSessionInterval(3600);
        kxLogLevel = 4;
    }

    ~KXAnalyticsTest() override {
        KXAnalytics::setEngaged(nullptr);
        engine.reset();
    }

    KXSession& session() { return KXSession::currentSession(); }

    /// An engine whose session is the shared one, in `state`, without an activation (and so
    /// without the timer).
    std::shared_ptr<KXAnalytics> engineInState(KXSessionState state) {
        engine = KXAnalytics::create();
        engine->setSession(&session());
        session().reset();
        session().setSessionState(state);
        return engine;
    }

    /// Scripts the session routes: each answer in turn for the start route, then for the
    /// update route of `sessionId`.
    void scriptStart(const std::vector<KXScriptedAnswer>& answers) {
        for (const auto& answer : answers) {
            service.script("POST", kSessions, answer);
        }
    }
    void scriptUpdate(const std::string& sessionId, const std::vector<KXScriptedAnswer>& answers) {
        for (const auto& answer : answers) {
            service.script("POST", std::string(kSessions) + "/" + sessionId, answer);
        }
    }
    static KXScriptedAnswer created(const std::string& identifier,
                                    std::chrono::milliseconds delay = {}) {
        KXScriptedAnswer answer = KXScriptedAnswer::empty(201);
        answer.headers = {{"newRecordId", identifier}};
        answer.delay = delay;
        return answer;
    }
    static KXScriptedAnswer failed() {
        return KXScriptedAnswer::json(500, KXJSON{{"message", "down"}});
    }

    /// The JSON bodies of the requests to `path`, in arrival order.
    std::vector<KXJSON> bodiesTo(const std::string& path) const {
        std::vector<KXJSON> bodies;
        for (const auto& request : service.requestsTo(path)) {
            bodies.push_back(KXJSON::parse(request.body, nullptr, false));
        }
        return bodies;
    }

    /// Runs the main queue until `done` holds (also for conditions other threads change).
    bool waitFor(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            platform->asioMainQueue().runFor(std::chrono::milliseconds(5));
        }
        return true;
    }
    /// Lets queued work and late answers arrive, to catch what should not happen.
    void drain(std::chrono::milliseconds period = std::chrono::milliseconds(150)) {
        platform->asioMainQueue().runFor(period);
    }

    std::shared_ptr<KXTestPlatform> platform;
    KXLoopbackService service;
    KXCapturingSink::Guard sink = KXCapturingSink::install();
    std::shared_ptr<KXAnalytics> engine;
};
