#include "KXQtServiceFixture.h"

#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXListTableViewController.h>
#include <KXClientFramework/KXProgressOverlay.h>

#include <QCheckBox>
#include <QInputDialog>
#include <QLineEdit>
#include <QPushButton>

namespace {

const std::string kBase = "/KXFrontier-stg";

class KXQtListTest : public KXQtServiceTest {
protected:
    KXQtListTest() {
        KXDevice::currentDevice().setDeviceToken("token-1");
        service.script(
            "GET", kBase + "/lists",
            KXScriptedAnswer::json(
                200, {{"records",
                       {{{"externalId", "news"}, {"name", "News"}}, {{"externalId", "offers"}}}},
                      {"hasMoreRecords", false}}));
        const KXJSON push = {{"channel", "APNS_PUSH"},
                             {"attributes", {{"applicationToken", "token-1"}}}};
        service.script(
            "GET", kBase + "/guests/g1",
            KXScriptedAnswer::json(200, {{"externalId", "g1"},
                                         {"deliveryProfiles",
                                          {{{"id", "push"},
                                            {"address", push},
                                            {"memberships", {{{"recipientListId", "offers"}}}}},
                                           {{"id", "p1"},
                                            {"address", {{"channel", "EMAIL"}}},
                                            {"memberships", {{{"recipientListId", "news"}}}}}}}}));
    }

    /// The targets of the membership requests seen so far.
    std::vector<std::string> membershipRequests() const {
        std::vector<std::string> seen;
        for (const KXRecordedRequest& request : service.requests()) {
            if (request.path.find("/memberships/") != std::string::npos) {
                seen.push_back(request.method + " " +
                               request.path.substr(0, request.path.find('?')));
            }
        }
        return seen;
    }
};

}  // namespace

