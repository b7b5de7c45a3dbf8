#include "KXToolTestFixture.h"

using namespace kxtools;

namespace {

const std::string kSessions = kBase + "/sessions";

KXJSON session(const KXJSON& sessionId, int state, bool closed, int received = 0) {
    return {{"sessionId", sessionId},
            {"sessionState", state},
            {"isClosed", closed},
            {"receivedBroadcasts", received}};
}

// Every "time" of a document, at any depth, is a JSON string of digits naming a whole minute.
void expectMinuteTimes(const KXJSON& value, const std::string& where) {
    if (!value.is_structured()) {
        return;
    }
    for (const auto& [key, item] : value.items()) {
        if (key == "time") {
            ASSERT_TRUE(item.is_string()) << where << ": " << item;
            const std::string text = item.get<std::string>();
            ASSERT_FALSE(text.empty()) << where;
            EXPECT_EQ(text.find_first_not_of("0123456789"), std::string::npos) << where << text;
            EXPECT_EQ(std::stoll(text) % 60, 0) << where << ": " << text;
        }
        expectMinuteTimes(item, where);
    }
}

class KXCtlLifecycle : public KXCtlTest {
protected:
    KXCtlLifecycle() {
        service.scriptToken("tok");
        seal("<key>analyticsEnabled</key><true/><key>locationServicesEnabled</key><true/>");
        // The activation's start answered slowly: the timer's first tick, due at once, then
        // certainly finds the session still new and posts the start document again (a quick
        // answer could come before the tick reaches the main queue, and the tick would post an
        // update instead).
        service.script("POST", kSessions, createdAs("S1", std::chrono::milliseconds(800)));
        service.script("POST", kSessions, createdAs("S1"));
        service.script("POST", kSessions + "/S1", KXScriptedAnswer::empty(200));
    }

    /// Runs lifecycle with the steps' events; after each kxctl must print its session.
    void runSteps(const std::vector<std::pair<std::string, KXJSON>>& steps) {
        std::vector<std::string> arguments = {"lifecycle"};
        std::vector<KXJSON> lines;
        for (const auto& [event, session] : steps) {
            arguments.push_back(event);
            lines.push_back({{"event", event}, {"session", session}});
        }
        const ProcessResult result = kxctl(arguments);
        ASSERT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(jsonLines(result.out), lines);
    }

    /// The paths below /sessions of the analytics posts, and their bodies.
    std::pair<std::vector<std::string>, std::vector<KXJSON>> sessionPosts() const {
        std::pair<std::vector<std::string>, std::vector<KXJSON>> posts;
        for (const auto& request : service.requests()) {
            if (request.path.starts_with(kSessions)) {
                EXPECT_EQ(request.method, "POST");
                posts.first.push_back(request.path.substr(kSessions.size()));
                posts.second.push_back(KXJSON::parse(request.body, nullptr, false));
                expectMinuteTimes(posts.second.back(), request.path);
            }
        }
        return posts;
    }
};

TEST_F(KXCtlLifecycle, AFullSessionSendsStartTwiceThenTheUpdateAndTheEnd) {
    runSteps({{"active", session("S1", 3, false)},
              {R"(push:active:{"kx":{"bcastId":"B1"}})", session("S1", 3, false, 1)},
              {"tick", session("S1", 3, false)},
              {"background", session("S1", 2, true)}});
    const auto [paths, posts] = sessionPosts();
    ASSERT_EQ(paths, (std::vector<std::string>{"", "", "/S1", "/S1"}));
    // The activation's start and the timer's first tick, both the start document.
    for (int i : {0, 1}) {
        EXPECT_TRUE(posts[i].contains("time")) << posts[i];
        EXPECT_FALSE(posts[i].contains("isClosed")) << posts[i];
    }
    EXPECT_EQ(posts[2]["isClosed"], false);
    ASSERT_EQ(posts[2]["receivedBroadcasts"].size(), 1u) << posts[2];
    EXPECT_EQ(posts[2]["receivedBroadcasts"][0]["broadcastId"], "B1");
    EXPECT_EQ(posts[3]["isClosed"], true);
    EXPECT_TRUE(posts[3].contains("time")) << posts[3];
    EXPECT_FALSE(posts[3].contains("receivedBroadcasts")) << posts[3];
}

// A fix before the first activation goes into its start document; a push handed in with the
// background state is only kept while the application is active; a guest change posts the
// update; a push opened from the background triggers the next session, whose activation finds
// the timer's tick not yet due again.
TEST_F(KXCtlLifecycle, StatesOfPushesFixesAndGuestChangesReachTheDocuments) {
    service.script("POST", kSessions, createdAs("S2"));
    runSteps({{"location:48.5,2.25", session(nullptr, 0, false)},
              {"active", session("S1", 3, false)},
              {R"(push:background:{"kx":{"bcastId":"X"}})", session("S1", 3, false)},
              {"guest-change", session("S1", 3, false)},
              {"resign", session("S1", 3, false)},
              {"background", session("S1", 2, true)},
              {R"(push:inactive:{"kx":{"bcastId":"T1"}})", session("S1", 2, true)},
              {"foreground", session("S1", 2, true)},
              {"active", session("S2", 3, false)}});
    const auto [paths, posts] = sessionPosts();
    ASSERT_EQ(paths, (std::vector<std::string>{"", "", "/S1", "/S1", ""}));
    const KXJSON coordinates = {{"latitude", 48.5}, {"longitude", 2.25}};
    EXPECT_EQ(posts[0]["geoLocation"]["coordinates"], coordinates);
    EXPECT_FALSE(posts[0].contains("triggeringBroadcastId"));
    EXPECT_EQ(posts[2]["isClosed"], false);
    EXPECT_FALSE(posts[2].contains("receivedBroadcasts")) << posts[2];
    EXPECT_EQ(posts[3]["isClosed"], true);
    EXPECT_EQ(posts[4]["triggeringBroadcastId"], "T1");
}

}  // namespace
