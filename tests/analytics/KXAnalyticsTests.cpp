// The analytics engine against the loopback service: the retry rule, the session's states
// through the application's life, pushes, the guest-change post and the session timer.
#include "KXAnalyticsFixture.h"

#include <KXClientFramework/KXAnalyticsManager.h>
#include <KXClientFramework/KXBackgroundTimer.h>
#include <KXClientFramework/KXDevice.h>

#include "guest/internal/KXGuestAnalytics.h"

#include <algorithm>
#include <atomic>

using namespace std::chrono_literals;

namespace {

const KXJSON kPush = {{"aps", {{"alert", "Happy hour"}}}, {"kx", {{"bcastId", "b-9"}}}};

std::vector<std::string> attemptLines(const KXCapturingSink& sink) {
    std::vector<std::string> numbers;
    for (const auto& line : sink.linesContaining("Attempt # ")) {
        const auto at = line.find("Attempt # ");
        numbers.push_back(line.substr(at + 10, line.find(' ', at + 10) - at - 10));
    }
    return numbers;
}

struct Outcome {
    int successes = 0;
    int failures = 0;
};

}  // namespace

TEST_F(KXAnalyticsTest, AFailedPostIsTriedThreeTimesInAllThenFailsOnce) {
    struct Case {
        KXSessionState state;
        std::vector<KXScriptedAnswer> answers;
        std::vector<std::string> attempts;
        Outcome outcome;
    };
    const std::vector<Case> cases = {
        {KXSessionStateOpen, {failed(), failed(), failed()}, {"1", "2", "3"}, {0, 1}},
        {KXSessionStateOpen, {failed(), created("")}, {"1"}, {1, 0}},
        {KXSessionStateOpen, {created("")}, {}, {1, 0}},
        {KXSessionStateNew, {failed(), failed(), failed()}, {"1", "2", "3"}, {0, 1}},
        {KXSessionStateNew, {failed(), failed(), created("s-2")}, {"1", "2"}, {1, 0}},
    };
    int caseNumber = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(caseNumber);
        const std::string sessionId = "s-" + std::to_string(caseNumber++);
        engineInState(c.state);
        session().setSessionId(sessionId);
        const std::string path =
            c.state == KXSessionStateNew ? kSessions : std::string(kSessions) + "/" + sessionId;
        for (const auto& answer : c.answers) {
            service.script("POST", path, answer);
        }
        const std::size_t before = service.requestsTo(path).size();
        sink->clear();
        Outcome outcome;
        engine->post([&](const std::optional<std::string>&) { ++outcome.successes; },
                     [&](const KXError& error) {
                         ++outcome.failures;
                         EXPECT_EQ(error.code, 500);
                     });
        ASSERT_TRUE(waitFor([&] { return outcome.successes + outcome.failures > 0; }));
        drain();
        EXPECT_EQ(outcome.successes, c.outcome.successes);
        EXPECT_EQ(outcome.failures, c.outcome.failures);
        EXPECT_EQ(attemptLines(*sink.sink), c.attempts);
        EXPECT_EQ(service.requestsTo(path).size() - before, c.answers.size());
        EXPECT_EQ(sink->linesContaining("\n\nAnalytics data sent to KX.\n\n").size(),
                  static_cast<std::size_t>(c.outcome.successes));
        EXPECT_EQ(sink->linesContaining("Analytics data not sent to KX. Error: ").size(),
                  c.attempts.size());
        // Each attempt rebuilds the document the session's state asks for.
        for (const auto& request : service.requestsTo(path)) {
            const KXJSON body = KXJSON::parse(request.body);
            EXPECT_EQ(body.contains("isClosed"), c.state != KXSessionStateNew);
            EXPECT_EQ(body.contains("deviceData"), c.state == KXSessionStateNew);
        }
    }
    // Only an activation's own start opens the session: a start posted otherwise, even one
    // that succeeded, leaves it new.
    EXPECT_EQ(session().sessionState(), KXSessionStateNew);
}

TEST_F(KXAnalyticsTest, WithoutABegunSessionNothingIsSentAndNoBlockRuns) {
    Outcome outcome;
    auto success = [&] { ++outcome.successes; };
    auto failure = [&](const KXError&) { ++outcome.failures; };
    engine = KXAnalytics::create();  // no activation yet: no session at all
    engine->sessionTimerExceeded();
    engine->postCurrentSessionWithSuccess(success, failure);
    engine->end();
    engineInState(KXSessionStateNone);  // the shared session, never begun
    engine->sessionTimerExceeded();
    engine->postCurrentSessionWithSuccess(success, failure);
    drain(300ms);
    EXPECT_TRUE(service.requests().empty());
    EXPECT_EQ(outcome.successes + outcome.failures, 0);
}

