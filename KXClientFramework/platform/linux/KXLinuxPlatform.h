#pragma once

#include <KXClientFramework/KXAsioMainQueue.h>
#include <KXClientFramework/KXDirectoryBundle.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXFileKeychain.h>
#include <KXClientFramework/KXFileUserDefaults.h>
#include <KXClientFramework/KXLinuxLocationSource.h>
#include <KXClientFramework/KXLinuxServices.h>
#include <KXClientFramework/KXPlatform.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The capability level a Linux machine reports in KXDeviceFacts: a fixed value above 847.2, so
/// the library handles remote notifications that do background work, which a Linux host can
/// always run.
inline constexpr double kKXLinuxCoreFoundationVersionNumber = 1600.0;

/// How the Linux default platform is set up. Only the application id is needed; everything else
/// has a default that follows the XDG base-directory rules.
struct KXLinuxPlatformOptions {
    /// Names the per-application directories; a reverse-DNS name such as "com.example.kiosk".
    std::string applicationId;
    /// Where resources (KXConfig.enc, Info.plist) are looked up, in order. Empty: the
    /// directories of $KX_RESOURCE_PATH (colon-separated), else the executable's directory and
    /// <executable dir>/../share/<application id>.
    std::vector<std::filesystem::path> resourceDirectories;
    /// Overrides of the information dictionary, merged over Info.plist from the resources.
    std::optional<std::string> infoDictionaryJSON;
    /// Defaults: $XDG_CONFIG_HOME, $XDG_DATA_HOME, $XDG_CACHE_HOME (each + application id), or
    /// ~/.config, ~/.local/share, ~/.cache when those are unset. A given path is used as is.
    std::optional<std::filesystem::path> configDirectory;
    std::optional<std::filesystem::path> dataDirectory;
    std::optional<std::filesystem::path> cacheDirectory;
    /// The answer to notification authorisation requests (there is no prompt on Linux).
    bool notificationsAuthorized = true;
    std::size_t backgroundThreads = 2;
    std::chrono::milliseconds backgroundTimeLimit = std::chrono::seconds(30);
    /// The main queue to use; null makes a KXAsioMainQueue.
    std::shared_ptr<KXMainQueue> mainQueue;
    /// Whether location sources read the desktop's location service (GeoClue 2 on the system
    /// bus) when it answers within locationServiceTimeout. Without it, without an answer, or
    /// with a fixed position ($KX_FIXED_LOCATION), they are sources the host feeds.
    bool desktopLocationService = true;
    std::chrono::milliseconds locationServiceTimeout = std::chrono::milliseconds(500);
};

/// The Linux default platform: runs on desktops, kiosks and embedded devices with no set-up
/// beyond an application id.
class KX_EXPORT KXLinuxPlatform : public KXPlatform {
public:
    explicit KXLinuxPlatform(KXLinuxPlatformOptions options);
    ~KXLinuxPlatform() override;

    KXMainQueue& mainQueue() override;
    KXBackgroundQueue& backgroundQueue() override;
    KXApplication& application() override;
    KXBundle& mainBundle() override;
    KXUserDefaults& userDefaults() override;
    KXKeychain& keychain() override;
    KXDeviceFacts deviceFacts() const override;
    std::filesystem::path cachesDirectory() const override;
    std::unique_ptr<KXLocationSource> makeLocationSource() override;
    KXNotificationAuthorizer& notificationAuthorizer() override;
    KXAlertPresenter& alertPresenter() override;
    const KXClock& clock() const override;

    const KXLinuxPlatformOptions& options() const;
    /// The asio main queue when this platform made one, else null.
    KXAsioMainQueue* asioMainQueue();

    /// Where user defaults (UserDefaults.plist) and the keychain (keychain.plist) live.
    const std::filesystem::path& configDirectory() const;
    const std::filesystem::path& dataDirectory() const;

    /// Installs a KXLinuxPlatform for `applicationId` and returns it.
    static std::shared_ptr<KXLinuxPlatform> installDefault(const std::string& applicationId);

    /// The main queue of the installed platform (installing the Linux default when none is)
    /// when it is a KXAsioMainQueue; throws KXException when the installed platform brought
    /// a main queue of its own.
    static KXAsioMainQueue& defaultMainQueue();

    /// The application id used when none is given: $KX_APPLICATION_ID, else the program's name.
    static std::string defaultApplicationId();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
