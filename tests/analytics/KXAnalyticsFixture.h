#pragma once

// The transport fixture with a token that does not expire, a captured log, and helpers to script
// the session routes while the analytics engine talks to the service.

#include "../transport/KXTransportFixture.h"

#include <KXClientFramework/KXAnalytics.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXSession.h>

#include <string>
#include <vector>

class KXAnalyticsTest : public KXTransportTest {
protected:
    static constexpr const char* kSessions = "/KXFrontier-stg/sessions";

    explicit KXAnalyticsTest(KXTestPlatformOptions options = {})
        : KXTransportTest(std::move(options)) {
        giveToken();
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
    void engineInState(KXSessionState state, std::optional<std::string> sessionId = {}) {
        engine = KXAnalytics::create();
        engine->setSession(&session());
        session().reset();
        session().setSessionState(state);
        session().setSessionId(std::move(sessionId));
    }

    /// The start route, or the update route of `sessionId`.
    static std::string route(const std::optional<std::string>& sessionId = {}) {
        return sessionId ? std::string(kSessions) + "/" + *sessionId : kSessions;
    }
    /// Queues each answer in turn for `path`.
    void script(const std::string& path, const std::vector<KXScriptedAnswer>& answers) {
        for (const auto& answer : answers) {
            service.script("POST", path, answer);
        }
    }
    static KXScriptedAnswer created(const std::string& identifier,
                                    std::chrono::milliseconds delay = {}) {
        KXScriptedAnswer answer = KXScriptedAnswer::empty(201);
        answer.headers = {{"newRecordId", identifier}};
        answer.delay = delay;
        return answer;
    }
    static KXScriptedAnswer failed() { return KXScriptedAnswer::json(500, {{"message", "down"}}); }

    /// The JSON bodies of the requests to `path`, in arrival order.
    std::vector<KXJSON> bodiesTo(const std::string& path) const {
        std::vector<KXJSON> bodies;
        for (const auto& request : service.requestsTo(path)) {
            bodies.push_back(KXJSON::parse(request.body, nullptr, false));
        }
        return bodies;
    }

    /// How many captured log lines contain `text`.
    std::size_t logCount(std::string_view text) const { return sink->linesContaining(text).size(); }

    KXCapturingSink::Guard sink = KXCapturingSink::install();
    std::shared_ptr<KXAnalytics> engine;
};
