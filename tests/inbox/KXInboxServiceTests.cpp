// The inbox against the loopback service: URLs, paging, the loaded messages,
// the summary, the concurrent delete, marking messages read, the failure log
// lines and the badge.
#include "../transport/KXTransportFixture.h"

#include <KXClientFramework/KXBadgeManager.h>
#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxManager.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

const std::string kInbox = "/KXFrontier-stg/guests/g1/inboxes/d1";

KXJSON headersNamed(const std::string& prefix, int first, int count, bool read = false) {
    KXJSON records = KXJSON::array();
    for (int i = first; i < first + count; ++i) {
        records.push_back({{"id", prefix + std::to_string(i)},
                           {"subject", "Subject " + std::to_string(i)},
                           {"flags", {{"read", read}}}});
    }
    return records;
}

std::shared_ptr<KXInboxMessage> messageWithId(const std::string& id) {
    auto message = std::make_shared<KXInboxMessage>();
    message->setMessageId(id);
    return message;
}

using Events = KXEventLog;

class KXInboxServiceTest : public KXTransportTest {
protected:
    KXInboxServiceTest() {
        giveToken();
        KXConfig::defaultConfig().setInboxDomainId("d1");
        KXGuest::currentGuest()->setExternalId("g1");
    }

    /// Fetches page `page` of `limit` messages into the shared inbox, answered
    /// with `records`.
    void loadPage(std::int64_t page, std::int64_t limit, const KXJSON& records) {
        service.script(
            "GET", kInbox + "/messages",
            KXScriptedAnswer::json(200, {{"records", records}, {"hasMoreRecords", true}}));
        Events events;
        KXInbox::shared().fetchWithPageNumber(
            page, limit, std::nullopt,
            [&](const std::optional<KXInboxMessages>&, bool) { events.succeeded(); },
            events.failure());
        waitForEvents(events, 1);
    }

    KXInbox& inbox = KXInbox::shared();
};

struct RequestCase {
    const char* name;
    std::function<void(Events&)> start;
    const char* method;
    std::string target;
};

}  // namespace

