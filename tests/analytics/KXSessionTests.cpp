#include "KXCapturingSink.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXLocationService.h>
#include <KXClientFramework/KXSession.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>

using namespace std::chrono_literals;
using TimePoint = std::chrono::system_clock::time_point;

namespace {

// 2020-06-15 12:34:56.789 UTC and its whole minute.
const TimePoint kStart = TimePoint(1592224496s) + 789ms;
const std::string kStartMinute = "1592224440";

class SessionDocuments : public ::testing::Test {
protected:
    SessionDocuments() { kxLogLevel = 4; }
    std::shared_ptr<KXTestPlatform> platform = KXTestPlatform::install();
    KXCapturingSink::Guard sink = KXCapturingSink::install();
    KXSession session;
    const KXJSON deviceData = KXDevice::currentDevice().deviceData();
    static std::shared_ptr<KXBroadcast> broadcast(KXJSON id, TimePoint when = kStart) {
        return std::make_shared<KXBroadcast>(std::move(id), when);
    }
    static KXLocation fix(double latitude, double longitude, std::int64_t seconds) {
        return KXLocation{latitude, longitude, TimePoint(std::chrono::seconds(seconds))};
    }
    /// The shared location service with its owned source made.
    KXLocationService& service() {
        KXLocationService& service = KXLocationService::sharedManager();
        service.initializeLocationManager();
        return service;
    }
    KXFakeLocationSource& source() {
        service();
        return *platform->locationSources().back();
    }
};
using LocationService = SessionDocuments;

}  // namespace

TEST_F(SessionDocuments, TheStartNamesDeviceDataUnlessOpenAndItsTriggerAndTheEndSaysIfClosed) {
    EXPECT_EQ(session.startSessionData(), (KXJSON{{"deviceData", deviceData}}));
    EXPECT_EQ(session.endSessionData(), (KXJSON{{"isClosed", false}}));
    session.setCurrentDate(kStart);
    for (const auto state :
         {KXSessionStateNone, KXSessionStateNew, KXSessionStateEnded, KXSessionStateOpen}) {
        session.setSessionState(state);
        KXJSON expected = {{"time", kStartMinute}};
        if (state != KXSessionStateOpen) {
            expected["deviceData"] = deviceData;
        }
        EXPECT_EQ(session.startSessionData(), expected) << state;
    }
    session.setClosed(true);
    session.setBroadcast(broadcast("b-1"));  // a start key, never in the end document
    EXPECT_EQ(session.endSessionData(), (KXJSON{{"time", kStartMinute}, {"isClosed", true}}));
    // The triggering broadcast is sent as received, unless empty.
    const std::pair<KXJSON, bool> cases[] = {{"b-17", true},     {42, true},       {4.5, true},
                                             {"", false},        {nullptr, false}, {true, false},
                                             {{{"x", 1}}, false}};
    for (const auto& [id, sent] : cases) {
        session.setBroadcast(broadcast(id));
        const KXJSON absent = "-";
        EXPECT_EQ(session.startSessionData().value("triggeringBroadcastId", absent),
                  sent ? id : absent);
    }
}

TEST_F(SessionDocuments, TimesAreWholeMinutesInUTCWrittenAsStrings) {
    const std::tuple<TimePoint, std::string, std::string> cases[] = {
        {kStart, kStartMinute, kStartMinute + "000"},
        {TimePoint(59s) + 999ms, "0", "0"},
        {TimePoint(-1s), "-60", "-60000"},
        {TimePoint(4102444800s), "2147483647", "4102444800000"},  // 2100: past the 32-bit field
    };
    for (const auto& [date, seconds, milliseconds] : cases) {
        EXPECT_EQ(KXSession::stringUTCIntervalFromDate(date), seconds) << seconds;
        EXPECT_EQ(KXSession::stringUTCMillisecondsFromDate(date), milliseconds) << seconds;
    }
}

