#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXServiceEndpoints.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

/// The library's façade and the holder of its process-wide settings.
///
/// The shared manager, sharedManager(), carries the settings that the other components read:
/// the service environment, the business unit, the REST logging switch and, once the
/// application authenticated through it, the client credentials and the application id. Every
/// accessor may be called from any thread.
class KX_EXPORT KXClientFramework {
public:
    /// The shared manager, created on first use.
    static KXClientFramework& sharedManager();

    KXClientFramework();
    KXClientFramework(const KXClientFramework&) = delete;
    KXClientFramework& operator=(const KXClientFramework&) = delete;

    // Settings of the service connection.

    /// The service environment (0 by default); chooses the base URL and base path together with
    /// the configuration's inProduction. Set through the class method setEnvironment().
    std::int64_t environment() const;
    std::optional<std::string> businessUnit() const;
    void setBusinessUnit(std::optional<std::string> businessUnit);
    bool RESTfulServiceLoggingEnabled() const;
    void setRESTfulServiceLoggingEnabled(bool enabled);
    /// Stored for the application; nothing in the library consults it.
    bool useInternalKXAPIService() const;
    void setUseInternalKXAPIService(bool use);

    // Identity chosen at authentication.

    std::optional<std::string> clientId() const;
    void setClientId(std::optional<std::string> clientId);
    std::optional<std::string> clientSecret() const;
    void setClientSecret(std::optional<std::string> clientSecret);
    std::optional<std::string> applicationId() const;
    void setApplicationId(std::optional<std::string> applicationId);

    // Device and application facts.

    /// The device registered for remote notifications.
    bool pushEnabledOnDevice() const;
    void setPushEnabledOnDevice(bool enabled);
    bool backgroundNotificationEnabled() const;
    void setBackgroundNotificationEnabled(bool enabled);
    std::optional<std::string> applicationName() const;
    void setApplicationName(std::optional<std::string> applicationName);

    // Class-wide settings.

    /// Sets the environment on the shared manager.
    static void setEnvironment(std::int64_t environment);
    /// Sets RESTfulServiceLoggingEnabled on the shared manager.
    static void setRESTfulServiceLogging(bool enabled);
    /// Sets useInternalKXAPIService on the shared manager.
    static void setInternalKXAPIService(bool use);
    /// Set the log globals kxLoggingEnabled, kxLoggingToDiskEnabled and kxLogLevel.
    static void setLogging(bool enabled);
    static void setDiskLogging(bool enabled);
    static void setLogLevel(std::int64_t level);

    /// The base URLs of the service and its token endpoint. The transport's base URL is taken
    /// when the shared transport is created or reset (KXSessionManager::configureBaseUrl()); the
    /// token endpoint is read at each token request.
    static void setServiceEndpoints(KXServiceEndpoints endpoints);
    static KXServiceEndpoints serviceEndpoints();

private:
    mutable std::mutex mutex_;
    std::int64_t environment_ = 0;
    std::optional<std::string> businessUnit_;
    bool RESTfulServiceLoggingEnabled_ = false;
    bool useInternalKXAPIService_ = false;
    std::optional<std::string> clientId_;
    std::optional<std::string> clientSecret_;
    std::optional<std::string> applicationId_;
    bool pushEnabledOnDevice_ = false;
    bool backgroundNotificationEnabled_ = false;
    std::optional<std::string> applicationName_;
};