TEST_F(KXAnalyticsTest, PushesAreHandledByTheApplicationsState) {
    struct Case {
        KXApplicationState state;
        bool triggering;
        bool received;
        bool payloadKept;
        const char* log;
    };
    const std::vector<Case> cases = {
        {KXApplicationState::Inactive, true, false, false,
         "Application launched from push: {\"aps\":{\"alert\":\"Happy hour\"},\"kx\":{\"bcastId\":"
         "\"b-9\"}}, applicationState: Inactive"},
        {KXApplicationState::Active, false, true, false,
         "Application running and received push: {\"aps\":{\"alert\":\"Happy hour\"},\"kx\":{"
         "\"bcastId\":\"b-9\"}}, applicationState: Active"},
        {KXApplicationState::Background, false, false, true, nullptr},
    };
    engineInState(KXSessionStateOpen);
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.state));
        session().setBroadcast(nullptr);
        session().remoteBroadcastIds()->clear();
        sink->clear();
        engine->handleNotification(kPush, c.state);
        EXPECT_EQ(session().broadcast() != nullptr, c.triggering);
        EXPECT_EQ(session().remoteBroadcastIds()->size(), c.received ? 1u : 0u);
        EXPECT_EQ(engine->notificationUserInfo() == kPush, c.payloadKept);
        EXPECT_EQ(sink->lines().size(), c.log != nullptr ? 1u : 0u);
        if (c.log != nullptr) {
            EXPECT_EQ(sink->linesContaining(c.log).size(), 1u);
        }
    }
    // The kept payload's identifier goes to the next broadcast made, once.
    EXPECT_EQ(engine->newBroadcast()->broadcastId(), "b-9");
    EXPECT_TRUE(engine->newBroadcast()->broadcastId().is_null());
    // The triggering broadcast is what the next start document names.
    engine->handleNotification(kPush, KXApplicationState::Inactive);
    EXPECT_EQ(session().startSessionData()["triggeringBroadcastId"], "b-9");
}

TEST_F(KXAnalyticsTest, TheBroadcastIdentifierIsTheKXObjectsBcastIdWhenItIsAScalar) {
    const std::vector<std::pair<KXJSON, KXJSON>> cases = {
        {kPush, "b-9"},
        {{{"kx", {{"bcastId", 1234}}}}, 1234},
        {{{"aps", {{"alert", "hi"}}}}, nullptr},
        {{{"kx", "b-9"}}, nullptr},
        {{{"kx", {{"bcastId", {{"nested", 1}}}}}}, nullptr},
        {{{"kx", {{"bcastId", nullptr}}}}, nullptr},
        {KXJSON::array({"kx"}), nullptr},
        {"kx", nullptr},
    };
    engineInState(KXSessionStateOpen);
    for (const auto& [payload, identifier] : cases) {
        EXPECT_EQ(KXAnalytics::parseBroadcastId(payload), identifier) << payload.dump();
        engine->handleNotification(payload, KXApplicationState::Active);
        EXPECT_EQ(session().remoteBroadcastIds()->back()->broadcastId(), identifier);
        EXPECT_TRUE(engine->notificationUserInfo().is_null());
    }
}

TEST_F(KXAnalyticsTest, ReceivedBroadcastsAreEmptiedOnlyAfterASuccessfulUpdate) {
    engineInState(KXSessionStateOpen);
    session().setSessionId("s-1");
    engine->handleNotification(kPush, KXApplicationState::Active);
    engine->handleNotification({{"kx", {{"bcastId", 77}}}}, KXApplicationState::Active);
    scriptUpdate("s-1", {failed(), failed(), failed(), created(""), created("")});
    const std::string path = std::string(kSessions) + "/s-1";

    engine->sessionTimerExceeded();
    ASSERT_TRUE(waitFor([&] { return attemptLines(*sink.sink).size() == 3; }));
    EXPECT_EQ(session().remoteBroadcastIds()->size(), 2u);

    engine->sessionTimerExceeded();
    ASSERT_TRUE(waitFor([&] { return session().remoteBroadcastIds()->empty(); }));
    engine->sessionTimerExceeded();
    ASSERT_TRUE(waitFor([&] { return service.requestsTo(path).size() == 5; }));

    const std::vector<KXJSON> bodies = bodiesTo(path);
    for (std::size_t i = 0; i < 4; ++i) {
        ASSERT_TRUE(bodies[i].contains("receivedBroadcasts")) << i;
        EXPECT_EQ(bodies[i]["receivedBroadcasts"].size(), 2u);
        EXPECT_EQ(bodies[i]["receivedBroadcasts"][1]["broadcastId"], 77);
        EXPECT_EQ(bodies[i]["isClosed"], false);
    }
    EXPECT_FALSE(bodies[4].contains("receivedBroadcasts"));
}