TEST_F(SessionDocuments, TheLocationServicesFixWinsOverTheOneCapturedAtTheStart) {
    const KXLocation live{52.52, 13.405, kStart};
    const KXLocation captured{-33.8688, 151.2093, kStart - 1h};
    using Fix = std::optional<KXLocation>;
    const std::tuple<Fix, Fix, Fix> cases[] = {{live, captured, live},
                                               {std::nullopt, captured, captured},
                                               {std::nullopt, std::nullopt, std::nullopt}};
    for (const auto& [fromService, fromSession, sent] : cases) {
        KXLocationService::sharedManager().setLocation(fromService);
        session.setLocation(fromSession);
        const KXJSON expected =
            sent ? KXJSON{{"time", KXSession::stringUTCMillisecondsFromDate(sent->timestamp)},
                          {"coordinates",
                           {{"latitude", sent->latitude}, {"longitude", sent->longitude}}}}
                 : KXJSON();
        EXPECT_EQ(session.startSessionData().value("geoLocation", KXJSON()), expected);
        EXPECT_EQ(session.endSessionData().value("geoLocation", KXJSON()), expected);
    }
    KXLocationService::sharedManager().setLocation(live);
    EXPECT_EQ(session.endSessionData()["geoLocation"]["time"], kStartMinute + "000");
    KXJSON absent;  // only an object takes the node, even with a fix to add
    EXPECT_FALSE(session.setLocationNode(absent));
    EXPECT_TRUE(absent.is_null());
}

TEST_F(SessionDocuments, ResetKeepsUnsentBroadcastsWhichKeepTheirOrderWithoutThoseWithoutAnId) {
    EXPECT_FALSE(session.remoteBroadcastIds()) << "no list until the session is reset";
    EXPECT_FALSE(session.endSessionData().contains("receivedBroadcasts"));
    session.setSessionId("s-1");
    session.setCurrentDate(kStart);
    session.setClosed(true);
    session.setSessionState(KXSessionStateEnded);
    session.setBroadcast(broadcast("trigger"));
    session.setLocation(KXLocation{1, 2, kStart});
    session.reset();
    ASSERT_TRUE(session.remoteBroadcastIds());
    EXPECT_TRUE(session.remoteBroadcastIds()->empty());
    EXPECT_FALSE(session.endSessionData().contains("receivedBroadcasts"));  // an empty list
    session.remoteBroadcastIds()->push_back(broadcast("a"));
    session.remoteBroadcastIds()->push_back(broadcast(nullptr, kStart + 1min));
    session.remoteBroadcastIds()->push_back(broadcast(7, kStart + 2min + 30s));
    session.remoteBroadcastIds()->push_back(broadcast("c", kStart - 24h));
    // Reset starts a new session but keeps what was not sent yet, the trigger and the fix.
    session.reset();
    EXPECT_FALSE(session.sessionId());
    EXPECT_FALSE(session.currentDate());
    EXPECT_FALSE(session.isClosed());
    EXPECT_EQ(session.sessionState(), KXSessionStateEnded);
    EXPECT_EQ(session.broadcast()->broadcastId(), "trigger");
    EXPECT_TRUE(session.location());
    EXPECT_EQ(session.endSessionData()["receivedBroadcasts"],
              (KXJSON{{{"broadcastId", "a"}, {"time", kStartMinute}},
                      {{"broadcastId", 7}, {"time", "1592224620"}},
                      {{"broadcastId", "c"}, {"time", "1592138040"}}}));
    session.setRemoteBroadcastIds(KXSession::BroadcastList{broadcast(nullptr)});
    EXPECT_FALSE(session.endSessionData().contains("receivedBroadcasts"));
}

TEST_F(LocationService, FuzzCoarsensExactlyTheFourFineLevelsAndOnlyWhenTheConfigurationSaysSo) {
    const double km = kCLLocationAccuracyKilometer;
    const double fine[] = {kCLLocationAccuracyBestForNavigation, kCLLocationAccuracyBest,
                           kCLLocationAccuracyNearestTenMeters, kCLLocationAccuracyHundredMeters};
    const double kept[] = {km, kCLLocationAccuracyThreeKilometers, 5.0, 10.5, 99.999, 0.0, -3.0};
    // Without an owned source the class operations change and answer nothing.
    KXLocationService::setAccuracy(kCLLocationAccuracyBest);
    KXLocationService::setDistanceFilter(25.0);
    EXPECT_EQ(KXLocationService::desiredAccuracy(), 0.0);
    EXPECT_EQ(KXLocationService::distanceFilter(), 0.0);
    source();
    for (const bool fuzzing : {true, false}) {
        KXConfig::defaultConfig().setLocationFuzzEnabled(fuzzing);
        for (const double requested : fine) {
            EXPECT_EQ(KXLocationService::fuzz(requested), km) << requested;
            KXLocationService::setAccuracy(requested);
            EXPECT_EQ(KXLocationService::desiredAccuracy(), fuzzing ? km : requested) << requested;
            EXPECT_EQ(source().desiredAccuracy(), fuzzing ? km : requested);
        }
        for (const double requested : kept) {
            EXPECT_EQ(KXLocationService::fuzz(requested), requested);
            KXLocationService::setAccuracy(requested);
            EXPECT_EQ(KXLocationService::desiredAccuracy(), requested);
        }
    }
    KXLocationService::setDistanceFilter(25.0);
    EXPECT_EQ(KXLocationService::distanceFilter(), 25.0);
    // Miles are international miles.
    EXPECT_DOUBLE_EQ(KXLocationService::milesToMeters(1), 1609.344);
}

