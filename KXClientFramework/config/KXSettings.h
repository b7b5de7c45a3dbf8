#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXServiceEndpoints.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

/// The settings of the service connection that the transport and the service managers read:
/// environment, business unit, endpoints, REST logging, the credentials chosen at engagement
/// and the device's notification facts. The process has one, shared(); the façade's
/// getters and setters (KXClientFramework::sharedManager()) forward to it.
///
/// Every accessor may be called from any thread.
class KX_EXPORT KXSettings {
public:
    /// The process's settings, created on first use and never destroyed.
    static KXSettings& shared();

    KXSettings();
    ~KXSettings();
    KXSettings(const KXSettings&) = delete;
    KXSettings& operator=(const KXSettings&) = delete;

    /// The service environment (0 by default); chooses the base URL and base path together
    /// with the configuration's inProduction.
    std::int64_t environment() const;
    void setEnvironment(std::int64_t environment);
    std::optional<std::string> businessUnit() const;
    void setBusinessUnit(std::optional<std::string> businessUnit);
    /// Where the service and its token endpoint live.
    KXServiceEndpoints serviceEndpoints() const;
    void setServiceEndpoints(KXServiceEndpoints endpoints);
    /// Logs every request's and answer's headers at DEBUG level.
    bool RESTfulServiceLoggingEnabled() const;
    void setRESTfulServiceLoggingEnabled(bool enabled);
    /// Stored for the application; nothing in the library consults it.
    bool useInternalKXAPIService() const;
    void setUseInternalKXAPIService(bool use);

    std::optional<std::string> clientId() const;
    void setClientId(std::optional<std::string> clientId);
    std::optional<std::string> clientSecret() const;
    void setClientSecret(std::optional<std::string> clientSecret);
    std::optional<std::string> applicationId() const;
    void setApplicationId(std::optional<std::string> applicationId);

    /// The device registered for remote notifications.
    bool pushEnabledOnDevice() const;
    void setPushEnabledOnDevice(bool enabled);
    /// The application declares background remote notifications and the system runs them.
    bool backgroundNotificationEnabled() const;
    void setBackgroundNotificationEnabled(bool enabled);
    std::optional<std::string> applicationName() const;
    void setApplicationName(std::optional<std::string> applicationName);

private:
    struct State;
    std::unique_ptr<State> state_;
};
