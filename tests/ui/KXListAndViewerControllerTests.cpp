#include <KXClientFramework/KXBadgeTitle.h>
#include <KXClientFramework/KXLifeCycleEvents.h>
#include <KXClientFramework/KXListScreenController.h>
#include <KXClientFramework/KXWebViewerController.h>

#include <gtest/gtest.h>

using Request = KXListSubscriptionRequest;
using Requests = std::vector<Request>;
using Ids = std::vector<std::string>;

TEST(KXListScreenController, SwitchesSendOneRequestOnTheChannelOrOnePerAffectedProfile) {
    KXListScreenController screen;
    EXPECT_EQ(screen.requestsForSwitch(true), (Requests{{true, std::nullopt}}));
    EXPECT_EQ(screen.requestsForSwitch(false), (Requests{{false, std::nullopt}}));

    screen.setDeliveryProfileId("email-1");
    screen.addAffectedProfile("sms-2");
    EXPECT_EQ(screen.requestsForSwitch(true), (Requests{{true, "email-1"}, {true, "sms-2"}}));
    EXPECT_EQ(screen.requestsForSwitch(false), (Requests{{false, "email-1"}, {false, "sms-2"}}));
}

TEST(KXListScreenController, AffectedProfilesFollowTheDeliveryProfile) {
    KXListScreenController screen;
    screen.clearAffectedProfiles();  // no list yet: nothing is created
    EXPECT_EQ(screen.affectedProfileIds(), std::nullopt);

    screen.addAffectedProfile("a");
    screen.addAffectedProfile("a");
    EXPECT_EQ(screen.affectedProfileIds(), (Ids{"a"}));

    screen.setDeliveryProfileId("p1");
    screen.setDeliveryProfileId("p2");  // p1 leaves, p2 joins
    EXPECT_EQ(screen.affectedProfileIds(), (Ids{"a", "p2"}));
    screen.setDeliveryProfileId("");  // ignored on purpose
    EXPECT_EQ(screen.deliveryProfileId(), "p2");
    screen.setDeliveryProfileId("a");  // already affected: not added twice
    EXPECT_EQ(screen.affectedProfileIds(), (Ids{"a"}));

    screen.addAffectedProfile("b");
    screen.clearAffectedProfiles();
    EXPECT_EQ(screen.affectedProfileIds(), (Ids{"a"}));
}

TEST(KXListScreenController, RowsLabelsAndSubscriptions) {
    EXPECT_EQ(KXListScreenController::rowCount(true, 0), 1u);
    EXPECT_EQ(KXListScreenController::rowCount(false, 0), 0u);
    EXPECT_EQ(KXListScreenController::rowCount(true, 4), 4u);
    EXPECT_EQ(KXListScreenController::rowHeight(0, 500.0), 500.0);
    EXPECT_EQ(KXListScreenController::rowHeight(4, 500.0), 44.0);

    EXPECT_EQ(KXListScreenController::rowText("News", "L-1"), "News");
    EXPECT_EQ(KXListScreenController::rowText(std::nullopt, "L-1"), "L-1");
    EXPECT_EQ(KXListScreenController::rowText("", "L-1"), "");
    EXPECT_EQ(KXListScreenController::switchAccessibilityLabel("News"), "Newstoggle");

    EXPECT_TRUE(KXListScreenController::isSubscribed({"L-2", "L-1"}, "L-1"));
    EXPECT_FALSE(KXListScreenController::isSubscribed({"L-2"}, "L-1"));
    EXPECT_FALSE(KXListScreenController::isSubscribed({}, "L-1"));

    EXPECT_FALSE(KXListScreenController::usesAlternateColour(1, false));
    EXPECT_FALSE(KXListScreenController::usesAlternateColour(2, true));
    EXPECT_TRUE(KXListScreenController::usesAlternateColour(3, true));
}

