#include "../transport/KXTransportFixture.h"

#include <KXClientFramework/KXAnalytics.h>
#include <KXClientFramework/KXAnalyticsManager.h>
#include <KXClientFramework/KXBackgroundTimer.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXSession.h>

#include "guest/internal/KXGuestAnalytics.h"

#include <atomic>
#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace {

const KXJSON kPush = R"({"aps": {"alert": "Happy hour"}, "kx": {"bcastId": "b-9"}})"_json;

}  // namespace

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

    ~KXAnalyticsTest() override { KXAnalytics::setEngaged(nullptr); }

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

    static std::string route(const std::optional<std::string>& sessionId = {}) {
        return sessionId ? std::string(kSessions) + "/" + *sessionId : kSessions;
    }
    static std::string route(KXSessionState state, const std::string& sessionId) {
        return state == KXSessionStateNew ? kSessions : route(sessionId);
    }
    void script(const std::string& path, const std::vector<KXScriptedAnswer>& answers) {
        for (const auto& answer : answers) {
            service.script("POST", path, answer);
        }
    }
    static KXScriptedAnswer failed() { return refused(500, "down"); }

    std::vector<KXJSON> bodiesTo(const std::string& path) const {
        std::vector<KXJSON> bodies;
        for (const auto& request : service.requestsTo(path)) {
            bodies.push_back(KXJSON::parse(request.body, nullptr, false));
        }
        return bodies;
    }

    std::size_t logCount(std::string_view text) const { return sink->linesContaining(text).size(); }

    KXCapturingSink::Guard sink = KXCapturingSink::install();
    std::shared_ptr<KXAnalytics> engine;
};

TEST_F(KXAnalyticsTest, AFailedPostIsTriedThreeTimesInAllThenFailsOnce) {
    const struct {
        KXSessionState state;
        std::vector<KXScriptedAnswer> answers;
        std::size_t attempts;
        bool succeeds;
    } cases[] = {
        {KXSessionStateOpen, {failed(), failed(), failed()}, 3, false},
        {KXSessionStateOpen, {created("")}, 0, true},
        {KXSessionStateNew, {failed(), failed(), failed()}, 3, false},
        {KXSessionStateNew, {failed(), failed(), created("s-2")}, 2, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        engineInState(c.state, "s-r");
        const std::string path = route(c.state, "s-r");
        script(path, c.answers);
        sink->clear();
        KXEventLog events;
        engine->post([&](const std::optional<std::string>&) { events.succeeded(); },
                     events.failure());
        waitForEvents(events, 1);
        drain(150ms);
        EXPECT_EQ(events.seen,
                  std::vector<std::string>{c.succeeds ? "success" : "failure:500:down"});
        EXPECT_EQ(logCount("Attempt # "), c.attempts);
        EXPECT_EQ(logCount("\n\nAttempt # " + std::to_string(c.attempts) + " failed.\n\n"),
                  c.attempts > 0 ? 1U : 0U);
        EXPECT_EQ(logCount("\n\nAnalytics data sent to KX.\n\n"), c.succeeds ? 1U : 0U);
        EXPECT_EQ(logCount("Analytics data not sent to KX. Error: "), c.attempts);
        // Each attempt rebuilds the document the session's state asks for.
        for (const KXJSON& body : bodiesTo(path)) {
            EXPECT_EQ(body.contains("isClosed"), c.state != KXSessionStateNew);
            EXPECT_EQ(body.contains("deviceData"), c.state == KXSessionStateNew);
        }
    }
    // Only an activation's own start opens the session: a start posted otherwise, even one
    // that succeeded, leaves it new.
    EXPECT_EQ(session().sessionState(), KXSessionStateNew);
}

TEST_F(KXAnalyticsTest, PushesAreHandledByTheApplicationsState) {
    const std::string payload = R"({"aps":{"alert":"Happy hour"},"kx":{"bcastId":"b-9"}})";
    const struct {
        KXApplicationState state;
        bool triggering, received, payloadKept;
        std::string log;
    } cases[] = {
        {KXApplicationState::Inactive, true, false, false,
         "Application launched from push: " + payload + ", applicationState: Inactive"},
        {KXApplicationState::Active, false, true, false,
         "Application running and received push: " + payload + ", applicationState: Active"},
        {KXApplicationState::Background, false, false, true, ""},
    };
    engineInState(KXSessionStateOpen);
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.state));
        session().setBroadcast(nullptr);
        session().remoteBroadcastIds()->clear();
        sink->clear();
        engine->handleNotification(kPush, c.state);
        EXPECT_EQ(session().broadcast() != nullptr, c.triggering);
        EXPECT_EQ(session().remoteBroadcastIds()->size(), c.received ? 1U : 0U);
        EXPECT_EQ(engine->notificationUserInfo() == kPush, c.payloadKept);
        EXPECT_EQ(logCount(c.log), c.log.empty() ? 0U : 1U);  // "" is in every line
    }
    // The kept payload's identifier goes to the next broadcast made, once.
    EXPECT_EQ(engine->newBroadcast()->broadcastId(), "b-9");
    EXPECT_TRUE(engine->newBroadcast()->broadcastId().is_null());
    // The identifier is the kx object's bcastId when that is a scalar.
    const std::pair<const char*, KXJSON> identifiers[] = {
        {R"({"kx": {"bcastId": 1234}})", 1234},
        {R"({"kx": "b-9"})", nullptr},
        {R"({"kx": {"bcastId": {"nested": 1}}})", nullptr},
        {R"(["kx"])", nullptr},
    };
    for (const auto& [text, identifier] : identifiers) {
        const KXJSON push = KXJSON::parse(text);
        EXPECT_EQ(KXAnalytics::parseBroadcastId(push), identifier) << text;
        engine->handleNotification(push, KXApplicationState::Active);
        EXPECT_EQ(session().remoteBroadcastIds()->back()->broadcastId(), identifier) << text;
    }
}

