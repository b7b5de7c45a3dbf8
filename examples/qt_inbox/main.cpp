// A Qt window with the ready-made screens against the local sandbox service: the inbox (a
// message opens in the viewer) and the subscription lists, each in a navigation stack of its
// own. The Qt event loop is the library's main queue; the badge shows in the window title.
// scripts/demo.sh --gui starts the sandbox, seals a configuration and runs this.
//
//     example_qt_inbox --config DIR/KXConfig.enc --key KEY --service http://127.0.0.1:PORT
//                      [--business-unit DEMO] [--screenshots DIR]
//
// With --screenshots the window shows each screen in turn, saves inbox.png, message.png and
// lists.png into DIR and quits (scripts/screenshots.sh runs it so under Xvfb).

#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXApplicationDelegate.h>
#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXInboxTableViewController.h>
#include <KXClientFramework/KXListTableViewController.h>
#include <KXClientFramework/KXNavigationStack.h>
#include <KXClientFramework/KXQtPlatform.h>
#include <KXClientFramework/KXWebViewController.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QLabel>
#include <QMainWindow>
#include <QScreen>
#include <QTabWidget>
#include <QTimer>

#include <cstdio>
#include <filesystem>
#include <memory>

namespace {

// Engages when the application has launched, with the automatic guest, and says when the
// guest is there.
class Delegate final : public KXApplicationDelegate {
public:
    Delegate(std::string key, std::function<void(bool)> guestReady)
        : key_(std::move(key)), guestReady_(std::move(guestReady)) {}

    bool respondsTo(KXApplicationDelegateCallback callback) const override {
        return callback == KXApplicationDelegateCallback::DidFinishLaunching ||
               KXApplicationDelegate::respondsTo(callback);
    }

    bool didFinishLaunching(KXApplication& /*application*/, const KXJSON& /*options*/) override {
        KXClientFramework::sharedManager().engageWithAutoGuestUsingKey(
            key_, [this](const std::shared_ptr<KXGuest>&) { guestReady_(true); },
            [this](const KXError& error) {
                std::fprintf(stderr, "qt_inbox: no guest: %s\n",
                             error.localizedDescription().c_str());
                guestReady_(false);
            });
        return true;
    }

private:
    std::string key_;
    std::function<void(bool)> guestReady_;
};

// Waits (without blocking the event loop) until `done` holds, then runs `next`.
void when(std::function<bool()> done, std::function<void()> next, int triesLeft = 300) {
    if (done() || triesLeft == 0) {
        next();
        return;
    }
    QTimer::singleShot(100, [done = std::move(done), next = std::move(next), triesLeft]() mutable {
        when(std::move(done), std::move(next), triesLeft - 1);
    });
}

void save(QWidget& window, const QString& directory, const QString& name) {
    const QString path = QDir(directory).filePath(name);
    // The screen's pixels, so that the web view's own rendering is in the picture too.
    const QPixmap pixels = window.screen()->grabWindow(window.winId());
    std::printf("%s %s\n", pixels.save(path) ? "saved" : "could not save", qPrintable(path));
}

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName("qt_inbox");
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOptions({{"config", "the sealed KXConfig.enc", "file"},
                       {"key", "the configuration's key", "key"},
                       {"service", "the sandbox's address", "url"},
                       {"business-unit", "the business unit", "name", "DEMO"},
                       {"screenshots", "save each screen into this folder and quit", "dir"}});
    parser.process(app);
    if (!parser.isSet("config") || !parser.isSet("key") || !parser.isSet("service")) {
        std::fprintf(stderr, "qt_inbox: --config, --key and --service are required\n");
        return 2;
    }

    KXLinuxPlatformOptions options;
    options.applicationId = "com.example.qtinbox";
    options.resourceDirectories = {
        std::filesystem::absolute(parser.value("config").toStdString()).parent_path()};
    auto platform = std::make_shared<KXQtPlatform>(std::move(options));
    KXPlatform::install(platform);

    // The sandbox is the local development server (environment 3) and the staging token host.
    KXServiceEndpoints endpoints = KXClientFramework::serviceEndpoints();
    endpoints.localServer = parser.value("service").toStdString();
    endpoints.stagingToken = endpoints.localServer;
    KXClientFramework::setServiceEndpoints(endpoints);
    KXClientFramework::setEnvironment(3);
    KXClientFramework::sharedManager().setBusinessUnit(parser.value("business-unit").toStdString());

    QMainWindow window;
    auto* tabs = new QTabWidget;
    tabs->setObjectName("KXDemoTabs");
    auto* waiting = new QLabel("Engaging…");
    waiting->setAlignment(Qt::AlignCenter);
    window.setCentralWidget(waiting);
    window.resize(400, 640);
    platform->showBadgeIn(&window, "Front desk");

    const QString shots = parser.value("screenshots");
    auto delegate = std::make_shared<Delegate>(parser.value("key").toStdString(), [&](bool ok) {
        if (!ok) {
            waiting->setText("Could not engage; is the sandbox running?");
            return;
        }
        auto* inbox = new KXInboxTableViewController;
        inbox->setPagingEnabled(true);
        inbox->setInboxDomainId(KXConfig::defaultConfig().inboxDomainId());
        auto* inboxStack = new KXNavigationStack(inbox);
        auto* lists = new KXListTableViewController("");
        auto* listStack = new KXNavigationStack(lists);
        tabs->addTab(inboxStack, inbox->tabBarIcon(), inbox->title());
        tabs->addTab(listStack, "Lists");
        // Each screen loads when its tab comes up, as a phone's tab bar does.
        QObject::connect(tabs, &QTabWidget::currentChanged, tabs, [=](int index) {
            auto* stack = qobject_cast<KXNavigationStack*>(tabs->widget(index));
            if (stack != nullptr && stack->topScreen() != nullptr) {
                stack->topScreen()->viewWillAppear();
            }
        });
        window.setCentralWidget(tabs);
        if (shots.isEmpty()) {
            return;
        }
        // Screenshots: a message (which marks it read), the inbox with read and unread rows,
        // the lists; then quit.
        when([=] { return !inbox->messages().empty(); },
             [=, &window] {
                 inbox->selectRow(0);
                 when([=] { return inboxStack->depth() == 2; },
                      [=, &window] {
                          QTimer::singleShot(3000, [=, &window] {
                              save(window, shots, "message.png");
                              inboxStack->pop();
                              QTimer::singleShot(1500, [=, &window] {
                                  save(window, shots, "inbox.png");
                                  tabs->setCurrentIndex(1);
                                  when([=] { return lists->switches().size() > 1; },
                                       [=, &window] {
                                           QTimer::singleShot(1000, [=, &window] {
                                               save(window, shots, "lists.png");
                                               QApplication::quit();
                                           });
                                       });
                              });
                          });
                      });
             });
    });
    platform->application().setDelegate(delegate);
    window.show();
    platform->start();
    return QApplication::exec();
}
