#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXLocationService.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXProcessWide.h>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cstdlib>
#include <string>

namespace {

constexpr double kStandardDistanceFilter = 10.0;
constexpr double kMetresPerMile = 1609.344;

// The leading number of a version text, as a single-precision value ("12.4" is 12.4, "9" is 9;
// no number at all is 0).
float leadingNumber(const std::optional<std::string>& text) {
    if (!text) {
        return 0.0F;
    }
    return std::strtof(text->c_str(), nullptr);
}

bool hasText(const KXJSON& value) {
    return value.is_string() && !value.get<std::string>().empty();
}

}  // namespace

KXLocationService& KXLocationService::sharedManager() {
    return kxProcessWide<KXLocationService>();
}

KXLocationService::KXLocationService() = default;

KXLocationService::~KXLocationService() {
    if (locationManager_) {
        locationManager_->setDelegate(nullptr);
    }
}

void KXLocationService::initializeLocationManager() {
    if (!locationManager_) {
        locationManager_ = KXPlatform::current().makeLocationSource();
    }
    if (locationManager_) {
        locationManager_->setDelegate(this);
    }
}

void KXLocationService::enableStandardLocationService() {
    enabled_ = true;
    if (!locationManager_) {
        return;
    }
    locationManager_->setDesiredAccuracy(kCLLocationAccuracyKilometer);
    locationManager_->setDistanceFilter(kStandardDistanceFilter);

    KXPlatform& platform = KXPlatform::current();
    if (leadingNumber(platform.deviceFacts().systemVersion) >= 8.0F) {
        const KXBundle& bundle = platform.mainBundle();
        if (!hasText(bundle.objectForInfoDictionaryKey("NSLocationAlwaysUsageDescription"))) {
            KX_LOG_ERROR(
                "To have Location Services work in IOS 8.0+ you must set in the App Delegate \n "
                "NSLocationAlwaysUsageDescription in the info.plist");
        }
        if (!hasText(bundle.objectForInfoDictionaryKey("NSLocationWhenInUseUsageDescription"))) {
            KX_LOG_ERROR(
                "To have Location Services work in IOS 8.0+ you must set in the App Delegate \n "
                "NSLocationWhenInUseUsageDescription in the info.plist");
        }
        locationManager_->requestWhenInUseAuthorization();
        locationManager_->requestAlwaysAuthorization();
    }
    locationManager_->startUpdatingLocation();
}

void KXLocationService::disableStandardLocationService() {
    enabled_ = false;
    if (locationManager_) {
        locationManager_->stopUpdatingLocation();
    }
}

void KXLocationService::enableSignificantLocationService() {
    disableStandardLocationService();
    enabled_ = true;
    if (locationManager_) {
        locationManager_->startMonitoringSignificantLocationChanges();
    }
}

void KXLocationService::disableSignificantLocationService() {
    enabled_ = false;
    if (locationManager_) {
        locationManager_->stopMonitoringSignificantLocationChanges();
    }
}

void KXLocationService::didUpdateLocations(const std::vector<KXLocation>& locations) {
    if (locations.empty()) {
        return;
    }
    location_ = locations.back();
    KX_LOG_DEBUG("New location: {}", describe(*location_));
}

void KXLocationService::didFailWithError(const KXError& error) {
    KX_LOG_ERROR("Core Location failed: {}", error.description());
    locationError_ = error;
}

double KXLocationService::milesToMeters(double miles) {
    return miles * kMetresPerMile;
}

void KXLocationService::setLocationWithCoordinates(double latitude, double longitude) {
    location_ = KXLocation{latitude, longitude, KXPlatform::current().clock().now()};
}

double KXLocationService::fuzz(double accuracy) {
    // Exact comparison on purpose: only the named fine levels are coarsened.
    if (accuracy == kCLLocationAccuracyNearestTenMeters ||
        accuracy == kCLLocationAccuracyHundredMeters ||
        accuracy == kCLLocationAccuracyBestForNavigation || accuracy == kCLLocationAccuracyBest) {
        return kCLLocationAccuracyKilometer;
    }
    return accuracy;
}

void KXLocationService::setAccuracy(double metres) {
    KXLocationSource* source = sharedManager().locationManager();
    if (!source) {
        return;
    }
    source->setDesiredAccuracy(KXConfig::defaultConfig().locationFuzzEnabled() ? fuzz(metres)
                                                                               : metres);
}

void KXLocationService::setDistanceFilter(double metres) {
    if (KXLocationSource* source = sharedManager().locationManager()) {
        source->setDistanceFilter(metres);
    }
}

double KXLocationService::desiredAccuracy() {
    const KXLocationSource* source = sharedManager().locationManager();
    return source ? source->desiredAccuracy() : 0.0;
}

double KXLocationService::distanceFilter() {
    const KXLocationSource* source = sharedManager().locationManager();
    return source ? source->distanceFilter() : 0.0;
}

std::string KXLocationService::describe(const KXLocation& location) {
    return fmt::format("<{:+.8f},{:+.8f}> @ {:%Y-%m-%d %H:%M:%S} +0000", location.latitude,
                       location.longitude,
                       std::chrono::time_point_cast<std::chrono::seconds>(location.timestamp));
}
