#include "KXQtServiceFixture.h"

#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxTableViewController.h>
#include <KXClientFramework/KXNavigationStack.h>
#include <KXClientFramework/KXProgressOverlay.h>
#include <KXClientFramework/KXWebViewController.h>

#include <QLabel>
#include <QListView>
#include <QPushButton>
#include <QScrollBar>

namespace {

KXJSON records(int first, int count) {
    KXJSON list = KXJSON::array();
    for (int i = first; i < first + count; ++i) {
        list.push_back({{"id", "m" + std::to_string(i)},
                        {"subject", "Subject " + std::to_string(i)},
                        {"sender", "Front desk"},
                        {"dateReceived", 1.0e12},
                        {"flags", {{"read", i % 2 == 0}}}});
    }
    return list;
}

KXScriptedAnswer page(int first, int count, bool more) {
    return KXScriptedAnswer::json(200,
                                  {{"records", records(first, count)}, {"hasMoreRecords", more}});
}

class KXQtInboxTest : public KXQtServiceTest {
protected:
    KXQtInboxTest() {
        // The domain allows deleting, so the Edit button shows.
        KXInboxSummary summary;
        summary.setInboxDomainId("d1");
        KXInbox::shared().setSummary(summary);
        service.script("GET", kInbox, KXScriptedAnswer::json(200, {{"inboxDomainId", "d1"}}));
    }

    /// An inbox screen at the root of a shown stack, once its first page has arrived.
    void show(int expectedRows, bool paging = false, int height = 600) {
        inbox = new KXInboxTableViewController;
        inbox->setInboxDomainId("d1");
        inbox->setPagingEnabled(paging);
        stack = std::make_unique<KXNavigationStack>(inbox);
        stack->resize(360, height);
        stack->show();
        QApplication::setActiveWindow(stack.get());
        ASSERT_TRUE(QTest::qWaitForWindowActive(stack.get()));
        inbox->tableView()->setFocus();
        ASSERT_TRUE(waitFor([&] { return rows() == expectedRows && !inbox->hud()->isVisible(); }));
    }

    int rows() const { return inbox->model()->rowCount(); }

    void tap(int row) {
        QListView* view = inbox->tableView();
        QTest::mouseClick(view->viewport(), Qt::LeftButton, {},
                          view->visualRect(view->model()->index(row, 0)).center());
    }

    QStringList barTitles() const {
        QStringList titles;
        for (QToolButton* button : stack->barButtons()) {
            titles << button->text();
        }
        return titles;
    }

