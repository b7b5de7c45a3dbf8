#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXNotificationCenter.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

class KXAnalytics;
class KXClientFramework;
class KXClientFrameworkAppDelegateProxy;
class KXConfig;
class KXGuest;
class KXLocationService;
class KXOAuth2Client;
class KXPlatform;

/// Engaging the library with the service, and the application-life handlers that go with it:
/// the dispatcher put in the application delegate's place, the configuration, location, the
/// credentials and the authentication, the registration for notifications, the automatic
/// guest, the launch and termination handlers, eject and the analytics switch.
///
/// The façade's engagement calls forward to shared(), which works with the process's objects.
/// Anything else (a test, an embedding with a platform of its own) makes an engagement with the
/// collaborators it chooses. An engagement that is destroyed while engaged ejects first.
class KX_EXPORT KXEngagement {
public:
    struct Collaborators {
        /// The platform, looked up at each use: the process's platform may be installed after
        /// the library has loaded and made its engagement.
        std::function<KXPlatform&()> platform;
        KXConfig& configuration;
        KXOAuth2Client& tokenClient;
        KXLocationService& location;
        /// Where the launch and termination events are observed.
        KXNotificationCenter& notificationCenter;
        /// Makes the dispatcher that takes the application delegate's place.
        std::function<std::shared_ptr<KXClientFrameworkAppDelegateProxy>()> makeDispatcher;
        /// Makes the analytics engine when analytics is switched on.
        std::function<std::shared_ptr<KXAnalytics>()> makeAnalytics;
    };

    /// Told how the authentication that engaging starts ended: std::nullopt once the token
    /// arrived, or the error.
    using AuthenticationHandler = std::function<void(const std::optional<KXError>&)>;

    explicit KXEngagement(Collaborators collaborators);
    ~KXEngagement();
    KXEngagement(const KXEngagement&) = delete;
    KXEngagement& operator=(const KXEngagement&) = delete;

    /// The engagement of the façade, made (with the process's objects) when the library loads.
    static KXEngagement& shared();

    /// Engages once (see KXClientFramework::engageUsingKey()); `caller` is the façade object
    /// that receives the background-notification flag and the chosen credentials.
    void engage(KXClientFramework& caller, const std::string& key);
    /// engage(), then the automatic guest (see KXClientFramework::engageWithAutoGuestUsingKey()).
    void engageWithAutoGuest(KXClientFramework& caller, const std::string& key,
                             std::function<void(const std::shared_ptr<KXGuest>&)> success,
                             std::function<void(const KXError&)> failure);
    /// "<client id>-GUEST-ID" with the client id the configuration's inProduction chooses.
    std::string autoGuestStorageKey() const;
    /// Gives `caller` the configuration's production or staging credentials and its appId.
    void chooseCredentials(KXClientFramework& caller) const;
    /// Re-initialises the token client with the credentials and authenticates.
    void authenticate(const std::optional<std::string>& clientId,
                      const std::optional<std::string>& secret, std::function<void()> success,
                      std::function<void(const KXError&)> failure);

    /// Replaces the handler told of engaging's authentication (empty: none). Engaging takes the
    /// handler set at that moment.
    void setAuthenticationHandler(AuthenticationHandler handler);

    /// Observes launch and termination on the notification centre; only the first call
    /// registers, and each handler runs at most once.
    void observeLaunchAndTermination();
    void handleLaunch(const KXNotification& notification);
    void handleTermination(const KXNotification& notification);
    void eject();
    void enableAnalytics(bool enabled);

    /// The engaged object; null before engagement and after eject().
    std::shared_ptr<KXClientFramework> engaged() const;

private:
    KXPlatform& platform() const;
    bool switchLocationService();
    std::optional<KXNotificationCenter::Token> takeObserver(
        std::optional<KXNotificationCenter::Token> KXEngagement::*observer);

    Collaborators collaborators_;
    mutable std::mutex mutex_;
    std::shared_ptr<KXClientFramework> engaged_;
    AuthenticationHandler authenticationHandler_;
    bool observing_ = false;
    std::optional<KXNotificationCenter::Token> launchObserver_;
    std::optional<KXNotificationCenter::Token> terminationObserver_;
};