TEST_F(KXInboxServiceTest, EachOperationRequestsItsURL) {
    const auto page = [](std::int64_t number, std::int64_t limit) {
        return [=](Events& e) {
            KXInbox::shared().fetchWithPageNumber(
                number, limit, "", [&e](const auto&, bool) { e.succeeded(); }, e.failure());
        };
    };
    const auto messages = [](Events& e) { return [&e](const auto&) { e.succeeded(); }; };
    const std::vector<RequestCase> cases = {
        {"summary of a given domain",
         [&](Events& e) {
             KXInboxManager::fetchInboxSummaryWithId("d2", messages(e), e.failure());
         },
         "GET", "/KXFrontier-stg/guests/g1/inboxes/d2"},
        {"summary of the configured domain",
         [&](Events& e) { KXInboxManager::fetchInboxSummaryWithId("", messages(e), e.failure()); },
         "GET", kInbox},
        {"every message",
         [&](Events& e) {
             KXInboxManager::fetchMessagesWithId(std::nullopt, messages(e), e.failure());
         },
         "GET", kInbox + "/messages"},
        {"every message of the configured domain",
         [&](Events& e) { KXInboxManager::fetchInboxesWithSuccess(messages(e), e.failure()); },
         "GET", kInbox + "/messages"},
        {"page 3 of 10", page(3, 10), "GET", kInbox + "/messages?offset=20&limit=10"},
        {"page 1 of 10", page(1, 10), "GET", kInbox + "/messages?offset=0&limit=10"},
        {"page 0 of 10", page(0, 10), "GET", kInbox + "/messages?offset=0&limit=10"},
        {"page 5 of limit 0", page(5, 0), "GET", kInbox + "/messages?offset=0&limit=20"},
        {"page beyond the 64-bit range", page(INT64_MAX, 10), "GET",
         kInbox + "/messages?offset=9223372036854775807&limit=10"},
        {"message details",
         [&](Events& e) {
             KXInboxManager::fetchMessageDetailsWithMessage(messageWithId("m1"), "d1", messages(e),
                                                            e.failure());
         },
         "GET", kInbox + "/messages/m1"},
        {"delete",
         [&](Events& e) {
             KXInboxManager::deleteMessageDetailsWithMessage(*messageWithId("m1"), std::nullopt,
                                                             e.done(), e.failure());
         },
         "DELETE", kInbox + "/messages/m1"},
        {"mark read",
         [&](Events& e) {
             KXInboxManager::markMessage(*messageWithId("m1"), std::nullopt, true, e.done(),
                                         e.failure());
         },
         "POST", kInbox + "/messages/m1/read"},
        {"mark unread",
         [&](Events& e) {
             KXInboxManager::markMessage(*messageWithId("m1"), std::nullopt, false, e.done(),
                                         e.failure());
         },
         "POST", kInbox + "/messages/m1/unread"},
        {"reserved characters in an id stay inside its segment",
         [&](Events& e) {
             KXInboxManager::deleteMessageDetailsWithMessage(*messageWithId("a/b?c#d%"), "x y",
                                                             e.done(), e.failure());
         },
         "DELETE", "/KXFrontier-stg/guests/g1/inboxes/x%20y/messages/a%2Fb%3Fc%23d%25"},
        {"a dot-dot id is not a way up",
         [&](Events& e) {
             KXInboxManager::deleteMessageDetailsWithMessage(*messageWithId(".."), std::nullopt,
                                                             e.done(), e.failure());
         },
         "DELETE", kInbox + "/messages/%2E%2E"},
    };
    for (const RequestCase& c : cases) {
        const std::size_t before = service.requests().size();
        Events events;
        c.start(events);
        waitForEvents(events, 1);
        EXPECT_EQ(events.count(), 1U) << c.name;
        const auto requests = service.requests();
        ASSERT_EQ(requests.size(), before + 1) << c.name;
        EXPECT_EQ(requests.back().method, c.method) << c.name;
        EXPECT_EQ(requests.back().path, c.target) << c.name;
        EXPECT_EQ(requests.back().body, "") << c.name;
    }
}

TEST_F(KXInboxServiceTest, PagesAppendWithoutDeduplicationAndAFullFetchReplaces) {
    loadPage(1, 10, headersNamed("a", 0, 10));
    loadPage(2, 10, headersNamed("b", 0, 10));
    EXPECT_EQ(inbox.messageCount(), 20U);
    EXPECT_EQ(inbox.indexOfMessage(*messageWithId("b0")), 10);
    EXPECT_EQ(inbox.messageAtIndex(10), inbox.messageForId("b0"));

    loadPage(1, 10, headersNamed("a", 0, 10));
    EXPECT_EQ(inbox.messageCount(), 30U) << "page 1 again is appended again";
    EXPECT_EQ(inbox.indexOfMessage(*messageWithId("a3")), 3) << "the first of equal ids";

    service.script("GET", kInbox + "/messages",
                   KXScriptedAnswer::json(200, {{"records", headersNamed("c", 0, 3)}}));
    Events events;
    inbox.fetchMessagesWithId(
        std::nullopt, [&](const std::optional<KXInboxMessages>&) { events.succeeded(); },
        events.failure());
    waitForEvents(events, 1);
    EXPECT_EQ(inbox.messageCount(), 3U);
    EXPECT_EQ(inbox.indexOfMessage(*messageWithId("a0")), NSNotFound);
}

