#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXLocationSource.h>

#include <memory>

/// The library's location service: it owns a location source of the platform and switches its
/// continuous updates on and off. The façade switches it by the configuration's
/// locationServicesEnabled when the library is engaged and again when the application has
/// launched.
///
/// Everything here runs on the main thread.
class KX_EXPORT KXLocationService {
public:
    /// The shared service, created on first use and kept for the life of the process.
    static KXLocationService& sharedManager();

    KXLocationService();
    ~KXLocationService();
    KXLocationService(const KXLocationService&) = delete;
    KXLocationService& operator=(const KXLocationService&) = delete;

    /// Makes the owned location source, when there is none yet.
    void initializeLocationManager();

    /// Switches continuous updates on: accuracy of a kilometre, a distance filter of 10 metres,
    /// and, on systems from version 8.0, a check of the usage descriptions in the information
    /// dictionary (each missing one is logged at ERROR) followed by requests for when-in-use and
    /// then always authorisation. Without an owned source only `enabled` changes.
    void enableStandardLocationService();
    /// Switches continuous updates off.
    void disableStandardLocationService();

    /// True while this service switched a location service on.
    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }

    /// The owned source; null before initializeLocationManager().
    KXLocationSource* locationManager() const { return locationManager_.get(); }

private:
    std::unique_ptr<KXLocationSource> locationManager_;
    bool enabled_ = false;
};
