#pragma once

#include <KXClientFramework/KXApplicationTypes.h>
#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXGuarded.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXServiceEndpoints.h>
#include <KXClientFramework/KXSettings.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

class KXAnalytics;
class KXClientFrameworkAppDelegateProxy;
class KXGuest;
struct KXNotification;

/// The library's façade.
///
/// The shared manager, sharedManager(), gives the application the settings that the other
/// components read: the service environment, the business unit, the REST logging switch and,
/// once the application authenticated through it, the client credentials and the application
/// id. They live in the process's KXSettings (KXSettings::shared()), to which the shared
/// manager's getters and setters forward; any other object of this class keeps settings of its
/// own. Every accessor may be called from any thread.
///
/// The application joins the service with one call on the main thread while it launches:
///
///     KXClientFramework::sharedManager().engageUsingKey(key);
///
/// Engaging creates a second object of this class, the engaged object (sharedZandrel()),
/// which holds the dispatcher installed as the application's delegate; whether the library is
/// engaged is judged by that object alone. eject() (called when the application terminates)
/// gives the application its own delegate back and drops the engaged object; the settings, the
/// configuration and the token stay.
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

    // Engagement (main thread).

    /// Joins the service: checks the main thread (else throws KXException
    /// "KXClientFrameworkEngageBackgroundThreadException"), installs the dispatcher as the
    /// application's delegate, opens the bundle's KXConfig.enc with `key` (a missing file shows
    /// the missing-file alert; one that does not open with the key stops the process), switches
    /// location by the configuration, chooses the credentials (authZconfig()), authenticates,
    /// and registers for notifications (also without a configuration). The token arrives later;
    /// requests made meanwhile wait for it in the transport. Only the first call engages; later
    /// ones only recompute backgroundNotificationEnabled().
    void engageUsingKey(const std::string& key);
    /// Tells the application how the authentication that engageUsingKey() starts ended: on the
    /// main queue, with std::nullopt once the bearer token arrived, or with the error (after the
    /// ERROR line "Error Zandrel had trouble starting."). Set it before engaging; an empty
    /// function removes it. Engaging without a configuration starts no authentication, and the
    /// handler is not called.
    static void setEngagementAuthenticationHandler(
        std::function<void(const std::optional<KXError>&)> handler);

    /// engageUsingKey(), then makes sure a guest exists for this installation. With the
    /// configuration's autoGuestEnabled, the guest id stored under autoGuestStorageKey() is
    /// fetched, or without one a new guest is registered; either way the guest's externalId is
    /// stored (back) under that key and `success` gets the guest, or `failure` the error (the
    /// stored id then stays). Without autoGuestEnabled the entry is removed, the current guest
    /// logged out, and `success` gets null. Either block may be empty.
    void engageWithAutoGuestUsingKey(const std::string& key,
                                     std::function<void(const std::shared_ptr<KXGuest>&)> success,
                                     std::function<void(const KXError&)> failure);
    /// The user-defaults key of the automatic guest's id: "<client id>-GUEST-ID" with the
    /// configuration's production client id when inProduction, the staging one otherwise.
    static std::string autoGuestStorageKey();
    /// Re-initialises the shared token client with the credentials and authenticates; either
    /// block may be empty. Callbacks arrive on the main queue.
    void authenticateWithClientId(const std::optional<std::string>& clientId,
                                  const std::optional<std::string>& secret,
                                  std::function<void()> success,
                                  std::function<void(const KXError&)> failureBlock);

    /// Takes the production or the staging credentials of the configuration (by its
    /// inProduction) and its appId.
    void authZconfig();

    /// One entry of the user defaults: set (absent removes it), read, remove; writes are
    /// synchronised at once.
    void saveUserDefaultsExternalId(const std::optional<std::string>& externalId,
                                    const std::string& key);
    std::optional<std::string> retrieveUserDefaultsExternalIdForKey(const std::string& key) const;
    void deleteUserDefaultsExternalIdForKey(const std::string& key);

    /// The engaged object; null before engagement and after eject().
    std::shared_ptr<KXClientFramework> sharedZandrel() const;

    /// The dispatcher installed as the application's delegate (on the engaged object).
    std::shared_ptr<KXClientFrameworkAppDelegateProxy> appDelegate() const;
    void setAppDelegate(std::shared_ptr<KXClientFrameworkAppDelegateProxy> proxy);

    /// Stored for the application; the live analytics switch is the global analyticsEnabled.
    bool analyticsEnabled() const;
    void setAnalyticsEnabled(bool enabled);

    /// The running analytics engine of the engaged object, or null (see enableAnalytics()).
    std::shared_ptr<KXAnalytics> analytics() const;
    void setAnalytics(std::shared_ptr<KXAnalytics> analytics);
    /// Hands a remote notification that reached the library's delegate, with the application's
    /// state, to the analytics engine, if one runs.
    void handleNotificationForAnalytics(const KXJSON& userInfo, KXApplicationState state) const;

    // Life cycle.

    /// Observes the application's launch and termination on the default notification centre.
    /// Runs by itself when the library is loaded; only the first call registers, so each
    /// handler runs at most once per process.
    static void load();
    /// The launch handler (runs once): with the library engaged, switches analytics on when the
    /// configuration asks for it (handing the engine the launch options' remote notification)
    /// and switches location by the configuration; otherwise logs that engageUsingKey() was not
    /// called in time.
    static void handleAppDidFinishLaunchingNotification(const KXNotification& notification);
    /// The termination handler (runs once): eject().
    static void handleAppTerminationNotification(const KXNotification& notification);
    /// Gives the application the delegate it had before engagement and drops the engaged
    /// object. Does nothing when not engaged.
    static void eject();
    /// Switches the global analyticsEnabled and the engine; refused (DEBUG line) while not
    /// engaged. On: creates the engine when there is none (it observes the application's life
    /// from then on) and makes it KXAnalytics::engaged(). Off: ends the running engine's
    /// session and drops it. eject() drops it too.
    static void enableAnalytics(bool enabled);

    /// The base URLs of the service and its token endpoint. The transport's base URL is taken
    /// when the shared transport is created or reset (KXSessionManager::configureBaseUrl()); the
    /// token endpoint is read at each token request.
    static void setServiceEndpoints(KXServiceEndpoints endpoints);
    static KXServiceEndpoints serviceEndpoints();

private:
    template <typename T, typename... Args>
    friend T& kxProcessWide(Args&&... args);
    explicit KXClientFramework(KXSettings& settings);

    std::unique_ptr<KXSettings> ownSettings_;
    KXSettings& settings_;
    KXGuarded<bool> analyticsEnabled_{false};
    KXGuarded<std::shared_ptr<KXClientFrameworkAppDelegateProxy>> appDelegate_;
    KXGuarded<std::shared_ptr<KXAnalytics>> analytics_;
};