TEST_F(KXInboxServiceTest, PageAnswersHandOverThePageAndTheMoreRecordsFlag) {
    struct Case {
        const char* name;
        KXScriptedAnswer answer;
        std::vector<std::string> events;
        std::optional<std::size_t> pageSize;
        bool hasMoreRecords;
        std::size_t loadedAfter;
    };
    const std::vector<Case> cases = {
        {"a page with more to come",
         KXScriptedAnswer::json(200,
                                {{"records", headersNamed("p", 0, 2)}, {"hasMoreRecords", true}}),
         {"success"},
         2,
         true,
         2},
        {"the last page",
         KXScriptedAnswer::json(200, {{"records", headersNamed("q", 0, 1)}}),
         {"success"},
         1,
         false,
         3},
        {"an answer without JSON",
         KXScriptedAnswer::empty(204),
         {"success"},
         std::nullopt,
         false,
         3},
        {"an answer of the wrong shape",
         KXScriptedAnswer::json(200, KXJSON::array({1, 2})),
         {"success"},
         0,
         false,
         3},
        {"a server error",
         KXScriptedAnswer::json(500, {{"message", "down"}}),
         {"failure:500:down"},
         std::nullopt,
         false,
         3},
        {"a dropped connection", KXScriptedAnswer::dropped(), {}, std::nullopt, false, 3},
    };
    for (const Case& c : cases) {
        service.script("GET", kInbox + "/messages", c.answer);
        Events events;
        std::optional<std::size_t> pageSize;
        bool more = false;
        inbox.fetchWithPageNumber(
            1, 0, std::nullopt,
            [&](const std::optional<KXInboxMessages>& page, bool hasMoreRecords) {
                events.succeeded();
                pageSize = page ? std::optional(page->size()) : std::nullopt;
                more = hasMoreRecords;
            },
            events.failure());
        waitForEvents(events, 1);
        if (c.events.empty()) {
            ASSERT_EQ(events.count(), 1U) << c.name;
            EXPECT_EQ(events.seen[0].rfind("failure:", 0), 0U) << c.name;
        } else {
            EXPECT_EQ(events.seen, c.events) << c.name;
        }
        EXPECT_EQ(pageSize, c.pageSize) << c.name;
        EXPECT_EQ(more, c.hasMoreRecords) << c.name;
        EXPECT_EQ(inbox.messageCount(), c.loadedAfter) << c.name;
    }
}

TEST_F(KXInboxServiceTest, LookupsAndUnreadCountCoverTheLoadedMessages) {
    KXJSON records = headersNamed("r", 0, 2, true);
    records.push_back({{"id", "u0"}});
    records.push_back({{"subject", "no id"}});
    loadPage(1, 0, records);

    EXPECT_EQ(inbox.unreadCount(), 2U);
    EXPECT_EQ(inbox.messageForId("u0"), inbox.messageAtIndex(2));
    EXPECT_EQ(inbox.messageForId("missing"), nullptr);
    EXPECT_EQ(inbox.messageForId(std::nullopt), nullptr) << "an absent id matches nothing";
    EXPECT_EQ(inbox.indexOfMessage(KXInboxMessage()), NSNotFound);
    EXPECT_EQ(inbox.messageAtIndex(4), nullptr);

    inbox.messageAtIndex(2)->markAsRead();
    EXPECT_EQ(inbox.unreadCount(), 1U) << "marked read at once, before the answer";
}

TEST_F(KXInboxServiceTest, MarkAsReadPostsAndReportsOnlyToTheBlocksGiven) {
    struct Case {
        const char* name;
        KXScriptedAnswer answer;
        bool withBlocks;
        std::vector<std::string> events;
    };
    const std::vector<Case> cases = {
        {"accepted", KXScriptedAnswer::empty(200), true, {"success"}},
        {"refused", KXScriptedAnswer::json(403, {{"message", "no"}}), true, {"failure:403:no"}},
        {"refused without blocks", KXScriptedAnswer::json(403, {{"message", "no"}}), false, {}},
    };
    for (const Case& c : cases) {
        service.script("POST", kInbox + "/messages/m1/read", c.answer);
        const std::size_t before = service.requests().size();
        auto message = messageWithId("m1");
        Events events;
        if (c.withBlocks) {
            message->markAsReadWithSuccess(events.done(), events.failure());
        } else {
            message->markAsReadWithSuccess({}, {});
        }
        EXPECT_TRUE(message->read()) << c.name;
        ASSERT_TRUE(service.waitForRequests(before + 1, kPatience)) << c.name;
        waitForEvents(events, c.events.size());
        EXPECT_EQ(events.seen, c.events) << c.name;
        EXPECT_TRUE(message->read()) << c.name << ": a failure does not set it back";
    }
}

