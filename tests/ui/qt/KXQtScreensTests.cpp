#include <KXClientFramework/KXModalWebViewController.h>
#include <KXClientFramework/KXNavigationStack.h>
#include <KXClientFramework/KXNotificationCenter.h>
#include <KXClientFramework/KXProgressOverlay.h>
#include <KXClientFramework/KXQtMainQueue.h>
#include <KXClientFramework/KXQtPlatform.h>
#include <KXClientFramework/KXTableViewController.h>
#include <KXClientFramework/KXWebViewController.h>

#include "KXLoopbackService.h"

#include <QApplication>
#include <QSignalSpy>
#include <QTest>
#include <QWebEngineView>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

// Installs the Qt platform so that the screens' calls reach a real application object.
std::shared_ptr<KXQtPlatform> installQtPlatform() {
    return KXQtPlatform::install("com.example.screens-tests");
}

bool waitFor(const std::function<bool()>& done, int milliseconds = 20000) {
    return QTest::qWaitFor(done, milliseconds);
}

}  // namespace

TEST(KXQtMainQueue, RunsPostedWorkOnTheEventLoopInOrderNeverInline) {
    KXQtMainQueue queue;
    std::vector<int> order;
    queue.post([&] { order.push_back(1); });
    EXPECT_TRUE(order.empty());
    std::atomic<bool> fromThreadWasMain{true};
    std::thread worker([&] {
        fromThreadWasMain = queue.isMainThread();
        queue.post([&] { order.push_back(queue.isMainThread() ? 2 : -2); });
        queue.postAfter(std::chrono::milliseconds(50), [&] { order.push_back(4); });
    });
    worker.join();
    queue.post([&] { order.push_back(3); });
    EXPECT_FALSE(fromThreadWasMain);
    EXPECT_TRUE(queue.isMainThread());
    ASSERT_TRUE(waitFor([&] { return order.size() == 4; }, 2000));
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

TEST(KXQtMainQueue, WorkQueuedWhenTheQueueGoesIsDropped) {
    bool ran = false;
    {
        KXQtMainQueue queue;
        queue.post([&] { ran = true; });
        queue.postAfter(std::chrono::milliseconds(1), [&] { ran = true; });
    }
    QTest::qWait(50);
    EXPECT_FALSE(ran);
}

// The alerts' message boxes are checked where the inbox screen shows them.
TEST(KXQtPlatform, TheBadgeIsTheWindowTitlesCount) {
    auto platform = installQtPlatform();
    QWidget window;
    platform->showBadgeIn(&window, "Inbox");
    EXPECT_EQ(window.windowTitle(), "Inbox");
    platform->application().setApplicationIconBadgeNumber(3);
    EXPECT_EQ(window.windowTitle(), "Inbox (3)");
    platform->application().setApplicationIconBadgeNumber(0);
    EXPECT_EQ(window.windowTitle(), "Inbox");
}

TEST(KXQtPlatform, LaunchAndQuitBecomeLifeCycleEvents) {
    auto platform = installQtPlatform();
    // Launching leaves the application inactive until a window is active.
    EXPECT_NE(platform->application().applicationState(), KXApplicationState::Background);
    bool terminated = false;
    auto observer = KXNotificationCenter::defaultCenter().addObserver(
        KXApplicationEvent::WillTerminate, [&](const KXNotification&) { terminated = true; });
    QMetaObject::invokeMethod(QCoreApplication::instance(), "aboutToQuit", Qt::DirectConnection);
    EXPECT_TRUE(terminated);
    EXPECT_EQ(platform->application().applicationState(), KXApplicationState::Background);
    KXNotificationCenter::defaultCenter().removeObserver(observer);
}

TEST(KXWebViewController, TheTitleComesFromTheLoadedPage) {
    auto platform = installQtPlatform();
    const struct {
        const char* html;
        const char* title;
    } cases[] = {
        {"<html><head><title>Spring offers</title></head><body><p>Hi</p></body></html>",
         "Spring offers"},
        {"<html><body><p>No title here</p></body></html>", ""},
    };
    for (const auto& c : cases) {
        KXNavigationStack stack;
        auto* viewer = KXWebViewController::withHTML(nullptr, c.html);
        viewer->setTitle("placeholder");
        QSignalSpy loaded(viewer, &KXWebViewController::titleLoaded);
        stack.push(viewer);
        stack.resize(400, 600);
        stack.show();
        ASSERT_TRUE(waitFor([&] { return loaded.count() > 0; })) << c.html;
        EXPECT_EQ(viewer->title(), c.title);
        EXPECT_EQ(stack.titleLabel()->text(), c.title);
        EXPECT_FALSE(viewer->isLoading());
        EXPECT_FALSE(viewer->spinner()->isVisible());
        EXPECT_TRUE(viewer->refreshBarButtonItem()->isEnabled());
        EXPECT_FALSE(viewer->stopBarButtonItem()->isEnabled());
        EXPECT_FALSE(platform->application().isNetworkActivityIndicatorVisible());
    }
}

TEST(KXWebViewController, PushedItOffersDeleteAndPresentedItOffersDone) {
    installQtPlatform();
    KXNavigationStack stack(new KXViewController);
    auto* pushed = KXWebViewController::withText(nullptr, "Body");
    stack.push(pushed);
    ASSERT_NE(pushed->deleteButtonItem(), nullptr);
    ASSERT_EQ(stack.barButtons().size(), 1);
    EXPECT_EQ(stack.barButtons().front()->text(), "Delete");
    EXPECT_TRUE(stack.backButton()->isVisibleTo(&stack));

    QWidget owner;
    owner.show();
    auto* modal = KXModalWebViewController::withText("Body");
    QSignalSpy dismissed(modal, &KXNavigationStack::dismissed);
    modal->present(&owner);
    EXPECT_TRUE(modal->isPresented());
    EXPECT_EQ(modal->webViewController()->deleteButtonItem(), nullptr);
    ASSERT_EQ(modal->barButtons().size(), 1);
    EXPECT_EQ(modal->barButtons().front()->text(), "Done");
    QTest::mouseClick(modal->barButtons().front(), Qt::LeftButton);
    EXPECT_TRUE(waitFor([&] { return dismissed.count() == 1; }, 2000));
}

TEST(KXWebViewController, TextModeHasNoToolbarNoSpinnerAndCannotBeSelectedOrEdited) {
    installQtPlatform();
    auto* viewer = KXWebViewController::withText(nullptr, "Line one\nLine two");
    KXNavigationStack stack(viewer);
    EXPECT_EQ(viewer->mode(), KXWebViewerMode::AttributedText);
    EXPECT_EQ(viewer->toolbar(), nullptr);
    EXPECT_EQ(viewer->spinner(), nullptr);
    EXPECT_EQ(viewer->webView(), nullptr);
    ASSERT_NE(viewer->messageTextView(), nullptr);
    EXPECT_TRUE(viewer->messageTextView()->isReadOnly());
    EXPECT_EQ(viewer->messageTextView()->textInteractionFlags(), Qt::NoTextInteraction);
    EXPECT_EQ(viewer->messageTextView()->toPlainText(), "Line one\nLine two");
}

TEST(KXNavigationStack, KeyboardPopsAndTheRootStays) {
    auto* root = new KXViewController;
    root->setTitle("Inbox");
    KXNavigationStack stack(root);
    stack.show();
    auto* second = new KXViewController;
    second->setTitle("Message");
    stack.push(second);
    EXPECT_EQ(stack.titleLabel()->text(), "Message");
    QApplication::setActiveWindow(&stack);
    ASSERT_TRUE(QTest::qWaitForWindowActive(&stack));
    second->setFocus();
    QTest::keyClick(second, Qt::Key_Left, Qt::AltModifier);
    EXPECT_EQ(stack.topScreen(), root);
    EXPECT_EQ(stack.titleLabel()->text(), "Inbox");
    EXPECT_FALSE(stack.backButton()->isVisibleTo(&stack));
    stack.pop();
    EXPECT_EQ(stack.depth(), 1);
}

TEST(KXTableViewController, TheOverlayShowsOnlyWhenTheIndicatorIsWanted) {
    QWidget window;
    auto* screen = new KXTableViewController(&window);
    window.resize(320, 480);
    window.show();
    screen->showHUD(true);
    ASSERT_NE(screen->hud(), nullptr);
    EXPECT_TRUE(screen->hud()->isVisible());
    EXPECT_EQ(screen->hud()->labelText(), "Loading");
    EXPECT_EQ(screen->hud()->geometry(), window.rect());
    screen->showHUD(false);
    EXPECT_FALSE(screen->hud()->isVisible());

    screen->setShowLoadingIndicator(false);
    screen->showHUD(true);
    EXPECT_FALSE(screen->hud()->isVisible());
}

TEST(KXWebViewController, TheToolbarFollowsLoadingAndHistoryInURLMode) {
    installQtPlatform();
    KXLoopbackService service;
    auto page = [](const char* title) {
        return KXScriptedAnswer::text(
            200, std::string("<html><head><title>") + title + "</title></head><body></body></html>",
            "text/html");
    };
    service.script("GET", "/one", page("One"));
    KXScriptedAnswer slow = page("Two");
    slow.delay = std::chrono::milliseconds(1500);
    service.script("GET", "/two", slow);
    service.script("GET", "/one", page("One"));

    auto* viewer = KXWebViewController::withURL(
        nullptr, QUrl(QString::fromStdString(service.baseURL() + "/one")));
    QSignalSpy loaded(viewer, &KXWebViewController::titleLoaded);
    KXNavigationStack stack(viewer);
    stack.resize(400, 600);
    stack.show();
    ASSERT_TRUE(waitFor([&] { return loaded.count() == 1; }));
    EXPECT_EQ(viewer->title(), "One");
    EXPECT_FALSE(viewer->backBarButtonItem()->isEnabled());

    viewer->webView()->load(QUrl(QString::fromStdString(service.baseURL() + "/two")));
    ASSERT_TRUE(waitFor([&] { return viewer->isLoading(); }));
    EXPECT_TRUE(viewer->stopBarButtonItem()->isEnabled());
    EXPECT_FALSE(viewer->refreshBarButtonItem()->isEnabled());
    EXPECT_TRUE(viewer->spinner()->isVisible());
    EXPECT_TRUE(viewer->toolbar()->actions().contains(viewer->stopBarButtonItem()));
    ASSERT_TRUE(waitFor([&] { return loaded.count() == 2; }));
    EXPECT_EQ(viewer->title(), "Two");
    EXPECT_TRUE(viewer->backBarButtonItem()->isEnabled());
    EXPECT_TRUE(viewer->toolbar()->actions().contains(viewer->refreshBarButtonItem()));

    viewer->goBackClicked();
    ASSERT_TRUE(waitFor([&] { return loaded.count() == 3; }));
    EXPECT_EQ(viewer->title(), "One");
    EXPECT_TRUE(viewer->forwardBarButtonItem()->isEnabled());
}