TEST_F(KXAnalyticsTest, TheGuestChangePostsWithTheTimerStoppedAndRestarts) {
    struct Case {
        KXSessionState state;
        KXScriptedAnswer answer;
        bool succeeds;
    };
    const std::vector<Case> cases = {
        {KXSessionStateOpen, created(""), true},
        {KXSessionStateOpen, failed(), false},
        {KXSessionStateEnded, created(""), true},
        {KXSessionStateNew, created("s-new"), true},
    };
    engineInState(KXSessionStateOpen);
    session().setSessionId("s-g");
    scriptUpdate("s-g", {created("")});
    engine->startTimer();  // its first tick is due at once; let it pass
    ASSERT_TRUE(
        waitFor([&] { return service.requests().size() == 1 && !engine->isTimerTickPending(); }));
    drain();

    for (const auto& c : cases) {
        SCOPED_TRACE(c.state);
        session().setSessionState(c.state);
        session().setSessionId("s-g");
        session().setClosed(c.state == KXSessionStateEnded);
        session().remoteBroadcastIds()->clear();
        engine->handleNotification(kPush, KXApplicationState::Active);
        const std::string path =
            c.state == KXSessionStateNew ? kSessions : std::string(kSessions) + "/s-g";
        service.script("POST", path, c.answer);
        const std::size_t before = service.requests().size();
        sink->clear();

        Outcome outcome;
        engine->postCurrentSessionWithSuccess([&] { ++outcome.successes; },
                                              [&](const KXError&) { ++outcome.failures; });
        EXPECT_TRUE(engine->backgroundTimer()->isRunning());
        const auto lines = sink->lines();
        ASSERT_GE(lines.size(), 3u);
        EXPECT_NE(lines[0].find("\n\nSending data to KX due to guest change.\n\n"),
                  std::string::npos);
        EXPECT_NE(lines[1].find("\n\nStopping timer.\n\n"), std::string::npos);
        EXPECT_NE(lines.back().find("\n\nStarting timer.\n\n"), std::string::npos);

        ASSERT_TRUE(waitFor([&] { return outcome.successes + outcome.failures > 0; }));
        drain();
        EXPECT_EQ(outcome.successes, c.succeeds ? 1 : 0);
        EXPECT_EQ(outcome.failures, c.succeeds ? 0 : 1);
        EXPECT_EQ(session().remoteBroadcastIds()->empty(), c.succeeds);
        // Restarting the timer did not make another tick due: only the guest-change post went.
        EXPECT_EQ(service.requests().size() - before, c.succeeds ? 1u : 3u);
        const KXJSON body = KXJSON::parse(service.requests().back().body);
        EXPECT_EQ(body.value("isClosed", false), c.state == KXSessionStateEnded);
    }
    EXPECT_EQ(session().sessionState(), KXSessionStateNew);
    EXPECT_EQ(session().sessionId(), "s-g");
}

TEST_F(KXAnalyticsTest, TheIntervalIsTheConfigurationsAtTheTimersCreation) {
    engineInState(KXSessionStateNone);
    KXConfig::defaultConfig().setAnalyticsSessionInterval(1000);
    engine->startTimer();
    KXConfig::defaultConfig().setAnalyticsSessionInterval(90);
    engine->stopTimer();
    EXPECT_FALSE(engine->backgroundTimer()->isRunning());
    engine->startTimer();
    EXPECT_TRUE(engine->backgroundTimer()->isRunning());
    EXPECT_EQ(engine->backgroundTimer()->interval(), 1000.0);
}

