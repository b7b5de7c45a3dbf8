#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/KXPlatform.h>

#include <QPointer>
#include <QString>
#include <QWidget>

#include <memory>

class KXQtMainQueue;

/// The platform of a Qt application: the main queue is the Qt event loop; the application's
/// state changes and quitting become the library's life-cycle events; alerts are Qt message
/// boxes; the badge is a count in the window titles of the windows given to showBadgeIn().
/// Storage, keychain, device facts and location come from the Linux default.
///
/// Make the QApplication first, then install:
///     auto platform = KXQtPlatform::install("com.example.kiosk");
class KX_EXPORT KXQtPlatform final : public KXPlatform {
public:
    /// `options.mainQueue` is ignored: the Qt event loop is the main queue.
    explicit KXQtPlatform(KXLinuxPlatformOptions options);
    ~KXQtPlatform() override;

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

    /// Shows the badge in `window`'s title: "<title> (<badge>)", just the title at 0.
    void showBadgeIn(QWidget* window, const QString& title);

    /// Makes and installs a Qt platform for `applicationId`, posts the launch and follows the
    /// application's state from then on.
    static std::shared_ptr<KXQtPlatform> install(const std::string& applicationId);

    /// Posts the launch event and the current state, then follows state changes and quitting.
    void start();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
