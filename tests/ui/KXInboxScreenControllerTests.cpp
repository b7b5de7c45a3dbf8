#include <KXClientFramework/KXInboxScreenController.h>
#include <KXClientFramework/KXInboxTimeText.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>

using namespace std::chrono;

namespace {

class KXInboxTimeTextTest : public testing::Test {
protected:
    // Each test runs in its own process, so the zone can be fixed for the calendar arithmetic.
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

const sys_seconds kNow = sys_days{2016y / March / 8} + 12h;

double millis(sys_seconds date) {
    return static_cast<double>(duration_cast<milliseconds>(date.time_since_epoch()).count());
}

}  // namespace

TEST_F(KXInboxTimeTextTest, RowTextIsRelativeWithinADayAndAbsoluteBeyond) {
    const struct {
        sys_seconds received;
        const char* text;
    } cases[] = {
        {kNow - 59s, "59 seconds ago"},
        {kNow - 1s, "1 second ago"},
        {kNow - 70s, "1 minute ago"},
        {kNow - 5min, "5 minutes ago"},
        {kNow - 1h, "1 hour ago"},
        {kNow - 23h - 59min, "23 hours ago"},
        {kNow - 24h, "03/07/2016 12:00 PM"},
        {sys_days{2016y / March / 6} + 21h + 5min, "03/06/2016 9:05 PM"},
        {sys_days{2016y / March / 1} + 0h + 7min, "03/01/2016 12:07 AM"},
        // Stamped now or in the future: every component is 0.
        {kNow, "0 seconds ago"},
        {kNow + 1h, "0 seconds ago"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(KXInboxTimeText::textForTimestamp(millis(c.received), kNow), c.text) << c.text;
    }
}

TEST_F(KXInboxTimeTextTest, HostileTimestampsGiveADateInsteadOfOverflowing) {
    for (double timestamp : {std::numeric_limits<double>::quiet_NaN(),
                             std::numeric_limits<double>::infinity(), 1e300, -1e300}) {
        EXPECT_EQ(KXInboxTimeText::textForTimestamp(timestamp, kNow), "01/01/1970 12:00 AM");
    }
}

TEST_F(KXInboxTimeTextTest, ComponentsCountWholeCalendarUnitsFirst) {
    const struct {
        sys_seconds from, to;
        KXDateComponents components;
    } cases[] = {
        {sys_days{2015y / January / 31}, sys_days{2015y / March / 1}, {0, 1, 1, 0, 0, 0}},
        {sys_days{2015y / March / 8} + 13h, kNow, {0, 11, 28, 23, 0, 0}},
        {sys_days{2014y / March / 8} + 11h + 59min + 58s, kNow, {2, 0, 0, 0, 0, 2}},
        {sys_days{2016y / February / 28}, sys_days{2016y / March / 1}, {0, 0, 2, 0, 0, 0}},
        {kNow, kNow - 1s, {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(KXInboxTimeText::componentsFrom(c.from, c.to), c.components);
    }
}

TEST(KXInboxTimeText, TheFirstNonZeroComponentNamesTheUnit) {
    const struct {
        KXDateComponents components;
        const char* text;
    } cases[] = {
        {{1, 5, 0, 0, 0, 0}, "1 year ago"},    {{3, 0, 0, 0, 0, 0}, "3 years ago"},
        {{0, 1, 0, 0, 0, 0}, "1 month ago"},   {{0, 2, 9, 0, 0, 0}, "2 months ago"},
        {{0, 0, 1, 23, 0, 0}, "1 day ago"},    {{0, 0, 6, 0, 0, 0}, "6 days ago"},
        {{0, 0, 0, 0, 1, 59}, "1 minute ago"}, {{0, 0, 0, 0, 0, 2}, "2 seconds ago"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(KXInboxTimeText::timeStringFromDateComponents(c.components), c.text);
    }
}

TEST(KXInboxScreenController, RowsAndHeightsFollowTheMessageCount) {
    const struct {
        bool loaded;
        std::size_t messages;
        std::size_t rows;
        double height;
    } cases[] = {
        {false, 0, 0, 600.0},
        {true, 0, 1, 600.0},
        {true, 1, 1, 44.0},
        {false, 3, 3, 44.0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(KXInboxScreenController::rowCount(c.loaded, c.messages), c.rows);
        EXPECT_EQ(KXInboxScreenController::rowHeight(c.messages, 600.0), c.height);
    }
}

TEST(KXInboxScreenController, DeleteTitlesAndConfirmationFollowTheSelection) {
    const struct {
        std::size_t selected, messages;
        const char* button;
        const char* confirmation;
    } cases[] = {
        {2, 5, "Delete (2)", "Are you sure you want to delete these messages?"},
        {1, 5, "Delete (1)", "Are you sure you want to delete this message?"},
        {0, 5, "Delete All", "Are you sure you want to delete these messages?"},
        {5, 5, "Delete All", "Are you sure you want to delete these messages?"},
        {1, 1, "Delete All", "Are you sure you want to delete this message?"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(KXInboxScreenController::deleteButtonTitle(c.selected, c.messages), c.button);
        EXPECT_EQ(KXInboxScreenController::deleteConfirmationTitle(c.selected), c.confirmation);
    }
}

TEST(KXInboxScreenController, ConfirmingDeletesTheSelectionInOrderOrEverything) {
    using Rows = std::vector<std::size_t>;
    EXPECT_EQ(KXInboxScreenController::rowsToDelete({3, 1}, 5), (Rows{3, 1}));
    EXPECT_EQ(KXInboxScreenController::rowsToDelete({}, 5), (Rows{0, 1, 2, 3, 4}));
    EXPECT_EQ(KXInboxScreenController::rowsToDelete({}, 0), Rows{});
    // A selection left over from a longer list never reaches past the end.
    EXPECT_EQ(KXInboxScreenController::rowsToDelete({9, 0}, 2), Rows{0});
}

TEST(KXInboxScreenController, EditingFlowSwapsTheBarButtonsAndWhatATapDoes) {
    KXInboxScreenController screen;
    using B = KXInboxBarButton;
    EXPECT_EQ(screen.barButtons(0), (KXInboxBarButtons{B::None, B::Edit, false}));
    EXPECT_EQ(screen.barButtons(3), (KXInboxBarButtons{B::None, B::Edit, true}));
    EXPECT_EQ(screen.tapAction(0), KXInboxTapAction::Nothing);
    EXPECT_EQ(screen.tapAction(3), KXInboxTapAction::OpenMessage);

    screen.editing = true;
    EXPECT_EQ(screen.barButtons(3), (KXInboxBarButtons{B::Delete, B::Cancel, true}));
    EXPECT_EQ(screen.tapAction(3), KXInboxTapAction::UpdateButtons);
    EXPECT_EQ(screen.tapAction(0), KXInboxTapAction::Nothing);

    screen.deletionConfirmed();
    EXPECT_FALSE(screen.editing);
}

TEST(KXInboxScreenController, PagingRequestsTheNextPageOnceUntilItsAnswer) {
    KXInboxScreenController screen;
    screen.paging.pagingEnabled = true;
    EXPECT_EQ(screen.pageForAppearance(), 1);
    screen.loadFinished(true, true);

    // 20 rows of 44 in a view 400 high: the bottom is at offset 480.
    EXPECT_FALSE(screen.paging.shouldFetchMore(479.0, 880.0, 400.0));
    ASSERT_TRUE(screen.paging.shouldFetchMore(480.0, 880.0, 400.0));
    EXPECT_EQ(screen.paging.beginNextPage(), 2);
    EXPECT_FALSE(screen.paging.shouldFetchMore(500.0, 880.0, 400.0));
    screen.paging.nextPageFinished(true, true);
    EXPECT_TRUE(screen.paging.shouldFetchMore(1360.0, 1760.0, 400.0));

    // A failed page is skipped: the next request asks for the one after it.
    EXPECT_EQ(screen.paging.beginNextPage(), 3);
    screen.paging.nextPageFinished(false, false);
    EXPECT_TRUE(screen.paging.hasMoreRecords);
    EXPECT_EQ(screen.paging.beginNextPage(), 4);
    screen.paging.nextPageFinished(true, false);
    EXPECT_FALSE(screen.paging.shouldFetchMore(5000.0, 1760.0, 400.0));

    // Coming back on screen starts over at page 1; the refresh keeps the page as it stands.
    EXPECT_EQ(screen.pageForRefresh(), 4);
    EXPECT_EQ(screen.pageForAppearance(), 1);
    EXPECT_FALSE(screen.paging.hasMoreRecords);
}

TEST(KXInboxScreenController, WithoutPagingPageZeroIsRequestedAndScrollingLoadsNothing) {
    KXInboxScreenController screen;
    EXPECT_EQ(screen.pageForAppearance(), 0);
    screen.loadFinished(true, true);
    EXPECT_TRUE(screen.paging.initialLoadComplete);
    EXPECT_FALSE(screen.paging.shouldFetchMore(1000.0, 880.0, 400.0));

    KXInboxScreenController failed;
    failed.loadFinished(false, true);
    EXPECT_TRUE(failed.paging.initialLoadComplete);
    EXPECT_FALSE(failed.paging.hasMoreRecords);
}

TEST(KXInboxScreenController, OpeningAndDeletionRules) {
    EXPECT_EQ(KXInboxScreenController::badgeAfterOpening(0), -1);
    EXPECT_EQ(KXInboxScreenController::badgeAfterOpening(4), 3);

    EXPECT_TRUE(KXInboxScreenController::isHTMLContent("text/html; charset=utf-8"));
    EXPECT_TRUE(KXInboxScreenController::isHTMLContent("application/xhtml+xml"));
    EXPECT_FALSE(KXInboxScreenController::isHTMLContent("text/plain"));
    EXPECT_FALSE(KXInboxScreenController::isHTMLContent("TEXT/HTML"));
    EXPECT_FALSE(KXInboxScreenController::isHTMLContent(std::nullopt));

    EXPECT_TRUE(KXInboxScreenController::deletionAllowed("domain", false));
    EXPECT_FALSE(KXInboxScreenController::deletionAllowed("domain", true));
    EXPECT_FALSE(KXInboxScreenController::deletionAllowed(std::nullopt, false));
}
