#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>

#include <chrono>
#include <functional>
#include <vector>

/// Accuracy levels in metres (negative values are the two "best" levels).
inline constexpr double kCLLocationAccuracyBestForNavigation = -2.0;
inline constexpr double kCLLocationAccuracyBest = -1.0;
inline constexpr double kCLLocationAccuracyNearestTenMeters = 10.0;
inline constexpr double kCLLocationAccuracyHundredMeters = 100.0;
inline constexpr double kCLLocationAccuracyKilometer = 1000.0;
inline constexpr double kCLLocationAccuracyThreeKilometers = 3000.0;

/// One position fix: degrees and the moment it was taken.
struct KXLocation {
    double latitude = 0.0;
    double longitude = 0.0;
    std::chrono::system_clock::time_point timestamp;
    bool operator==(const KXLocation&) const = default;
};

/// Receives what a location source delivers, on the main thread.
class KX_EXPORT KXLocationSourceDelegate {
public:
    virtual ~KXLocationSourceDelegate() = default;
    virtual void didUpdateLocations(const std::vector<KXLocation>& locations) = 0;
    virtual void didFailWithError(const KXError& error) = 0;
};

/// A source of position fixes with an accuracy setting, like a phone's location manager.
/// The delegate is held weakly by the caller's contract: clear it before destroying it.
class KX_EXPORT KXLocationSource {
public:
    virtual ~KXLocationSource() = default;

    virtual void setDelegate(KXLocationSourceDelegate* delegate) = 0;

    virtual void setDesiredAccuracy(double metres) = 0;
    virtual double desiredAccuracy() const = 0;
    virtual void setDistanceFilter(double metres) = 0;
    virtual double distanceFilter() const = 0;

    virtual void requestWhenInUseAuthorization() = 0;
    virtual void requestAlwaysAuthorization() = 0;

    virtual void startUpdatingLocation() = 0;
    virtual void stopUpdatingLocation() = 0;
    virtual void startMonitoringSignificantLocationChanges() = 0;
    virtual void stopMonitoringSignificantLocationChanges() = 0;
};