    std::unique_ptr<KXNavigationStack> stack;
    KXInboxTableViewController* inbox = nullptr;
};

using KXQtPlatformAlertsTest = KXQtServiceTest;

/// The message ids of the DELETE requests seen after the first `skip` of them, sorted.
std::vector<std::string> deletedIds(const std::vector<std::string>& targets, std::size_t skip) {
    std::vector<std::string> ids;
    for (std::size_t i = skip; i < targets.size(); ++i) {
        ids.push_back(targets[i].substr(targets[i].rfind('/') + 1));
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

}  // namespace

// OK and Cancel are pressed on the editing flow's action sheet below.
TEST_F(KXQtPlatformAlertsTest, EscapeOnAnActionSheetReportsItsCancelButton) {
    std::optional<std::size_t> reported;
    KXAlert sheet{"Sure?", "", {"OK", "Cancel"}};
    sheet.style = KXAlertStyle::ActionSheet;
    sheet.destructiveButton = 0;
    sheet.cancelButton = 1;
    sheet.onDismiss = [&](std::size_t button) { reported = button; };
    platform->alertPresenter().present(sheet);
    QMessageBox* box = shownMessageBox();
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(box->defaultButton()->text(), "Cancel");
    QTest::keyClick(box, Qt::Key_Escape);
    ASSERT_TRUE(waitFor([&] { return reported.has_value(); }, 2000));
    EXPECT_EQ(reported, std::optional<std::size_t>(1));
}

TEST_F(KXQtInboxTest, ATapOpensTheMessageOrShowsTheErrorAlert) {
    service.script("GET", std::string(kInbox) + "/messages", page(0, 3, false));
    service.script("POST", std::string(kInbox) + "/messages/m1/read", KXScriptedAnswer::empty(200));
    service.script(
        "GET", std::string(kInbox) + "/messages/m1",
        KXScriptedAnswer::json(200, {{"header", {{"id", "m1"}, {"contentType", "text/html"}}},
                                     {"content", "<html><body>Hello</body></html>"}}));
    service.script("GET", std::string(kInbox) + "/messages/m2",
                   KXScriptedAnswer::json(
                       200, {{"header", {{"contentType", "text/plain"}}}, {"content", "Plain"}}));
    service.script("GET", std::string(kInbox) + "/messages/m0", KXScriptedAnswer::empty(500));
    show(3);
    EXPECT_EQ(inbox->title(), "Inbox");
    EXPECT_FALSE(inbox->tabBarIcon().isNull());
    EXPECT_EQ(barTitles(), QStringList{"Edit"});

    const struct {
        int row;
        std::optional<KXWebViewerMode> opens;  // absent: the error alert
    } cases[] = {{1, KXWebViewerMode::HTMLString}, {2, KXWebViewerMode::AttributedText}, {0, {}}};
    std::int64_t badge = 0;
    platform->application().setApplicationIconBadgeNumber(badge);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.row);
        tap(c.row);
        EXPECT_TRUE(inbox->messages()[static_cast<std::size_t>(c.row)]->read());
        if (c.opens) {
            ASSERT_TRUE(waitFor([&] { return stack->depth() == 2; }));
            auto* viewer = qobject_cast<KXWebViewController*>(stack->topScreen());
            ASSERT_NE(viewer, nullptr);
            EXPECT_EQ(viewer->mode(), *c.opens);
            EXPECT_EQ(platform->application().applicationIconBadgeNumber(), --badge);
            EXPECT_TRUE(inbox->model()
                            ->index(c.row, 0)
                            .data(Qt::AccessibleTextRole)
                            .toString()
                            .endsWith(", read"));
            stack->pop();
        } else {
            QMessageBox* box = shownMessageBox();
            ASSERT_NE(box, nullptr);
            EXPECT_EQ(box->windowTitle(), "Error");
            EXPECT_EQ(box->text(), "Error retrieving message details");
            ASSERT_EQ(box->buttons().size(), 1);
            EXPECT_EQ(box->buttons().front()->text(), "Okay");
            press(box, "Okay");
            EXPECT_EQ(stack->depth(), 1);
        }
        // Coming back loads the list again.
        ASSERT_TRUE(waitFor([&] { return rows() == 3 && !inbox->hud()->isVisible(); }));
    }
    EXPECT_EQ(targets("POST", std::string(kInbox) + "/messages/m1/read").size(), 1U);
}