TEST_F(KXAnalyticsTest, AGuestChangePostsThroughTheEngagedEngineWithItsTimerStopped) {
    const struct {
        KXSessionState state;
        KXScriptedAnswer answer;
        bool succeeds;
    } cases[] = {
        {KXSessionStateOpen, created(""), true},
        {KXSessionStateOpen, failed(), false},
        {KXSessionStateEnded, created(""), true},
        {KXSessionStateNew, created("s-new"), true},
    };
    engineInState(KXSessionStateOpen, "s-g");
    KXAnalytics::setEngaged(engine);  // the guest operations post through the engaged engine
    script(route("s-g"), {created("")});
    engine->startTimer();  // its first tick is due at once; let it pass
    ASSERT_TRUE(
        waitFor([&] { return service.requests().size() == 1 && !engine->isTimerTickPending(); }));
    drain(150ms);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.state);
        session().setSessionState(c.state);
        session().setSessionId("s-g");
        session().setClosed(c.state == KXSessionStateEnded);
        session().remoteBroadcastIds()->clear();
        engine->handleNotification(kPush, KXApplicationState::Active);
        script(route(c.state, "s-g"), {c.answer});
        const std::size_t before = service.requests().size();
        sink->clear();
        KXEventLog events;
        kxPostCurrentAnalyticsSession(events.done(), events.failure());
        EXPECT_TRUE(engine->backgroundTimer()->isRunning());
        const auto lines = sink->lines();
        ASSERT_GE(lines.size(), 3U);
        EXPECT_NE(lines[0].find("\n\nSending data to KX due to guest change.\n\n"),
                  std::string::npos);
        EXPECT_NE(lines[1].find("\n\nStopping timer.\n\n"), std::string::npos);
        EXPECT_NE(lines.back().find("\n\nStarting timer.\n\n"), std::string::npos);
        waitForEvents(events, 1);
        drain(150ms);
        EXPECT_EQ(events.seen,
                  std::vector<std::string>{c.succeeds ? "success" : "failure:500:down"});
        EXPECT_EQ(session().remoteBroadcastIds()->empty(), c.succeeds);
        // Restarting the timer did not make another tick due: only the guest-change post went.
        EXPECT_EQ(service.requests().size() - before, c.succeeds ? 1U : 3U);
        EXPECT_EQ(bodiesTo(route(c.state, "s-g")).back().value("isClosed", false),
                  c.state == KXSessionStateEnded);
    }
    EXPECT_EQ(session().sessionState(), KXSessionStateNew);
    EXPECT_EQ(session().sessionId(), "s-g");
    const std::size_t sent = service.requests().size();
    KXAnalytics::setEngaged(nullptr);
    kxPostCurrentAnalyticsSession([] { ADD_FAILURE() << "posted without an engaged engine"; }, {});
    drain(150ms);
    EXPECT_EQ(service.requests().size(), sent);
}

