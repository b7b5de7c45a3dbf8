#include <KXClientFramework/KXLocationService.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPlatform.h>

#include <cstdlib>
#include <string>

namespace {

constexpr double kStandardDistanceFilter = 10.0;

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
    static KXLocationService* const service = new KXLocationService();
    return *service;
}

KXLocationService::KXLocationService() = default;
KXLocationService::~KXLocationService() = default;

void KXLocationService::initializeLocationManager() {
    if (!locationManager_) {
        locationManager_ = KXPlatform::current().makeLocationSource();
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