TEST_F(KXInboxServiceTest, DetailsFillTheSameMessageAndKeepItsId) {
    service.script("GET", kInbox + "/messages/m1",
                   KXScriptedAnswer::json(200, {{"header", {{"id", "other"}, {"subject", "Hi"}}},
                                                {"content", "<p>Body</p>"}}));
    const auto message = messageWithId("m1");
    std::shared_ptr<KXInboxMessage> handed;
    Events events;
    inbox.fetchMessageDetails(
        message, std::nullopt,
        [&](std::shared_ptr<KXInboxMessage> m) {
            handed = std::move(m);
            events.succeeded();
        },
        events.failure());
    waitForEvents(events, 1);
    EXPECT_EQ(handed, message);
    EXPECT_EQ(message->messageId(), "m1");
    EXPECT_EQ(message->title(), "Hi");
    EXPECT_EQ(message->content(), "<p>Body</p>");
}

TEST_F(KXInboxServiceTest, SummaryOfAGuestWithoutIdIsReportedInvalidAndStillFetched) {
    struct Case {
        const char* name;
        std::optional<std::string> externalId;
        bool withFailure;
        std::string guestSegment;
        std::vector<std::string> events;
    };
    const std::vector<Case> cases = {
        {"guest with an id", "g1", true, "g1", {"success"}},
        {"absent id", std::nullopt, true, "", {"failure:99:invalid guest", "success"}},
        {"empty id", "", true, "", {"failure:99:invalid guest", "success"}},
        {"absent id, no failure block", std::nullopt, false, "", {"success"}},
    };
    for (const Case& c : cases) {
        KXGuest::currentGuest()->setExternalId(c.externalId);
        const std::string path = "/KXFrontier-stg/guests/" + c.guestSegment + "/inboxes/d1";
        service.script("GET", path, KXScriptedAnswer::json(200, {{"name", c.name}}));
        const std::size_t before = service.requestsTo(path).size();
        Events events;
        std::shared_ptr<KXInboxSummary> summary;
        KXInboxManager::fetchInboxSummaryWithId(
            std::nullopt,
            [&](std::shared_ptr<KXInboxSummary> s) {
                summary = std::move(s);
                events.succeeded();
            },
            c.withFailure ? events.failure() : KXInboxManager::FailureBlock());
        waitForEvents(events, c.events.size());
        EXPECT_EQ(events.seen, c.events) << c.name;
        EXPECT_EQ(service.requestsTo(path).size(), before + 1) << c.name;
        ASSERT_TRUE(summary) << c.name;
        EXPECT_EQ(summary->name(), c.name) << c.name;
    }
}

TEST_F(KXInboxServiceTest, EverySummaryFetchUpdatesTheOneSharedSummary) {
    const auto shared = inbox.summary();
    std::vector<std::shared_ptr<KXInboxSummary>> handed;
    for (int unread : {4, 2}) {
        service.script(
            "GET", kInbox,
            KXScriptedAnswer::json(
                200, {{"name", "Main"}, {"totalMessageCount", 5}, {"unreadMessageCount", unread}}));
        Events events;
        inbox.fetchInboxSummaryWithId(
            std::nullopt,
            [&](std::shared_ptr<KXInboxSummary> s) {
                handed.push_back(std::move(s));
                events.succeeded();
            },
            events.failure());
        waitForEvents(events, 1);
    }
    ASSERT_EQ(handed.size(), 2U);
    EXPECT_EQ(handed[0], shared);
    EXPECT_EQ(handed[1], shared);
    EXPECT_EQ(shared->unreadMessageCount(), 2U);
    EXPECT_EQ(shared->inboxDomainId(), "d1");
}

