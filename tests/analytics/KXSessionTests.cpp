// The session record's two documents: which node adds what, when, and in which time form.
#include "KXTestPlatform.h"

#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXLocationService.h>
#include <KXClientFramework/KXSession.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using TimePoint = std::chrono::system_clock::time_point;

namespace {

// 2020-06-15 12:34:56.789 UTC and its whole minute.
const TimePoint kStart = TimePoint(1592224496s) + 789ms;
const std::string kStartMinute = "1592224440";

class SessionDocuments : public ::testing::Test {
protected:
    std::shared_ptr<KXTestPlatform> platform = KXTestPlatform::install();
    KXSession session;

    static KXLocation at(double latitude, double longitude, TimePoint when) {
        return KXLocation{latitude, longitude, when};
    }
    static std::shared_ptr<KXBroadcast> broadcast(KXJSON id, TimePoint when) {
        return std::make_shared<KXBroadcast>(std::move(id), when);
    }
};

}  // namespace

TEST_F(SessionDocuments, ABareSessionStartsWithItsTimeAndDeviceDataOnly) {
    session.setCurrentDate(kStart);
    session.setSessionState(KXSessionStateNew);
    EXPECT_EQ(
        session.startSessionData(),
        (KXJSON{{"time", kStartMinute}, {"deviceData", KXDevice::currentDevice().deviceData()}}));
    session.setSessionState(KXSessionStateOpen);
    EXPECT_EQ(session.startSessionData(), (KXJSON{{"time", kStartMinute}}));
    EXPECT_EQ(KXSession().startSessionData(),
              (KXJSON{{"deviceData", KXDevice::currentDevice().deviceData()}}));
}

TEST_F(SessionDocuments, DeviceDataIsLeftOutOnlyWhileTheSessionIsOpen) {
    for (const auto state :
         {KXSessionStateNone, KXSessionStateNew, KXSessionStateEnded, KXSessionStateOpen}) {
        session.setSessionState(state);
        KXJSON data = KXJSON::object();
        EXPECT_TRUE(session.setDeviceDataNode(data));
        EXPECT_EQ(data.contains("deviceData"), state != KXSessionStateOpen) << state;
    }
}

TEST_F(SessionDocuments, TimesAreWholeMinutesInUTCWrittenAsStrings) {
    struct Case {
        TimePoint date;
        std::string seconds;
        std::string milliseconds;
    };
    const std::vector<Case> cases = {
        {kStart, kStartMinute, kStartMinute + "000"},
        {TimePoint(0s), "0", "0"},
        {TimePoint(59s) + 999ms, "0", "0"},
        {TimePoint(-1s), "-60", "-60000"},
        {TimePoint(4102444800s), "2147483647", "4102444800000"},  // 2100: past the 32-bit field
    };
    for (const auto& c : cases) {
        EXPECT_EQ(KXSession::stringUTCIntervalFromDate(c.date), c.seconds) << c.seconds;
        EXPECT_EQ(KXSession::stringUTCMillisecondsFromDate(c.date), c.milliseconds) << c.seconds;
    }
}

