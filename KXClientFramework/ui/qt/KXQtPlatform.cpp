#include "KXQtPlatform.h"

#include "KXQtMainQueue.h"

#include <KXClientFramework/KXBadgeTitle.h>
#include <KXClientFramework/KXLifeCycleEvents.h>

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>

#include <vector>

namespace {

KXApplicationState stateOf(Qt::ApplicationState state) {
    switch (state) {
        case Qt::ApplicationActive:
            return KXApplicationState::Active;
        case Qt::ApplicationInactive:
            return KXApplicationState::Inactive;
        default:
            return KXApplicationState::Background;
    }
}

struct BadgeWindow {
    QPointer<QWidget> window;
    QString title;
};

// The application object whose badge is the count in the registered windows' titles.
class KXQtApplication final : public KXApplication {
public:
    using KXApplication::KXApplication;

    void addWindow(QWidget* window, const QString& title) {
        windows_.push_back({window, title});
        showBadge(windows_.back(), applicationIconBadgeNumber());
    }

protected:
    void onBadgeNumberChanged(std::int64_t number) override {
        for (const BadgeWindow& entry : windows_) {
            showBadge(entry, number);
        }
    }

private:
    static void showBadge(const BadgeWindow& entry, std::int64_t number) {
        if (entry.window) {
            entry.window->setWindowTitle(
                QString::fromStdString(kxBadgeWindowTitle(entry.title.toStdString(), number)));
        }
    }

    std::vector<BadgeWindow> windows_;
};

// Alerts as Qt message boxes that do not block the event loop. An action sheet belongs to the
// window the user is working in, so it is modal to that window only.
class KXQtAlertPresenter final : public KXAlertPresenter {
public:
    void present(const KXAlert& alert) override {
        QWidget* owner =
            alert.style == KXAlertStyle::ActionSheet ? QApplication::activeWindow() : nullptr;
        auto* box =
            new QMessageBox(QMessageBox::NoIcon, QString::fromStdString(alert.title),
                            QString::fromStdString(alert.message), QMessageBox::NoButton, owner);
        box->setAttribute(Qt::WA_DeleteOnClose);
        if (owner != nullptr) {
            box->setWindowModality(Qt::WindowModal);
        }
        QList<QAbstractButton*> buttons;
        for (std::size_t index = 0; index < alert.buttons.size(); ++index) {
            QMessageBox::ButtonRole role = QMessageBox::AcceptRole;
            if (alert.cancelButton == index) {
                role = QMessageBox::RejectRole;
            } else if (alert.destructiveButton == index) {
                role = QMessageBox::DestructiveRole;
            }
            buttons.push_back(box->addButton(QString::fromStdString(alert.buttons[index]), role));
        }
        if (alert.buttons.empty()) {
            box->addButton(QMessageBox::Ok);
        }
        if (alert.cancelButton && *alert.cancelButton < alert.buttons.size()) {
            // Enter must not confirm a destructive action by accident: the default is Cancel.
            box->setEscapeButton(buttons[static_cast<qsizetype>(*alert.cancelButton)]);
            box->setDefaultButton(
                qobject_cast<QPushButton*>(buttons[static_cast<qsizetype>(*alert.cancelButton)]));
        }
        box->setAccessibleName(QString::fromStdString(alert.title));
        if (alert.onDismiss) {
            QObject::connect(
                box, &QMessageBox::finished, box,
                [box, buttons, onDismiss = alert.onDismiss, cancel = alert.cancelButton] {
                    const qsizetype pressed = buttons.indexOf(box->clickedButton());
                    if (pressed >= 0) {
                        onDismiss(static_cast<std::size_t>(pressed));
                    } else if (cancel) {
                        onDismiss(*cancel);
                    }
                });
        }
        box->open();
    }
};

}  // namespace

struct KXQtPlatform::Impl {
    std::shared_ptr<KXQtMainQueue> mainQueue;
    std::unique_ptr<KXLinuxPlatform> linux;
    std::unique_ptr<KXQtApplication> application;
    KXQtAlertPresenter alerts;
    QObject connections;  // owns the signal connections to the application
};

KXQtPlatform::KXQtPlatform(KXLinuxPlatformOptions options) : impl_(std::make_unique<Impl>()) {
    impl_->mainQueue = std::make_shared<KXQtMainQueue>();
    options.mainQueue = impl_->mainQueue;
    const auto backgroundTimeLimit = options.backgroundTimeLimit;
    impl_->linux = std::make_unique<KXLinuxPlatform>(std::move(options));
    impl_->application = std::make_unique<KXQtApplication>(*impl_->mainQueue, backgroundTimeLimit);
}

KXQtPlatform::~KXQtPlatform() = default;

KXMainQueue& KXQtPlatform::mainQueue() {
    return *impl_->mainQueue;
}
KXBackgroundQueue& KXQtPlatform::backgroundQueue() {
    return impl_->linux->backgroundQueue();
}
KXApplication& KXQtPlatform::application() {
    return *impl_->application;
}
KXBundle& KXQtPlatform::mainBundle() {
    return impl_->linux->mainBundle();
}
KXUserDefaults& KXQtPlatform::userDefaults() {
    return impl_->linux->userDefaults();
}
KXKeychain& KXQtPlatform::keychain() {
    return impl_->linux->keychain();
}
KXDeviceFacts KXQtPlatform::deviceFacts() const {
    return impl_->linux->deviceFacts();
}
std::filesystem::path KXQtPlatform::cachesDirectory() const {
    return impl_->linux->cachesDirectory();
}
std::unique_ptr<KXLocationSource> KXQtPlatform::makeLocationSource() {
    return impl_->linux->makeLocationSource();
}
KXNotificationAuthorizer& KXQtPlatform::notificationAuthorizer() {
    return impl_->linux->notificationAuthorizer();
}
KXAlertPresenter& KXQtPlatform::alertPresenter() {
    return impl_->alerts;
}
const KXClock& KXQtPlatform::clock() const {
    return impl_->linux->clock();
}

void KXQtPlatform::showBadgeIn(QWidget* window, const QString& title) {
    impl_->application->addWindow(window, title);
}

void KXQtPlatform::start() {
    KXApplication& application = *impl_->application;
    application.postEvent(KXApplicationEvent::DidFinishLaunching);
    auto follow = [&application](Qt::ApplicationState state) {
        for (KXApplicationEvent event :
             kxLifeCycleEvents(application.applicationState(), stateOf(state))) {
            application.postEvent(event);
        }
    };
    follow(QGuiApplication::applicationState());
    if (auto* gui = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        QObject::connect(gui, &QGuiApplication::applicationStateChanged, &impl_->connections,
                         follow);
    }
    // Quitting passes through the background first, as a phone application closed by its user
    // does, so that observers of the background (the analytics session's end) run too.
    QObject::connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit,
                     &impl_->connections, [&application] {
                         for (KXApplicationEvent event : kxLifeCycleEvents(
                                  application.applicationState(), KXApplicationState::Background)) {
                             application.postEvent(event);
                         }
                         application.postEvent(KXApplicationEvent::WillTerminate);
                     });
}

std::shared_ptr<KXQtPlatform> KXQtPlatform::install(const std::string& applicationId) {
    KXLinuxPlatformOptions options;
    options.applicationId = applicationId;
    auto platform = std::make_shared<KXQtPlatform>(std::move(options));
    KXPlatform::install(platform);
    platform->start();
    return platform;
}