TEST(KXListScreenController, DialogsAndWhatDismissingThemDoes) {
    using C = KXListColour;
    const struct {
        int tag, button;
        std::optional<std::string> newTag;
        std::optional<C> background, alternate;
    } cases[] = {
        {3, 0, "vip", std::nullopt, std::nullopt},  // Cancel filters too, as it always has
        {3, 1, "vip", std::nullopt, std::nullopt},
        {2, 0, std::nullopt, C::Yellow, C::Green},
        {2, 1, std::nullopt, C::LightGrey, C::Blue},
        {1, 0, std::nullopt, C::White, C::Default},
        {1, 1, std::nullopt, C::White, C::LightGrey},
        {7, 1, std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        const KXListDialogOutcome outcome =
            KXListScreenController::dialogDismissed(c.tag, c.button, "vip");
        EXPECT_EQ(outcome.newTag, c.newTag) << c.tag << "/" << c.button;
        EXPECT_EQ(outcome.tableBackground, c.background) << c.tag << "/" << c.button;
        EXPECT_EQ(outcome.alternateRowColour, c.alternate) << c.tag << "/" << c.button;
    }
}

TEST(KXListScreenController, EveryFullLoadStartsAtPageOne) {
    KXListScreenController screen;
    screen.paging.pagingEnabled = true;
    screen.paging.hasMoreRecords = true;
    screen.paging.currentPage = 4;
    EXPECT_EQ(screen.beginFirstPage(), 1);
    EXPECT_FALSE(screen.paging.hasMoreRecords);
}

TEST(KXWebViewerController, ToolbarLayoutsAndTheThirdButton) {
    using I = KXWebToolbarItem;
    using Items = std::vector<I>;
    EXPECT_EQ(KXWebViewerController::toolbarItems(false, false),
              (Items{I::FixedSpace, I::Back, I::FlexibleSpace, I::Forward, I::FlexibleSpace,
                     I::Reload, I::FlexibleSpace, I::FixedSpace}));
    EXPECT_EQ(KXWebViewerController::toolbarItems(false, true)[5], I::Stop);
    EXPECT_EQ(KXWebViewerController::toolbarItems(true, true),
              (Items{I::FixedSpace, I::Stop, I::FixedSpace, I::Back, I::FixedSpace, I::Forward,
                     I::FixedSpace}));
    EXPECT_EQ(KXWebViewerController::toolbarItems(true, false)[1], I::Reload);
}

TEST(KXWebViewerController, DeleteOnlyWhenPushedAndToolbarOnlyInTheWebModes) {
    EXPECT_TRUE(KXWebViewerController::showsDeleteButton(true, false));
    EXPECT_FALSE(KXWebViewerController::showsDeleteButton(true, true));
    EXPECT_FALSE(KXWebViewerController::showsDeleteButton(false, false));
    EXPECT_TRUE(KXWebViewerController::isWebMode(KXWebViewerMode::HTMLString));
    EXPECT_TRUE(KXWebViewerController::isWebMode(KXWebViewerMode::URL));
    EXPECT_FALSE(KXWebViewerController::isWebMode(KXWebViewerMode::AttributedText));
}

TEST(KXBadgeTitle, TheCountFollowsTheTitleUnlessItIsZero) {
    EXPECT_EQ(kxBadgeWindowTitle("Inbox", 0), "Inbox");
    EXPECT_EQ(kxBadgeWindowTitle("Inbox", 3), "Inbox (3)");
    EXPECT_EQ(kxBadgeWindowTitle("Inbox", -1), "Inbox (-1)");
}

TEST(KXLifeCycleEvents, TheStepsBetweenTwoStatesInPhoneOrder) {
    using S = KXApplicationState;
    using E = KXApplicationEvent;
    using Events = std::vector<E>;
    const struct {
        S from, to;
        Events events;
    } cases[] = {
        {S::Inactive, S::Active, {E::DidBecomeActive}},
        {S::Active, S::Inactive, {E::WillResignActive}},
        {S::Active, S::Background, {E::WillResignActive, E::DidEnterBackground}},
        {S::Inactive, S::Background, {E::DidEnterBackground}},
        {S::Background, S::Inactive, {E::WillEnterForeground}},
        {S::Background, S::Active, {E::WillEnterForeground, E::DidBecomeActive}},
        {S::Active, S::Active, {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(kxLifeCycleEvents(c.from, c.to), c.events);
    }
}