TEST_F(KXAnalyticsTest, TimerTicksPostUpdatesFromTheBackgroundQueueUntilTheEngineIsGone) {
    KXConfig::defaultConfig().setAnalyticsSessionInterval(1);
    engineInState(KXSessionStateOpen, "s-t");
    script(route("s-t"), {created("")});
    engine->startTimer();
    // The interval is the configuration's when the timer was made.
    KXConfig::defaultConfig().setAnalyticsSessionInterval(90);
    engine->stopTimer();
    engine->startTimer();
    EXPECT_EQ(engine->backgroundTimer()->interval(), 1.0);
    // Pushes arrive on the main thread while ticks come from the background queue.
    std::atomic<int> handled{0};
    for (int i = 0; i < 20; ++i) {
        platform->mainQueue().postAfter(std::chrono::milliseconds(100 * i), [&] {
            engine->handleNotification(kPush, KXApplicationState::Active);
            ++handled;
        });
    }
    ASSERT_TRUE(
        waitFor([&] { return service.requestsTo(route("s-t")).size() >= 3 && handled == 20; }));
    engine.reset();
    const std::size_t sent = service.requestsTo(route("s-t")).size();
    drain(1500ms);
    EXPECT_LE(service.requestsTo(route("s-t")).size(), sent + 1);  // at most the one queued
}

TEST_F(KXAnalyticsTest, AHostileRecordIdentifierIsNotUsedInTheSessionsURL) {
    const std::vector<std::string> usable = {"s-1", "AbC_9.~", std::string(256, 'x')};
    std::vector<std::string> hostile = {"",    ".",     "..",  "a/b",  "a?b",
                                        "a#b", "a%2Fb", "a b", "a\\b", "\xc3\xa9"};
    hostile.push_back(std::string(257, 'x'));
    for (const auto& identifier : usable) {
        EXPECT_TRUE(KXAnalyticsManager::isUsableSessionIdentifier(identifier)) << identifier;
    }
    for (const auto& identifier : hostile) {
        EXPECT_FALSE(KXAnalyticsManager::isUsableSessionIdentifier(identifier)) << identifier;
    }
    engineInState(KXSessionStateNew);
    script(route(), {created("../guests/1")});
    engine->start();
    ASSERT_TRUE(waitFor([&] { return session().sessionState() == KXSessionStateOpen; }));
    EXPECT_FALSE(session().sessionId());
    EXPECT_EQ(logCount("ERROR"), 1U);
}

// The session through the application's life, as the platform posts the events.
class AnalyticsLifeCycle : public KXAnalyticsTest {
protected:
    static KXTestPlatformOptions options() {
        KXTestPlatformOptions options;
        options.backgroundTimeLimit = 1500ms;
        options.infoDictionary = {{"CFBundleVersion", "77"}};
        return options;
    }
    AnalyticsLifeCycle() : KXAnalyticsTest(options()) { engine = KXAnalytics::create(); }
    KXApplication& application() { return platform->application(); }
};