TEST_F(KXInboxServiceTest, SummaryAndFullListFailuresAreLoggedAtError) {
    kxLogLevel = 1;
    auto sink = KXCapturingSink::install();
    loadPage(1, 10, headersNamed("k", 0, 2));
    service.script("GET", kInbox, KXScriptedAnswer::json(503, {{"message", "busy"}}));
    service.script("GET", kInbox + "/messages", KXScriptedAnswer::json(500, {{"message", "down"}}));

    Events events;
    inbox.fetchInboxSummaryWithId(std::nullopt, {}, events.failure());
    inbox.fetchMessagesWithId(std::nullopt, {}, events.failure());
    waitForEvents(events, 2);

    const auto domain = sink->linesContaining("Error fetching inbox domain. ");
    const auto messages = sink->linesContaining("Error fetching inbox messages. ");
    ASSERT_EQ(domain.size(), 1U);
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_NE(domain[0].find("[ERROR] KXInbox::fetchInboxSummaryWithId"), std::string::npos)
        << domain[0];
    EXPECT_NE(domain[0].find("Code=503"), std::string::npos) << domain[0];
    EXPECT_NE(messages[0].find("Code=500"), std::string::npos) << messages[0];
    EXPECT_EQ(inbox.messageCount(), 2U) << "a failed full fetch keeps the loaded messages";
}

TEST_F(KXInboxServiceTest, ArrayDeleteRunsSideBySideAndReportsEachMessage) {
    KXScriptedAnswer slow = KXScriptedAnswer::empty(200);
    slow.delay = std::chrono::milliseconds(1500);
    service.script("DELETE", kInbox + "/messages/slow", slow);
    service.script("DELETE", kInbox + "/messages/fast", KXScriptedAnswer::empty(204));
    service.script("DELETE", kInbox + "/messages/gone",
                   KXScriptedAnswer::json(404, {{"message", "gone"}}));
    loadPage(1, 10, headersNamed("k", 0, 2));

    Events events;
    inbox.deleteMessageDetailsArray(
        {messageWithId("slow"), nullptr, messageWithId("fast"), messageWithId("gone")},
        std::nullopt, events.done(), events.failure());
    waitForEvents(events, 3);

    EXPECT_EQ(service.requests().size(), 4U) << "one page and three deletes";
    ASSERT_EQ(events.count(), 3U);
    EXPECT_EQ(events.seen.back(), "success") << "the slow answer does not hold the others back";
    EXPECT_EQ(std::count(events.seen.begin(), events.seen.end(), "failure:404:gone"), 1);
    EXPECT_EQ(inbox.messageCount(), 2U) << "deleting leaves the loaded messages alone";
}

TEST_F(KXInboxServiceTest, BadgeFollowsTheUnreadCountOnlyWhileBadgingIsOn) {
    const KXJSON inboxGuest = {
        {"externalId", "g1"},
        {"deliveryProfiles", {{{"id", "p1"}, {"address", {{"channel", "INBOX"}}}}}}};
    KXJSON records = headersNamed("n", 0, 3);
    records[1]["flags"]["read"] = true;
    service.script("GET", kInbox + "/messages",
                   KXScriptedAnswer::json(200, {{"records", records}}));
    const auto& badges = platform->recordingApplication().badgeNumbers();

    // Off: neither the service nor the badge is touched.
    KXGuest::currentGuest()->guestWithDictionary(inboxGuest);
    KXBadgeManager::setBadging(false);
    KXBadgeManager::fetchCurrentInboxUnreadCount();
    KXBadgeManager::setBadgeNumber(7);
    drain();
    EXPECT_TRUE(service.requests().empty());
    EXPECT_TRUE(badges.empty());

    // On, but the guest has no inbox: nothing to count.
    KXBadgeManager::setBadging(true);
    KXGuest::currentGuest()->guestWithDictionary({{"externalId", "g1"}});
    KXBadgeManager::fetchCurrentInboxUnreadCount();
    drain();
    EXPECT_TRUE(service.requests().empty());

    // On with an inbox: the full fetch sets the badge to the unread count.
    KXGuest::currentGuest()->guestWithDictionary(inboxGuest);
    KXBadgeManager::fetchCurrentInboxUnreadCount();
    ASSERT_TRUE(waitFor([&] { return !badges.empty(); }));
    EXPECT_EQ(badges, std::vector<std::int64_t>{2});
    EXPECT_EQ(service.requestsTo(kInbox + "/messages").size(), 1U);
    KXBadgeManager::setBadgeNumber(9);
    EXPECT_EQ(platform->application().applicationIconBadgeNumber(), 9);
}