TEST_F(KXAnalyticsTest, TimerTicksPostUpdatesFromTheBackgroundQueueUntilTheEngineIsGone) {
    KXConfig::defaultConfig().setAnalyticsSessionInterval(1);
    engineInState(KXSessionStateOpen);
    session().setSessionId("s-t");
    scriptUpdate("s-t", {created("")});
    const std::string path = std::string(kSessions) + "/s-t";
    engine->startTimer();
    // Pushes arrive on the main thread while ticks come from the background queue.
    std::atomic<int> handled{0};
    for (int i = 0; i < 20; ++i) {
        platform->mainQueue().postAfter(std::chrono::milliseconds(100 * i), [&] {
            engine->handleNotification(kPush, KXApplicationState::Active);
            ++handled;
        });
    }
    ASSERT_TRUE(waitFor([&] { return service.requestsTo(path).size() >= 3 && handled == 20; }));

    engine.reset();
    const std::size_t sent = service.requestsTo(path).size();
    drain(1500ms);
    EXPECT_LE(service.requestsTo(path).size(), sent + 1);  // at most the one already queued
}

TEST_F(KXAnalyticsTest, AHostileRecordIdentifierIsNotUsedInTheSessionsURL) {
    const std::vector<std::pair<std::string, bool>> identifiers = {
        {"s-1", true},
        {"AbC_9.~", true},
        {"", false},
        {".", false},
        {"..", false},
        {"a/b", false},
        {"a?b", false},
        {"a#b", false},
        {"a%2Fb", false},
        {"a b", false},
        {"a\\b", false},
        {"\xc3\xa9", false},
        {std::string(256, 'x'), true},
        {std::string(257, 'x'), false},
    };
    for (const auto& [identifier, usable] : identifiers) {
        EXPECT_EQ(KXAnalyticsManager::isUsableSessionIdentifier(identifier), usable) << identifier;
    }
    engineInState(KXSessionStateNew);
    scriptStart({created("../guests/1")});
    engine->start();
    ASSERT_TRUE(waitFor([&] { return session().sessionState() == KXSessionStateOpen; }));
    EXPECT_FALSE(session().sessionId());
    EXPECT_EQ(sink->linesContaining("ERROR").size(), 1u);
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
    AnalyticsLifeCycle() : KXAnalyticsTest(options()) {}

    KXApplication& application() { return platform->application(); }
};

TEST_F(AnalyticsLifeCycle, ActivationPostsTheStartTwiceAndTheActivationsAnswerNamesTheSession) {
    engine = KXAnalytics::create();
    EXPECT_EQ(engine->packageVersion(), "77");
    platform->fakeClock().set(std::chrono::system_clock::time_point(1592224496s));
    // The activation's start post goes out first; the tick's start document follows it while
    // the session is still new. Only the activation's answer names and opens the session.
    scriptStart({created("start-id", 200ms), created("tick-id")});
    application().postEvent(KXApplicationEvent::DidBecomeActive);
    ASSERT_TRUE(waitFor([&] { return service.requestsTo(kSessions).size() == 2; }));
    drain(700ms);
    EXPECT_EQ(session().sessionState(), KXSessionStateOpen);
    EXPECT_EQ(session().sessionId(), "start-id");
    const std::vector<KXJSON> starts = bodiesTo(kSessions);
    EXPECT_EQ(starts[0], starts[1]);
    EXPECT_EQ(starts[0]["time"], "1592224440");
    EXPECT_EQ(starts[0]["deviceData"], KXDevice::currentDevice().deviceData());
    for (const char* text : {"Application did become active.", "\n\nNew session started.\n\n",
                             "\n\nStarting timer.\n\n", "\n\nSession timer exceeded.\n\n",
                             "KXSession Started: start-id"}) {
        EXPECT_EQ(sink->linesContaining(text).size(), 1u) << text;
    }

    // A push while active, a tick, then the background: update and end reach the session.
    scriptUpdate("start-id", {created(""), created("")});
    engine->handleNotification(kPush, KXApplicationState::Active);
    engine->sessionTimerExceeded();
    ASSERT_TRUE(waitFor([&] { return session().remoteBroadcastIds()->empty(); }));
    application().postEvent(KXApplicationEvent::WillResignActive);
    platform->fakeClock().set(std::chrono::system_clock::time_point(1592228096s));
    application().postEvent(KXApplicationEvent::DidEnterBackground);
    EXPECT_EQ(session().sessionState(), KXSessionStateEnded);
    EXPECT_FALSE(engine->backgroundTimer()->isRunning());
    ASSERT_TRUE(waitFor(
        [&] { return service.requestsTo(std::string(kSessions) + "/start-id").size() == 2; }));
    drain();
    const std::vector<KXJSON> updates = bodiesTo(std::string(kSessions) + "/start-id");
    EXPECT_EQ(updates[0]["receivedBroadcasts"].size(), 1u);
    EXPECT_EQ(updates[0]["isClosed"], false);
    EXPECT_EQ(updates[1], (KXJSON{{"time", "1592228040"}, {"isClosed", true}}));
    // The successful end leaves its background task to expire.
    EXPECT_EQ(application().backgroundTaskCount(), 1u);
    ASSERT_TRUE(waitFor([&] { return application().backgroundTaskCount() == 0; }));
    EXPECT_EQ(sink->linesContaining("Background handler called.").size(), 1u);
    EXPECT_EQ(engine->backgroundTask(), KXBackgroundTaskInvalid);
    for (const char* text : {"Application will resign active.", "Enter Background."}) {
        EXPECT_EQ(sink->linesContaining(text).size(), 1u) << text;
    }
}