TEST_F(AnalyticsLifeCycle, ActivationPostsTheStartTwiceAndTheActivationsAnswerNamesTheSession) {
    EXPECT_EQ(engine->packageVersion(), "77");
    clock.set(std::chrono::system_clock::time_point(1592224496s));
    // The activation's start goes out first, the tick's (from the main queue) while the session
    // is still new. Only the activation's answer names and opens the session.
    script(route(), {created("start-id", 200ms), created("tick-id")});
    application().postEvent(KXApplicationEvent::DidBecomeActive);
    ASSERT_TRUE(service.waitForRequests(1, 5s));  // before the main queue runs the tick
    ASSERT_TRUE(waitFor([&] { return service.requestsTo(kSessions).size() == 2; }));
    drain(700ms);
    EXPECT_EQ(session().sessionState(), KXSessionStateOpen);
    EXPECT_EQ(session().sessionId(), "start-id");
    const std::vector<KXJSON> starts = bodiesTo(kSessions);
    EXPECT_EQ(starts[0], starts[1]);
    EXPECT_EQ(starts[0]["time"], "1592224440");
    EXPECT_EQ(starts[0]["deviceData"], KXDevice::currentDevice().deviceData());
    // The background ends the session under a background task: the end document, then the task
    // left to expire after the successful post.
    script(route("start-id"), {created("")});
    application().postEvent(KXApplicationEvent::WillResignActive);
    clock.set(std::chrono::system_clock::time_point(1592228096s));
    application().postEvent(KXApplicationEvent::DidEnterBackground);
    EXPECT_FALSE(engine->backgroundTimer()->isRunning());
    ASSERT_TRUE(waitFor([&] { return application().backgroundTaskCount() == 0; }));
    EXPECT_EQ(bodiesTo(route("start-id")),
              (std::vector<KXJSON>{{{"time", "1592228040"}, {"isClosed", true}}}));
    for (const char* text : {"Application did become active.", "\n\nNew session started.\n\n",
                             "\n\nStarting timer.\n\n", "\n\nSession timer exceeded.\n\n",
                             "KXSession Started: start-id", "Application will resign active.",
                             "Enter Background.", "Background handler called."}) {
        EXPECT_EQ(logCount(text), 1U) << text;
    }
}

TEST_F(AnalyticsLifeCycle, AnEndWithoutAStartedSessionGoesToAnEmptyIdentifier) {
    // Before the first activation there is no session: nothing is sent and no block runs.
    KXEventLog events;
    engine->sessionTimerExceeded();
    engine->postCurrentSessionWithSuccess(events.done(), events.failure());
    application().postEvent(KXApplicationEvent::WillEnterForeground);
    EXPECT_EQ(logCount("Enter Foreground."), 1U);
    drain(150ms);
    EXPECT_TRUE(service.requests().empty());
    EXPECT_TRUE(events.seen.empty());
    script(route(), {failed()});
    script(route(""), {failed()});
    application().postEvent(KXApplicationEvent::DidBecomeActive);
    ASSERT_TRUE(waitFor([&] { return logCount("Attempt # ") >= 3; }));
    drain(300ms);
    EXPECT_EQ(session().sessionState(), KXSessionStateNew);
    const auto entered = std::chrono::steady_clock::now();
    application().postEvent(KXApplicationEvent::DidEnterBackground);
    ASSERT_TRUE(waitFor([&] { return application().backgroundTaskCount() == 0; }));
    // The failed end ended its task at once, long before the 1.5 s time limit.
    EXPECT_LT(std::chrono::steady_clock::now() - entered, 1s);
    const std::vector<KXJSON> ends = bodiesTo(route(""));
    ASSERT_EQ(ends.size(), 3U);
    EXPECT_EQ(ends[2]["isClosed"], true);
    // A released engine no longer follows the application.
    const std::size_t sent = service.requests().size();
    engine.reset();
    application().postEvent(KXApplicationEvent::DidBecomeActive);
    drain(300ms);
    EXPECT_EQ(service.requests().size(), sent);
}