TEST_F(KXQtListTest, SwitchesShowTheMembershipsAndSendTheirRequests) {
    const std::string memberships = kBase + "/guests/g1/profiles/";
    const struct {
        const char* name;
        std::function<void(KXListTableViewController&)> configure;
        std::vector<bool> shown;
        std::vector<std::string> requests;  // after flipping both switches
    } cases[] = {
        {"the device's push profile",
         [](KXListTableViewController&) {},
         {false, true},
         {"PUT " + memberships + "push/memberships/news",
          "DELETE " + memberships + "push/memberships/offers"}},
        {"a chosen profile and two more affected",
         [](KXListTableViewController& screen) {
             screen.setDeliveryProfileId("p1");
             screen.addAffectedProfile("p2");
             screen.addAffectedProfile("p3");
         },
         {true, false},
         {"DELETE " + memberships + "p1/memberships/news",
          "DELETE " + memberships + "p2/memberships/news",
          "DELETE " + memberships + "p3/memberships/news",
          "PUT " + memberships + "p1/memberships/offers",
          "PUT " + memberships + "p2/memberships/offers",
          "PUT " + memberships + "p3/memberships/offers"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::size_t before = membershipRequests().size();
        KXListTableViewController screen("g1");
        c.configure(screen);
        screen.resize(360, 480);
        screen.show();
        ASSERT_TRUE(waitFor([&] {
            return screen.switches().size() == 2 && screen.guest() != nullptr &&
                   !screen.hud()->isVisible();
        }));
        ASSERT_EQ(screen.switches().size(), 2);
        EXPECT_EQ(screen.switches()[0]->accessibleName(), "Newstoggle");
        EXPECT_EQ(screen.switches()[1]->accessibleName(), "offerstoggle");  // no name: the id
        EXPECT_EQ(screen.rightBarActions(), QList<QAction*>{screen.filterButtonItem()});
        for (int row = 0; row < 2; ++row) {
            EXPECT_EQ(screen.switches()[row]->isChecked(), c.shown[static_cast<std::size_t>(row)])
                << row;
        }
        // Space on each focused switch flips it.
        for (QCheckBox* toggle : screen.switches()) {
            toggle->setFocus();
            QTest::keyClick(toggle, Qt::Key_Space);
        }
        ASSERT_TRUE(
            waitFor([&] { return membershipRequests().size() == before + c.requests.size(); }));
        QTest::qWait(100);
        const std::vector<std::string> all = membershipRequests();
        std::vector<std::string> sent(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
        // The requests run side by side, so they may arrive in any order.
        std::vector<std::string> expected = c.requests;
        std::sort(sent.begin(), sent.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(sent, expected);
    }
}

TEST_F(KXQtListTest, FilterAndColourDialogsActOnTheButtonPressed) {
    const QColor grey(170, 170, 170);
    using Screen = KXListTableViewController;
    const struct {
        const char* name;
        void (Screen::*open)();
        QString button;
        QString typed{};                // filter dialog only
        const char* refetch = nullptr;  // filter dialog: the start of the next lists request
        int rows = 0;                   // filter dialog: rows the refetch answers with
        QColor even{}, odd{};           // colour dialogs: the backgrounds of rows 0 and 1
    } cases[] = {
        {.name = "filter, Ok",
         .open = &Screen::filterListPressed,
         .button = "Ok",
         .typed = "vip",
         .refetch = "/lists?tag=vip&offset=0",
         .rows = 1},
        {.name = "filter, Cancel with no text",
         .open = &Screen::filterListPressed,
         .button = "Cancel",
         .refetch = "/lists?offset=0",
         .rows = 2},
        {.name = "triple tap, Seahawks",
         .open = &Screen::handleTripleTapGesture,
         .button = "Seahawks",
         .even = grey,
         .odd = Qt::blue},
        {.name = "double tap, Enable",
         .open = &Screen::handleDoubleTapGesture,
         .button = "Enable",
         .even = Qt::white,
         .odd = grey},
    };
    KXListTableViewController screen("g1");
    screen.resize(360, 480);
    screen.show();
    ASSERT_TRUE(
        waitFor([&] { return screen.switches().size() == 2 && !screen.hud()->isVisible(); }));
    // The colour shown at the left edge of each row.
    auto rowColours = [&] {
        const QImage image = screen.grab().toImage();
        std::vector<std::string> colours;
        for (QWidget* cell : screen.findChildren<QWidget*>("KXListCell")) {
            colours.push_back(
                image.pixelColor(cell->mapTo(&screen, QPoint(3, 3))).name().toStdString());
        }
        return colours;
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::size_t listRequests = targets("GET", kBase + "/lists?").size();
        if (c.refetch != nullptr) {
            KXJSON records = KXJSON::array();
            for (int i = 0; i < c.rows; ++i) {
                records.push_back({{"externalId", "l" + std::to_string(i)}});
            }
            service.script(
                "GET", kBase + "/lists",
                KXScriptedAnswer::json(200, {{"records", records}, {"hasMoreRecords", false}}));
        }
        (screen.*c.open)();
        if (c.refetch != nullptr) {
            QInputDialog* dialog = nullptr;
            ASSERT_TRUE(waitFor([&] {
                dialog = screen.findChild<QInputDialog*>("KXListFilterDialog");
                return dialog != nullptr && dialog->isVisible();
            }));
            EXPECT_EQ(dialog->windowTitle(), "Filter List By Tag");
            QTest::keyClicks(dialog->findChild<QLineEdit*>(), c.typed);
            for (QPushButton* button : dialog->findChildren<QPushButton*>()) {
                if (button->text() == c.button) {
                    QTest::mouseClick(button, Qt::LeftButton);
                }
            }
            ASSERT_TRUE(waitFor(
                [&] { return screen.switches().size() == c.rows && !screen.hud()->isVisible(); }));
            const std::vector<std::string> sent = targets("GET", kBase + "/lists?");
            ASSERT_EQ(sent.size(), listRequests + 1);
            EXPECT_TRUE(sent.back().starts_with(kBase + c.refetch)) << sent.back();
            EXPECT_EQ(screen.tag(), c.typed.toStdString());
        } else {
            QMessageBox* box = shownMessageBox();
            ASSERT_NE(box, nullptr);
            press(box, c.button);
            const std::vector<std::string> expected{c.even.name().toStdString(),
                                                    c.odd.name().toStdString()};
            EXPECT_TRUE(waitFor([&] { return rowColours() == expected; }, 2000));
            EXPECT_EQ(rowColours(), expected);
            EXPECT_EQ(targets("GET", kBase + "/lists?").size(), listRequests);  // no refetch
        }
        QTest::qWait(20);  // the dialog closes and deletes itself
    }
}