TEST_F(KXQtInboxTest, EditingDeletesTheSelectedMessagesOrAllOfThem) {
    const struct {
        const char* name;
        std::vector<int> tapped;
        const char* deleteTitle;
        const char* question;
        const char* answer;
        std::vector<std::string> deleted;
        int rowsLeft;  // the empty cell counts as one
    } cases[] = {
        {"two of five", {3, 1}, "Delete (2)", "these messages?", "OK", {"m3", "m1"}, 3},
        {"none", {}, "Delete All", "these messages?", "OK", {"m0", "m1", "m2", "m3", "m4"}, 1},
        {"cancelled", {2}, "Delete (1)", "this message?", "Cancel", {}, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::size_t before = targets("DELETE", kInbox).size();
        service.script("GET", std::string(kInbox) + "/messages", page(0, 5, false));
        for (int i = 0; i < 5; ++i) {
            service.script("DELETE", std::string(kInbox) + "/messages/m" + std::to_string(i),
                           KXScriptedAnswer::empty(200));
        }
        show(5);
        QTest::keyClick(inbox->tableView(), Qt::Key_E, Qt::ControlModifier);
        ASSERT_TRUE(inbox->isEditing());
        EXPECT_EQ(barTitles(), (QStringList{"Delete All", "Cancel"}));
        for (int row : c.tapped) {
            tap(row);
        }
        EXPECT_EQ(barTitles().front(), c.deleteTitle);
        QTest::keyClick(inbox->tableView(), Qt::Key_Delete);
        QMessageBox* sheet = shownMessageBox();
        ASSERT_NE(sheet, nullptr);
        EXPECT_EQ(sheet->windowTitle(), QString("Are you sure you want to delete ") + c.question);
        press(sheet, c.answer);
        ASSERT_TRUE(
            waitFor([&] { return targets("DELETE", kInbox).size() == before + c.deleted.size(); }));
        QTest::qWait(50);
        std::vector<std::string> expected = c.deleted;
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(deletedIds(targets("DELETE", kInbox), before), expected);
        EXPECT_EQ(rows(), c.rowsLeft);
        EXPECT_EQ(inbox->isEditing(), c.deleted.empty());
        for (const auto& message : inbox->messages()) {
            EXPECT_EQ(std::count(c.deleted.begin(), c.deleted.end(), *message->messageId()), 0);
        }
        stack.reset();
    }
}

TEST_F(KXQtInboxTest, ScrollingToTheBottomAsksForTheNextPageOnceAndRefreshKeepsThePage) {
    const std::string messages = std::string(kInbox) + "/messages";
    service.script("GET", messages, page(0, 20, true));
    KXScriptedAnswer second = page(20, 5, false);
    second.delay = std::chrono::milliseconds(500);
    service.script("GET", messages, second);
    show(20, true, 300);
    QScrollBar* bar = inbox->tableView()->verticalScrollBar();
    ASSERT_TRUE(waitFor([&] { return bar->maximum() > 0; }));  // the rows are laid out later
    bar->setValue(bar->maximum() - 1);
    EXPECT_TRUE(targets("GET", messages + "?offset=20").empty());
    for (int i = 0; i < 3; ++i) {
        bar->setValue(bar->maximum() - 1);
        bar->setValue(bar->maximum());
    }
    ASSERT_TRUE(waitFor([&] { return rows() == 25; }));
    EXPECT_EQ(targets("GET", messages + "?offset=20&limit=20").size(), 1U);
    EXPECT_EQ(inbox->paging().currentPage, 2);

    // Refresh asks for the current page again and shows only it.
    QTest::keyClick(inbox->tableView(), Qt::Key_F5);
    ASSERT_TRUE(waitFor([&] { return rows() == 5; }));
    EXPECT_EQ(targets("GET", messages + "?offset=20&limit=20").size(), 2U);
    bar->setValue(bar->maximum());
    QTest::qWait(100);
    EXPECT_EQ(targets("GET", messages).size(), 3U);  // no more records: no page 3
}

TEST_F(KXQtInboxTest, PullingDownPastTheTopOnATouchScreenRefreshesOnce) {
    const std::string messages = std::string(kInbox) + "/messages";
    service.script("GET", messages, page(0, 20, false));
    show(20, false, 300);
    QPointingDevice* screen = QTest::createTouchDevice(QInputDevice::DeviceType::TouchScreen);
    // Points are given in the view, which stays put while the viewport moves down with the gap.
    QListView* view = inbox->tableView();
    QScrollBar* bar = view->verticalScrollBar();
    ASSERT_TRUE(waitFor([&] { return bar->maximum() >= 200; }));
    const struct {
        const char* name;
        int scrolled;  // the scroll position the pull starts from
        int pull;      // how far the finger moves down
        int refreshes;
        int scrolledAfter;
    } cases[] = {
        {"past the threshold at the top", 0, 100, 1, 0},
        {"short of the threshold", 0, 40, 0, 0},
        {"scrolled down", 200, 150, 0, 50},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        bar->setValue(c.scrolled);
        const std::size_t before = targets("GET", messages).size();
        QPoint finger(180, 40);
        QTest::touchEvent(view, screen).press(0, finger);
        for (int step = 0; step < 5; ++step) {
            finger.ry() += c.pull / 5;
            QTest::touchEvent(view, screen).move(0, finger);
        }
        EXPECT_EQ(bar->value(), c.scrolledAfter);
        QTest::touchEvent(view, screen).release(0, finger);
        if (c.refreshes > 0) {
            ASSERT_TRUE(waitFor([&] { return targets("GET", messages).size() > before; }));
        }
        QTest::qWait(200);
        EXPECT_EQ(targets("GET", messages).size(), before + c.refreshes);
        EXPECT_TRUE(waitFor([&] { return !inbox->hud()->isVisible(); }));
        EXPECT_FALSE(view->findChild<QLabel*>("KXInboxPullIndicator")->isVisible());
    }
}