TEST_F(LocationService, TheLastDeliveredFixIsKeptAndErrorsDoNotEraseIt) {
    KXFakeLocationSource& fake = source();
    fake.deliver({fix(1, 2, 100), fix(3, 4, 200), fix(52.52, -13.405, 1592224496)});
    EXPECT_EQ(service().location(), fix(52.52, -13.405, 1592224496));
    EXPECT_EQ(sink->linesContaining("New location: <+52.52000000,-13.40500000> @ 2020-06-15 "
                                    "12:34:56 +0000")
                  .size(),
              1u);
    const KXError error("kCLErrorDomain", 1);
    fake.deliverError(error);
    EXPECT_EQ(service().locationError(), error);
    EXPECT_EQ(service().location(), fix(52.52, -13.405, 1592224496));
    const auto failures = sink->linesContaining("Core Location failed: " + error.description());
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_NE(failures[0].find("ERROR"), std::string::npos);
    // A fix set by hand is kept; an empty delivery changes nothing.
    platform->fakeClock().set(std::chrono::system_clock::time_point(1000s));
    service().setLocationWithCoordinates(48.1, 11.6);
    EXPECT_EQ(service().location(), fix(48.1, 11.6, 1000));
    fake.deliver({});
    EXPECT_EQ(service().location(), fix(48.1, 11.6, 1000));
}

TEST_F(LocationService, PermissionIsAskedFromSystemVersion8WhateverTheChecksFound) {
    const std::pair<const char*, int> cases[] = {
        {"7.1", 0}, {"8.0", 1}, {"12.4", 1}, {"garbage", 0}};
    for (const auto& [version, requests] : cases) {
        SCOPED_TRACE(version);
        platform->fakeDeviceFacts().systemVersion = version;
        KXFakeLocationSource& fake = source();
        const auto before = fake.calls();
        sink->clear();
        service().enableStandardLocationService();
        EXPECT_TRUE(service().isEnabled());
        EXPECT_TRUE(fake.isUpdating());
        EXPECT_EQ(fake.desiredAccuracy(), kCLLocationAccuracyKilometer);
        EXPECT_EQ(fake.distanceFilter(), 10.0);
        EXPECT_EQ(fake.calls().requestWhenInUseAuthorization - before.requestWhenInUseAuthorization,
                  requests);
        EXPECT_EQ(fake.calls().requestAlwaysAuthorization - before.requestAlwaysAuthorization,
                  requests);
        EXPECT_EQ(sink->linesContaining("To have Location Services work in IOS 8.0+").size(),
                  2U * requests);
        service().disableStandardLocationService();
        EXPECT_FALSE(fake.isUpdating());
        EXPECT_FALSE(service().isEnabled());
    }
    EXPECT_EQ(platform->locationSources().size(), 1u);  // one owned source throughout

    // Significant changes replace the standard updates.
    KXFakeLocationSource& fake = source();
    service().enableStandardLocationService();
    service().enableSignificantLocationService();
    EXPECT_FALSE(fake.isUpdating());
    EXPECT_TRUE(fake.isMonitoringSignificantChanges());
    EXPECT_TRUE(service().isEnabled());
    service().disableSignificantLocationService();
    EXPECT_FALSE(fake.isMonitoringSignificantChanges());
    EXPECT_FALSE(service().isEnabled());
}
