#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXLocationSource.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The library's location service: it owns a location source of the platform, switches its
/// continuous updates or its significant-change monitoring on and off, and keeps the last
/// location the source delivered (or one set by hand) for the analytics session. It never
/// sends anything itself. The façade switches it by the configuration's
/// locationServicesEnabled when the library is engaged and again when the application has
/// launched.
///
/// Everything here runs on the main thread, where the source delivers its fixes.
class KX_EXPORT KXLocationService final : public KXLocationSourceDelegate {
public:
    /// The shared service, created on first use and kept for the life of the process.
    static KXLocationService& sharedManager();

    KXLocationService();
    ~KXLocationService() override;
    KXLocationService(const KXLocationService&) = delete;
    KXLocationService& operator=(const KXLocationService&) = delete;

    /// Makes the owned location source when there is none yet, and in every case makes this
    /// service its delegate.
    void initializeLocationManager();

    /// Switches continuous updates on: accuracy of a kilometre, a distance filter of 10 metres,
    /// and, on systems from version 8.0, a check of the usage descriptions in the information
    /// dictionary (each missing one is logged at ERROR) followed by requests for when-in-use and
    /// then always authorisation. Without an owned source only `enabled` changes.
    void enableStandardLocationService();
    /// Switches continuous updates off.
    void disableStandardLocationService();
    /// Switches continuous updates off, then significant-change monitoring on.
    void enableSignificantLocationService();
    /// Switches significant-change monitoring off.
    void disableSignificantLocationService();

    /// The source's delivery: the last of `locations` becomes location() (earlier ones are
    /// ignored), exactly as delivered.
    void didUpdateLocations(const std::vector<KXLocation>& locations) override;
    /// The source's failure: logged at ERROR and kept in locationError(); location() stays.
    void didFailWithError(const KXError& error) override;

    /// Miles in metres (× 1609.344).
    static double milesToMeters(double miles);
    /// Sets location() to the pair in degrees, timestamped now (the platform's clock). The
    /// source's next delivery replaces it.
    void setLocationWithCoordinates(double latitude, double longitude);
    /// The accuracy the application may have when fuzzing is on: each of the four fine levels
    /// (best for navigation, best, ten metres, a hundred metres) becomes a kilometre; any other
    /// value, arbitrary numbers of metres included, passes unchanged.
    static double fuzz(double accuracy);

    /// Sets the owned source's desired accuracy, through fuzz() when the configuration's
    /// locationFuzzEnabled is on. No effect without an owned source.
    static void setAccuracy(double metres);
    /// Sets the owned source's distance filter as given. No effect without an owned source.
    static void setDistanceFilter(double metres);
    /// The owned source's values; 0 without an owned source.
    static double desiredAccuracy();
    static double distanceFilter();

    /// The last location received or set by hand.
    const std::optional<KXLocation>& location() const { return location_; }
    void setLocation(std::optional<KXLocation> location) { location_ = location; }
    /// The last error the source reported.
    const std::optional<KXError>& locationError() const { return locationError_; }
    void setLocationError(std::optional<KXError> error) { locationError_ = std::move(error); }
    /// True while this service switched a location service on.
    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }

    /// The owned source; null before initializeLocationManager().
    KXLocationSource* locationManager() const { return locationManager_.get(); }

    /// `location` as logged: "<+latitude,+longitude> @ yyyy-MM-dd HH:mm:ss +0000".
    static std::string describe(const KXLocation& location);

private:
    std::unique_ptr<KXLocationSource> locationManager_;
    std::optional<KXLocation> location_;
    std::optional<KXError> locationError_;
    bool enabled_ = false;
};
