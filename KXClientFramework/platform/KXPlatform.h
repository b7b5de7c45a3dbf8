#pragma once

#include <KXClientFramework/KXAlertPresenter.h>
#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXBackgroundQueue.h>
#include <KXClientFramework/KXBundle.h>
#include <KXClientFramework/KXClock.h>
#include <KXClientFramework/KXDeviceFacts.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXKeychain.h>
#include <KXClientFramework/KXLocationSource.h>
#include <KXClientFramework/KXMainQueue.h>
#include <KXClientFramework/KXNotificationAuthorizer.h>
#include <KXClientFramework/KXUserDefaults.h>

#include <filesystem>
#include <memory>

/// Everything the library needs from the system it runs on, in one object.
///
/// Install one with KXPlatform::install() before using the library. When none is installed,
/// the first use installs the Linux default (KXLinuxPlatform) with the application id taken from
/// $KX_APPLICATION_ID or the program's name.
class KX_EXPORT KXPlatform {
public:
    virtual ~KXPlatform() = default;

    virtual KXMainQueue& mainQueue() = 0;
    virtual KXBackgroundQueue& backgroundQueue() = 0;
    virtual KXApplication& application() = 0;
    virtual KXBundle& mainBundle() = 0;
    virtual KXUserDefaults& userDefaults() = 0;
    virtual KXKeychain& keychain() = 0;
    virtual KXDeviceFacts deviceFacts() const = 0;
    /// The per-user, per-application cache directory (created on demand by writers).
    virtual std::filesystem::path cachesDirectory() const = 0;
    /// A new location source, owned by the caller.
    virtual std::unique_ptr<KXLocationSource> makeLocationSource() = 0;
    virtual KXNotificationAuthorizer& notificationAuthorizer() = 0;
    virtual KXAlertPresenter& alertPresenter() = 0;
    virtual const KXClock& clock() const = 0;

    /// Makes `platform` the process's platform. Replacing a platform while the library is
    /// running is not supported; install once, at start-up.
    static void install(std::shared_ptr<KXPlatform> platform);
    /// The installed platform (installing the Linux default on first use).
    static KXPlatform& current();
    static std::shared_ptr<KXPlatform> currentShared();

    /// A new default platform for this system, used when none was installed. The Linux
    /// platform layer (platform/linux/) defines it: KXLinuxPlatform with the application id
    /// taken from $KX_APPLICATION_ID or the program's name.
    static std::shared_ptr<KXPlatform> makeDefault();
};
