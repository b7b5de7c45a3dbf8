#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXLocationSource.h>
#include <KXClientFramework/KXMainQueue.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

/// The domain of the errors a location source reports, with Core Location's codes.
inline constexpr const char* kCLErrorDomain = "kCLErrorDomain";
/// The location could not be found (yet): the service failed or vanished.
inline constexpr std::int64_t kCLErrorLocationUnknown = 0;
/// The user, or the location service's agent, refused this application the location.
inline constexpr std::int64_t kCLErrorDenied = 1;

/// A location source that reads the desktop's location service, GeoClue 2, on the system bus.
///
/// connect() gives a source only when the service answers within a short time-out, so that
/// the platform can fall back to the fed source on machines without it. While standard updates
/// or significant-change monitoring are on, a GeoClue client whose desktop id is the
/// application id runs: the desired accuracy chooses its accuracy level (accuracyLevel()), and
/// the distance filter is its distance threshold; a fix closer than the filter to the last one
/// delivered is dropped here as well. Significant-change monitoring alone uses a threshold of
/// at least 500 metres. GeoClue asks its agent (the desktop shell, or the agent a kiosk runs)
/// whether the application may have the location; a refusal reaches the delegate as an error
/// (kCLErrorDomain, kCLErrorDenied) and the client is not started again until updates are
/// switched off and on or the accuracy or the filter changes. Fixes and errors reach the delegate
/// on the main queue while updates are on.
///
/// The D-Bus work runs on a thread of this source with a GLib main context of its own, so the
/// application needs no GLib loop; the connection is a private one, so a bus that goes away
/// never ends the process.
class KX_EXPORT KXGeoClueLocationSource final : public KXLocationSource {
public:
    /// A source for `desktopId`, or null when the system bus or GeoClue on it does not answer
    /// within `timeout` (a service that D-Bus activates may start within it).
    static std::unique_ptr<KXGeoClueLocationSource> connect(KXMainQueue& mainQueue,
                                                            std::string desktopId,
                                                            std::chrono::milliseconds timeout);
    ~KXGeoClueLocationSource() override;
    KXGeoClueLocationSource(const KXGeoClueLocationSource&) = delete;
    KXGeoClueLocationSource& operator=(const KXGeoClueLocationSource&) = delete;

    void setDelegate(KXLocationSourceDelegate* delegate) override;

    void setDesiredAccuracy(double metres) override;
    double desiredAccuracy() const override;
    void setDistanceFilter(double metres) override;
    double distanceFilter() const override;

    /// GeoClue asks its agent when the client starts; nothing to request beforehand.
    void requestWhenInUseAuthorization() override {}
    void requestAlwaysAuthorization() override {}

    void startUpdatingLocation() override;
    void stopUpdatingLocation() override;
    void startMonitoringSignificantLocationChanges() override;
    void stopMonitoringSignificantLocationChanges() override;

    /// GeoClue's accuracy level (the numbers of GClueAccuracyLevel) for a desired accuracy in
    /// metres: the two best levels and up to 10 m exact (8), up to 100 m street (6), up to a
    /// kilometre neighbourhood (5), anything coarser city (4).
    static std::uint32_t accuracyLevel(double metres);

    struct Impl;

private:
    explicit KXGeoClueLocationSource(std::shared_ptr<Impl> impl);
    void changed();

    std::shared_ptr<Impl> impl_;
};
