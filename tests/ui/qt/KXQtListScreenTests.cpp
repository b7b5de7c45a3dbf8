// The list subscription screen's widget against the loopback service: rows from the lists and
// the guest's memberships, and the requests its switches send.
#include "KXQtServiceFixture.h"

#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXListTableViewController.h>
#include <KXClientFramework/KXProgressOverlay.h>

#include <QCheckBox>

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