TEST_F(AnalyticsLifeCycle, AnEndWithoutAStartedSessionGoesToAnEmptyIdentifier) {
    engine = KXAnalytics::create();
    service.script("POST", kSessions, failed());
    service.script("POST", std::string(kSessions) + "/", failed());
    application().postEvent(KXApplicationEvent::DidBecomeActive);
    ASSERT_TRUE(waitFor([&] { return attemptLines(*sink.sink).size() >= 4; }));
    drain(300ms);
    EXPECT_EQ(session().sessionState(), KXSessionStateNew);

    application().postEvent(KXApplicationEvent::DidEnterBackground);
    ASSERT_TRUE(waitFor([&] { return application().backgroundTaskCount() == 0; }));
    const std::vector<KXJSON> ends = bodiesTo(std::string(kSessions) + "/");
    ASSERT_EQ(ends.size(), 3u);
    EXPECT_EQ(ends[2]["isClosed"], true);
    // The failed end ended its task at once, long before the time limit.
    EXPECT_EQ(sink->linesContaining("Background handler called.").size(), 1u);
}

TEST_F(AnalyticsLifeCycle, AnEngineWithoutASessionOnlyBeginsABackgroundTaskThatExpires) {
    engine = KXAnalytics::create();
    application().postEvent(KXApplicationEvent::WillEnterForeground);
    application().postEvent(KXApplicationEvent::DidEnterBackground);
    EXPECT_EQ(application().backgroundTaskCount(), 1u);
    ASSERT_TRUE(waitFor([&] { return application().backgroundTaskCount() == 0; }));
    EXPECT_TRUE(service.requests().empty());
    EXPECT_EQ(sink->linesContaining("Enter Foreground.").size(), 1u);

    // A released engine no longer follows the application.
    engine.reset();
    application().postEvent(KXApplicationEvent::DidBecomeActive);
    drain(300ms);
    EXPECT_TRUE(service.requests().empty());
    EXPECT_EQ(session().sessionState(), KXSessionStateNone);
}

TEST_F(KXAnalyticsTest, TheGuestOperationsPostThroughTheEngagedEngine) {
    Outcome outcome;
    kxPostCurrentAnalyticsSession([&] { ++outcome.successes; }, {});  // no engine: nothing
    engineInState(KXSessionStateOpen);
    session().setSessionId("s-e");
    scriptUpdate("s-e", {created("")});
    KXAnalytics::setEngaged(engine);
    kxPostCurrentAnalyticsSession([&] { ++outcome.successes; },
                                  [&](const KXError&) { ++outcome.failures; });
    ASSERT_TRUE(waitFor([&] { return outcome.successes == 1; }));
    // The post restarts the session timer, whose first tick may post the update once more.
    engine->stopTimer();
    drain();
    const std::size_t posted = service.requestsTo(std::string(kSessions) + "/s-e").size();
    EXPECT_GE(posted, 1u);

    KXAnalytics::setEngaged(nullptr);
    kxPostCurrentAnalyticsSession([&] { ++outcome.successes; }, {});
    drain();
    EXPECT_EQ(service.requests().size(), posted) << "no engine engaged: nothing is posted";
    EXPECT_EQ(outcome.successes + outcome.failures, 1);
}
