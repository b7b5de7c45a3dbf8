#pragma once

#include <KXClientFramework/KXClock.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXLocationSource.h>
#include <KXClientFramework/KXMainQueue.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// Whether the application may receive positions (numbers as a phone reports them).
enum class KXLocationAuthorizationStatus : std::int32_t {
    NotDetermined = 0,
    Restricted = 1,
    Denied = 2,
    AuthorizedAlways = 3,
    AuthorizedWhenInUse = 4,
};

/// The Linux default location source. It does not depend on any positioning daemon: the host
/// feeds it fixes (from gpsd, a serial GPS, a fixed kiosk position, ...) with deliver(), and it
/// hands them to its delegate on the main queue while updates are on (standard updates or
/// significant-change monitoring). Authorisation requests are granted at once. When a fixed
/// position is given (KXLinuxPlatform takes it from $KX_FIXED_LOCATION, "latitude,longitude"),
/// it is delivered each time updates start. Accuracy and distance filter are kept for the host
/// to read; fixes are delivered as fed.
class KX_EXPORT KXLinuxLocationSource final : public KXLocationSource {
public:
    KXLinuxLocationSource(KXMainQueue& mainQueue, const KXClock& clock,
                          std::optional<KXLocation> fixedPosition = std::nullopt);
    ~KXLinuxLocationSource() override;

    void setDelegate(KXLocationSourceDelegate* delegate) override;

    void setDesiredAccuracy(double metres) override;
    double desiredAccuracy() const override;
    void setDistanceFilter(double metres) override;
    double distanceFilter() const override;

    void requestWhenInUseAuthorization() override;
    void requestAlwaysAuthorization() override;

    void startUpdatingLocation() override;
    void stopUpdatingLocation() override;
    void startMonitoringSignificantLocationChanges() override;
    void stopMonitoringSignificantLocationChanges() override;

    // Host side. Safe from any thread; delivery happens on the main queue.

    /// Hands fixes to the delegate if updates are on when they reach the main queue.
    void deliver(std::vector<KXLocation> locations);
    /// Hands an error to the delegate if updates are on when it reaches the main queue.
    void deliverError(KXError error);

    KXLocationAuthorizationStatus authorizationStatus() const;
    bool isUpdatingLocation() const;
    bool isMonitoringSignificantLocationChanges() const;

    /// Parses "latitude,longitude" in degrees; nothing when malformed or out of range.
    static std::optional<KXLocation> parseFixedPosition(const std::string& text);

private:
    struct State;
    std::shared_ptr<State> state_;
    KXMainQueue& mainQueue_;
    const KXClock& clock_;
    std::optional<KXLocation> fixedPosition_;
};
