// The location service: accuracy and its fuzz, the fixes it keeps, and what enabling it asks of
// the platform's source by system version.
#include "KXCapturingSink.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXLocationService.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace {

class LocationService : public ::testing::Test {
protected:
    LocationService() { kxLogLevel = 4; }

    /// The shared service with its owned source made.
    KXLocationService& service() {
        KXLocationService& service = KXLocationService::sharedManager();
        service.initializeLocationManager();
        return service;
    }
    KXFakeLocationSource& source() {
        service();
        return *platform->locationSources().back();
    }
    static KXLocation fix(double latitude, double longitude, std::int64_t seconds) {
        return KXLocation{latitude, longitude,
                          std::chrono::system_clock::time_point(std::chrono::seconds(seconds))};
    }

    std::shared_ptr<KXTestPlatform> platform = KXTestPlatform::install();
    KXCapturingSink::Guard sink = KXCapturingSink::install();
};

}  // namespace

TEST_F(LocationService, FuzzCoarsensExactlyTheFourFineLevelsAndOnlyWhenTheConfigurationSaysSo) {
    const double km = kCLLocationAccuracyKilometer, threeKm = kCLLocationAccuracyThreeKilometers;
    const double fine[] = {kCLLocationAccuracyBestForNavigation, kCLLocationAccuracyBest,
                           kCLLocationAccuracyNearestTenMeters, kCLLocationAccuracyHundredMeters};
    const double kept[] = {km, threeKm, 5.0, 10.5, 99.999, 0.0, -3.0};
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
}

TEST_F(LocationService, TheLastDeliveredFixIsKeptAndErrorsDoNotEraseIt) {
    KXFakeLocationSource& fake = source();
    EXPECT_EQ(fake.delegate(), &service());
    fake.deliver({fix(1, 2, 100), fix(3, 4, 200), fix(52.52, -13.405, 1592224496)});
    EXPECT_EQ(service().location(), fix(52.52, -13.405, 1592224496));
    EXPECT_EQ(sink->linesContaining(
                      "New location: <+52.52000000,-13.40500000> @ 2020-06-15 12:34:56 +0000")
                  .size(),
              1u);

    const KXError error("kCLErrorDomain", 1);
    fake.deliverError(error);
    EXPECT_EQ(service().locationError(), error);
    EXPECT_EQ(service().location(), fix(52.52, -13.405, 1592224496));
    const auto failures = sink->linesContaining("Core Location failed: " + error.description());
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_NE(failures[0].find("ERROR"), std::string::npos);

    // A fix set by hand stands until the next delivery; an empty delivery changes nothing.
    platform->fakeClock().set(std::chrono::system_clock::time_point(1000s));
    service().setLocationWithCoordinates(48.1, 11.6);
    EXPECT_EQ(service().location(), fix(48.1, 11.6, 1000));
    fake.deliver({});
    EXPECT_EQ(service().location(), fix(48.1, 11.6, 1000));
    fake.deliver({fix(0, 0, 5)});
    EXPECT_EQ(service().location(), fix(0, 0, 5));
}

TEST_F(LocationService, PermissionIsAskedFromSystemVersion8WhateverTheChecksFound) {
    struct Case {
        const char* version;
        int requests;
        std::size_t errorLines;
    };
    const Case cases[] = {{"7.1", 0, 0}, {"8.0", 1, 2}, {"12.4", 1, 2}, {"garbage", 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.version);
        platform->fakeDeviceFacts().systemVersion = c.version;
        KXFakeLocationSource& fake = source();
        const auto before = fake.calls();
        sink->clear();
        service().enableStandardLocationService();
        EXPECT_TRUE(service().isEnabled());
        EXPECT_TRUE(fake.isUpdating());
        EXPECT_EQ(fake.desiredAccuracy(), kCLLocationAccuracyKilometer);
        EXPECT_EQ(fake.distanceFilter(), 10.0);
        EXPECT_EQ(fake.calls().requestWhenInUseAuthorization - before.requestWhenInUseAuthorization,
                  c.requests);
        EXPECT_EQ(fake.calls().requestAlwaysAuthorization - before.requestAlwaysAuthorization,
                  c.requests);
        EXPECT_EQ(sink->linesContaining("To have Location Services work in IOS 8.0+").size(),
                  c.errorLines);
        service().disableStandardLocationService();
        EXPECT_FALSE(fake.isUpdating());
        EXPECT_FALSE(service().isEnabled());
    }
    EXPECT_EQ(platform->locationSources().size(), 1u);  // one owned source throughout
}

TEST_F(LocationService, SignificantChangesReplaceTheStandardUpdates) {
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

TEST(LocationServiceUnits, MilesAreInternationalMiles) {
    EXPECT_DOUBLE_EQ(KXLocationService::milesToMeters(1), 1609.344);
    EXPECT_DOUBLE_EQ(KXLocationService::milesToMeters(2.5), 4023.36);
    EXPECT_DOUBLE_EQ(KXLocationService::milesToMeters(0), 0.0);
}
