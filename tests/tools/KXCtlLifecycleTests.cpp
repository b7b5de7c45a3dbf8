// kxctl lifecycle run as a child process against the loopback service: the session line after
// each event and the analytics documents the events send.
#include "KXToolTestFixture.h"

using namespace kxtools;

namespace {

const std::string kSessions = kBase + "/sessions";

KXJSON sessionLine(const std::string& event, const KXJSON& sessionId, int state, bool closed,
                   int received) {
    return {{"event", event},
            {"session",
             {{"sessionId", sessionId},
              {"sessionState", state},
              {"isClosed", closed},
              {"receivedBroadcasts", received}}}};
}

// The activation's start answered slowly: the timer's first tick, due at once, then certainly
// finds the session still new and posts the start document again (a quick answer could come
// before the tick reaches the main queue, and the tick would post an update instead).
KXScriptedAnswer slowlyCreatedAs(const std::string& id) {
    return createdAs(id, std::chrono::milliseconds(800));
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
    }

    // The analytics posts, each as "path below /sessions" and its body.
    std::vector<std::pair<std::string, KXJSON>> sessionPosts() const {
        std::vector<std::pair<std::string, KXJSON>> posts;
        for (const auto& request : service.requests()) {
            if (request.path.rfind(kSessions, 0) == 0) {
                EXPECT_EQ(request.method, "POST");
                posts.emplace_back(request.path.substr(kSessions.size()),
                                   KXJSON::parse(request.body, nullptr, false));
                expectMinuteTimes(posts.back().second, request.path);
            }
        }
        return posts;
    }
};

TEST_F(KXCtlLifecycle, AFullSessionSendsStartTwiceThenTheUpdateAndTheEnd) {
    service.script("POST", kSessions, slowlyCreatedAs("S1"));
    service.script("POST", kSessions, createdAs("S1"));
    service.script("POST", kSessions + "/S1", KXScriptedAnswer::empty(200));
    const std::string push = R"(push:active:{"kx":{"bcastId":"B1"}})";

    const ProcessResult result = kxctl({"lifecycle", "active", push, "tick", "background"});

    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(jsonLines(result.out), (std::vector<KXJSON>{
                                         sessionLine("active", "S1", 3, false, 0),
                                         sessionLine(push, "S1", 3, false, 1),
                                         sessionLine("tick", "S1", 3, false, 0),
                                         sessionLine("background", "S1", 2, true, 0),
                                     }));
    const auto posts = sessionPosts();
    ASSERT_EQ(posts.size(), 4u) << result.err;
    // The activation's start and the timer's first tick, both the start document.
    for (int i : {0, 1}) {
        EXPECT_EQ(posts[i].first, "");
        EXPECT_TRUE(posts[i].second.contains("time")) << posts[i].second;
        EXPECT_FALSE(posts[i].second.contains("isClosed")) << posts[i].second;
    }
    const KXJSON& update = posts[2].second;
    EXPECT_EQ(posts[2].first, "/S1");
    EXPECT_EQ(update["isClosed"], false);
    ASSERT_EQ(update["receivedBroadcasts"].size(), 1u) << update;
    EXPECT_EQ(update["receivedBroadcasts"][0]["broadcastId"], "B1");
    const KXJSON& end = posts[3].second;
    EXPECT_EQ(posts[3].first, "/S1");
    EXPECT_EQ(end["isClosed"], true);
    EXPECT_TRUE(end.contains("time")) << end;
    EXPECT_FALSE(end.contains("receivedBroadcasts")) << end;
}

// A fix before the first activation goes into its start document; a push handed in with the
// background state is only kept while the application is active; a guest change posts the
// update; a push opened from the background triggers the next session, whose activation finds
// the timer's tick not yet due again.
TEST_F(KXCtlLifecycle, StatesOfPushesFixesAndGuestChangesReachTheDocuments) {
    service.script("POST", kSessions, slowlyCreatedAs("S1"));
    service.script("POST", kSessions, createdAs("S1"));
    service.script("POST", kSessions, createdAs("S2"));
    service.script("POST", kSessions + "/S1", KXScriptedAnswer::empty(200));
    const std::vector<std::string> events = {"location:48.5,2.25",
                                             "active",
                                             R"(push:background:{"kx":{"bcastId":"X"}})",
                                             "guest-change",
                                             "resign",
                                             "background",
                                             R"(push:inactive:{"kx":{"bcastId":"T1"}})",
                                             "foreground",
                                             "active"};
    std::vector<std::string> arguments = {"lifecycle"};
    arguments.insert(arguments.end(), events.begin(), events.end());

    const ProcessResult result = kxctl(arguments);

    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(jsonLines(result.out), (std::vector<KXJSON>{
                                         sessionLine(events[0], nullptr, 0, false, 0),
                                         sessionLine(events[1], "S1", 3, false, 0),
                                         sessionLine(events[2], "S1", 3, false, 0),
                                         sessionLine(events[3], "S1", 3, false, 0),
                                         sessionLine(events[4], "S1", 3, false, 0),
                                         sessionLine(events[5], "S1", 2, true, 0),
                                         sessionLine(events[6], "S1", 2, true, 0),
                                         sessionLine(events[7], "S1", 2, true, 0),
                                         sessionLine(events[8], "S2", 3, false, 0),
                                     }));
    const auto posts = sessionPosts();
    std::vector<std::string> paths;
    paths.reserve(posts.size());
    for (const auto& post : posts) {
        paths.push_back(post.first);
    }
    ASSERT_EQ(paths, (std::vector<std::string>{"", "", "/S1", "/S1", ""})) << result.err;
    const KXJSON coordinates = {{"latitude", 48.5}, {"longitude", 2.25}};
    EXPECT_EQ(posts[0].second["geoLocation"]["coordinates"], coordinates);
    EXPECT_FALSE(posts[0].second.contains("triggeringBroadcastId"));
    EXPECT_EQ(posts[2].second["isClosed"], false);
    EXPECT_FALSE(posts[2].second.contains("receivedBroadcasts")) << posts[2].second;
    EXPECT_EQ(posts[3].second["isClosed"], true);
    EXPECT_EQ(posts[4].second["triggeringBroadcastId"], "T1");
}

}  // namespace