TEST_F(SessionDocuments, TheLocationServicesFixWinsOverTheOneCapturedAtTheStart) {
    const KXLocation live = at(52.52, 13.405, kStart);
    const KXLocation captured = at(-33.8688, 151.2093, kStart - 1h);
    struct Case {
        std::optional<KXLocation> service;
        std::optional<KXLocation> session;
        std::optional<KXLocation> sent;
    };
    const std::vector<Case> cases = {
        {live, captured, live},
        {std::nullopt, captured, captured},
        {live, std::nullopt, live},
        {std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        KXLocationService::sharedManager().setLocation(c.service);
        session.setLocation(c.session);
        for (const KXJSON& document : {session.startSessionData(), session.endSessionData()}) {
            if (!c.sent) {
                EXPECT_FALSE(document.contains("geoLocation"));
                continue;
            }
            EXPECT_EQ(
                document["geoLocation"],
                (KXJSON{{"time", KXSession::stringUTCMillisecondsFromDate(c.sent->timestamp)},
                        {"coordinates",
                         {{"latitude", c.sent->latitude}, {"longitude", c.sent->longitude}}}}));
        }
    }
    EXPECT_EQ(session.endSessionData().count("geoLocation"), 0u);
    KXLocationService::sharedManager().setLocation(live);
    EXPECT_EQ(session.endSessionData()["geoLocation"]["time"], kStartMinute + "000");
}

TEST_F(SessionDocuments, TheEndDocumentAlwaysSaysWhetherTheSessionIsClosed) {
    EXPECT_EQ(session.endSessionData(), (KXJSON{{"isClosed", false}}));
    session.setCurrentDate(kStart);
    session.setClosed(true);
    EXPECT_EQ(session.endSessionData(), (KXJSON{{"time", kStartMinute}, {"isClosed", true}}));
    // The end document never carries the start's keys.
    session.setBroadcast(broadcast("b-1", kStart));
    EXPECT_FALSE(session.endSessionData().contains("triggeringBroadcastId"));
    EXPECT_FALSE(session.endSessionData().contains("deviceData"));
}

TEST_F(SessionDocuments, TheTriggeringBroadcastIsSentAsReceivedUnlessEmpty) {
    struct Case {
        KXJSON id;
        bool sent;
    };
    const std::vector<Case> cases = {
        {"b-17", true},
        {42, true},
        {4.5, true},
        {"", false},
        {nullptr, false},
        {true, false},
        {KXJSON::object({{"x", 1}}), false},
    };
    for (const auto& c : cases) {
        session.setBroadcast(broadcast(c.id, kStart));
        const KXJSON document = session.startSessionData();
        EXPECT_EQ(document.contains("triggeringBroadcastId"), c.sent) << c.id.dump();
        if (c.sent) {
            EXPECT_EQ(document["triggeringBroadcastId"], c.id);
        }
    }
}

TEST_F(SessionDocuments, ReceivedBroadcastsKeepTheirOrderAndSkipThoseWithoutAnIdentifier) {
    EXPECT_FALSE(session.endSessionData().contains("receivedBroadcasts"));  // no list at all
    session.reset();
    EXPECT_FALSE(session.endSessionData().contains("receivedBroadcasts"));  // an empty list

    session.remoteBroadcastIds()->push_back(broadcast("a", kStart));
    session.remoteBroadcastIds()->push_back(broadcast(nullptr, kStart + 1min));
    session.remoteBroadcastIds()->push_back(broadcast(7, kStart + 2min + 30s));
    session.remoteBroadcastIds()->push_back(broadcast("c", kStart - 24h));
    EXPECT_EQ(session.endSessionData()["receivedBroadcasts"],
              (KXJSON{{{"broadcastId", "a"}, {"time", kStartMinute}},
                      {{"broadcastId", 7}, {"time", "1592224620"}},
                      {{"broadcastId", "c"}, {"time", "1592138040"}}}));

    session.setRemoteBroadcastIds(KXSession::BroadcastList{broadcast(nullptr, kStart)});
    EXPECT_FALSE(session.endSessionData().contains("receivedBroadcasts"));
}

TEST_F(SessionDocuments, ResetStartsASessionButKeepsUnsentBroadcasts) {
    session.setSessionId("s-1");
    session.setCurrentDate(kStart);
    session.setClosed(true);
    session.setSessionState(KXSessionStateEnded);
    session.setBroadcast(broadcast("trigger", kStart));
    session.setLocation(at(1, 2, kStart));
    session.reset();
    ASSERT_TRUE(session.remoteBroadcastIds());
    EXPECT_TRUE(session.remoteBroadcastIds()->empty());
    session.remoteBroadcastIds()->push_back(broadcast("kept", kStart));
    session.reset();

    EXPECT_FALSE(session.sessionId());
    EXPECT_FALSE(session.currentDate());
    EXPECT_FALSE(session.isClosed());
    EXPECT_EQ(session.sessionState(), KXSessionStateEnded);
    EXPECT_EQ(session.broadcast()->broadcastId(), "trigger");
    EXPECT_TRUE(session.location());
    EXPECT_EQ(session.endSessionData()["receivedBroadcasts"][0]["broadcastId"], "kept");
}

TEST_F(SessionDocuments, NodesRefuseOnlyAnAbsentDictionary) {
    using Node = bool (KXSession::*)(KXJSON&) const;
    for (const Node node : {&KXSession::setStartRootNode, &KXSession::setEndRootNode,
                            &KXSession::setGuestSessionNode, &KXSession::setDeviceDataNode,
                            &KXSession::setLocationNode, &KXSession::setRemoteBroadcastNode}) {
        KXJSON absent;
        KXJSON array = KXJSON::array();
        KXJSON empty = KXJSON::object();
        EXPECT_FALSE((session.*node)(absent));
        EXPECT_FALSE((session.*node)(array));
        EXPECT_TRUE(absent.is_null());
        EXPECT_TRUE((session.*node)(empty));
    }
}

TEST(SessionRecord, TheSharedSessionIsOneRecordThatStartsEmpty) {
    KXSession& session = KXSession::currentSession();
    EXPECT_EQ(&session, &KXSession::currentSession());
    EXPECT_EQ(session.sessionState(), KXSessionStateNone);
    EXPECT_FALSE(session.sessionId());
    EXPECT_FALSE(session.remoteBroadcastIds());
    EXPECT_FALSE(session.isClosed());
}
