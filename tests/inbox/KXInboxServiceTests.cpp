#include "../transport/KXTransportFixture.h"

#include <KXClientFramework/KXBadgeManager.h>
#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxManager.h>
#include <KXClientFramework/KXListManager.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

const std::string kInbox = "/KXFrontier-stg/guests/g1/inboxes/d1";
const std::string kMessages = kInbox + "/messages";
const std::string kLists = "/KXFrontier-stg/lists";

/// Headers with ids `prefix`0, `prefix`1, …
KXJSON headers(const std::string& prefix, int count, bool read = false) {
    KXJSON records = KXJSON::array();
    for (int i = 0; i < count; ++i) {
        records.push_back({{"id", prefix + std::to_string(i)}, {"flags", {{"read", read}}}});
    }
    return records;
}

KXScriptedAnswer page(const KXJSON& records, bool more = false) {
    return KXScriptedAnswer::json(200, {{"records", records}, {"hasMoreRecords", more}});
}

std::shared_ptr<KXInboxMessage> withId(const std::string& id) {
    auto message = std::make_shared<KXInboxMessage>();
    message->setMessageId(id);
    return message;
}

struct Events : KXEventLog {
    auto any() {
        return [this](auto&&...) { succeeded(); };
    }
    template <class... Slots>
    auto into(Slots&... slots) {
        return [this, &slots...](auto&&... values) {
            ((slots = values), ...);
            succeeded();
        };
    }
    KXListManager::ListSuccessBlock list() {
        return [this](std::shared_ptr<KXList> l) {
            seen.push_back("success:" + l->name().value_or("(none)"));
        };
    }
};

class KXInboxServiceTest : public KXTransportTest {
protected:
    KXInboxServiceTest() {
        giveToken();
        KXConfig::defaultConfig().setInboxDomainId("d1");
        KXGuest::currentGuest()->setExternalId("g1");
    }
    /// Waits until `e` holds `count` events, and takes them.
    std::vector<std::string> await(std::size_t count = 1) {
        waitForEvents(e, count);
        return std::exchange(e.seen, {});
    }
    /// Waits for the one callback of the operation just started and gives the one request it
    /// sent, as "<method> <target>"; the request has no body.
    std::string sent() {
        EXPECT_EQ(await().size(), 1U);
        const auto requests = service.requests();
        EXPECT_EQ(requests.size(), ++requestCount);
        EXPECT_EQ(requests.back().body, "");
        return requests.back().method + " " + requests.back().path;
    }
    /// Fetches page `number` of `limit` messages into the shared inbox, answered with `records`.
    void loadPage(std::int64_t number, std::int64_t limit, const KXJSON& records) {
        service.script("GET", kMessages, page(records, true));
        inbox.fetchWithPageNumber(number, limit, {}, e.any(), e.failure());
        EXPECT_EQ(await(), std::vector<std::string>{"success"});
    }
    KXInbox& inbox = KXInbox::shared();
    Events e;
    std::size_t requestCount = 0;
};
using KXListManagerTest = KXInboxServiceTest;

}  // namespace

TEST_F(KXInboxServiceTest, EachOperationRequestsItsURL) {
    KXInboxManager::fetchInboxSummaryWithId("d2", e.any(), e.failure());
    EXPECT_EQ(sent(), "GET /KXFrontier-stg/guests/g1/inboxes/d2");
    KXInboxManager::fetchInboxSummaryWithId("", e.any(), e.failure());
    EXPECT_EQ(sent(), "GET " + kInbox) << "the configured domain";
    KXInboxManager::fetchMessagesWithId({}, e.any(), e.failure());
    EXPECT_EQ(sent(), "GET " + kMessages);
    KXInboxManager::fetchMessageDetailsWithMessage(withId("m1"), "d1", e.any(), e.failure());
    EXPECT_EQ(sent(), "GET " + kMessages + "/m1");
    KXInboxManager::deleteMessageDetailsWithMessage(*withId("m1"), {}, e.done(), e.failure());
    EXPECT_EQ(sent(), "DELETE " + kMessages + "/m1");
    KXInboxManager::markMessage(*withId("m1"), {}, true, e.done(), e.failure());
    EXPECT_EQ(sent(), "POST " + kMessages + "/m1/read");
    // Reserved characters stay inside their segment; a dot-dot id is not a way up.
    KXInboxManager::deleteMessageDetailsWithMessage(*withId("a/b?c#d%"), "x y", e.done(),
                                                    e.failure());
    EXPECT_EQ(sent(), "DELETE /KXFrontier-stg/guests/g1/inboxes/x%20y/messages/a%2Fb%3Fc%23d%25");
    KXInboxManager::deleteMessageDetailsWithMessage(*withId(".."), {}, e.done(), e.failure());
    EXPECT_EQ(sent(), "DELETE " + kMessages + "/%2E%2E");
    KXListManager::fetchListsWithTag("a&b=c d#e+f%/", 1, 0, e.any(), e.failure());
    EXPECT_EQ(sent(), "GET " + kLists + "?tag=a%26b%3Dc%20d%23e%2Bf%25%2F&offset=0&limit=1000");
    KXListManager::fetchListsWithTag("", 1, 5, e.any(), e.failure());
    EXPECT_EQ(sent(), "GET " + kLists + "?offset=0&limit=5") << "an empty tag is left out";
}

TEST_F(KXInboxServiceTest, PagesBecomeAnOffsetAndALimitOf0TheDefaultLimit) {
    // Messages default to 20 a page, lists to 1000; every paged read shares the offset rule.
    const struct {
        std::int64_t page, limit, offset, messageLimit, listLimit;
    } cases[] = {{3, 10, 20, 10, 10}, {1, 10, 0, 10, 10}, {0, 10, 0, 10, 10},
                 {5, 0, 0, 20, 1000}, {3, 7, 14, 7, 7},   {INT64_MAX, 10, INT64_MAX, 10, 10}};
    for (const auto& c : cases) {
        const std::string offset = "offset=" + std::to_string(c.offset) + "&limit=";
        SCOPED_TRACE(offset);
        inbox.fetchWithPageNumber(c.page, c.limit, "", e.any(), e.failure());
        EXPECT_EQ(sent(), "GET " + kMessages + "?" + offset + std::to_string(c.messageLimit));
        const std::string lists = "GET " + kLists + "?" + offset + std::to_string(c.listLimit);
        KXListManager::fetchListDataForPage(c.page, c.limit, e.any(), e.failure());
        EXPECT_EQ(sent(), lists);
        KXListManager::fetchListsForPage(c.page, c.limit, e.any(), e.failure());
        EXPECT_EQ(sent(), lists);
        KXListManager::fetchListsWithTag("vip", c.page, c.limit, e.any(), e.failure());
        EXPECT_EQ(sent(), "GET " + kLists + "?tag=vip&" + lists.substr(lists.find('?') + 1));
    }
}

TEST_F(KXInboxServiceTest, PagesAppendWithoutDeduplicationAFullFetchReplacesLookupsCoverAll) {
    loadPage(1, 10, headers("a", 10));
    loadPage(2, 10, headers("b", 10));
    EXPECT_EQ(inbox.messageCount(), 20U);
    EXPECT_EQ(inbox.indexOfMessage(*withId("b0")), 10);
    loadPage(1, 10, headers("a", 10));
    EXPECT_EQ(inbox.messageCount(), 30U) << "page 1 again is appended again";
    EXPECT_EQ(inbox.indexOfMessage(*withId("a3")), 3) << "the first of equal ids";
    service.script("GET", kMessages, page(headers("c", 3)));
    inbox.fetchMessagesWithId({}, e.any(), e.failure());
    await();
    EXPECT_EQ(inbox.messageCount(), 3U);
    EXPECT_EQ(inbox.indexOfMessage(*withId("a0")), NSNotFound);
    // Lookups and the unread count cover the loaded messages.
    KXJSON records = headers("r", 2, true);
    records.push_back({{"id", "u0"}});
    records.push_back({{"subject", "no id"}});
    loadPage(1, 0, records);
    EXPECT_EQ(inbox.unreadCount(), 5U);
    EXPECT_EQ(inbox.messageForId("u0"), inbox.messageAtIndex(5));
    EXPECT_EQ(inbox.messageForId("missing"), nullptr);
    EXPECT_EQ(inbox.messageForId(std::nullopt), nullptr) << "an absent id matches nothing";
    EXPECT_EQ(inbox.indexOfMessage(KXInboxMessage()), NSNotFound);
    EXPECT_EQ(inbox.messageAtIndex(7), nullptr);
    inbox.messageAtIndex(5)->markAsRead();
    EXPECT_EQ(inbox.unreadCount(), 4U) << "marked read at once, before the answer";
}

TEST_F(KXInboxServiceTest, PageAnswersHandOverThePageAndTheMoreRecordsFlag) {
    const struct {
        KXScriptedAnswer answer;
        std::optional<std::size_t> pageSize;
        bool hasMoreRecords;
    } cases[] = {
        {page(headers("p", 2), true), 2, true},
        {KXScriptedAnswer::empty(204), std::nullopt, false},
        {KXScriptedAnswer::json(200, KXJSON::array({1, 2})), 0, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.answer.status);
        service.script("GET", kMessages, c.answer);
        std::optional<KXInboxMessages> handed;
        bool more = false;
        inbox.fetchWithPageNumber(1, 0, {}, e.into(handed, more), e.failure());
        EXPECT_EQ(await(), std::vector<std::string>{"success"});
        EXPECT_EQ(handed ? std::optional(handed->size()) : std::nullopt, c.pageSize);
        EXPECT_EQ(more, c.hasMoreRecords);
    }
}

TEST_F(KXInboxServiceTest, MarkAsReadSetsTheFlagAtOnceAndReportsThePost) {
    const std::pair<KXScriptedAnswer, std::string> cases[] = {
        {KXScriptedAnswer::empty(200), "success"}, {refused(403, "no"), "failure:403:no"}};
    for (const auto& [answer, event] : cases) {
        SCOPED_TRACE(event);
        service.script("POST", kMessages + "/m1/read", answer);
        auto message = withId("m1");
        message->markAsReadWithSuccess(e.done(), e.failure());
        EXPECT_TRUE(message->read());
        EXPECT_EQ(await(), std::vector{event});
        EXPECT_TRUE(message->read()) << "a failure does not set it back";
    }
}

TEST_F(KXInboxServiceTest, SummaryOfAGuestWithoutIdIsReportedInvalidAndStillFetched) {
    const std::vector<std::string> invalid = {"failure:99:invalid guest", "success"};
    const struct {
        const char* name;
        std::optional<std::string> externalId;
        bool withFailure;
        std::vector<std::string> events;
    } cases[] = {{"guest with an id", "g1", true, {"success"}},
                 {"absent id", std::nullopt, true, invalid},
                 {"empty id", "", true, invalid},
                 {"absent id, no failure block", std::nullopt, false, {"success"}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        KXGuest::currentGuest()->setExternalId(c.externalId);
        const std::string path =
            "/KXFrontier-stg/guests/" + c.externalId.value_or("") + "/inboxes/d1";
        service.script("GET", path, KXScriptedAnswer::json(200, KXJSON::object()));
        const std::size_t before = service.requestsTo(path).size();
        KXInboxManager::fetchInboxSummaryWithId(
            std::nullopt, e.any(), c.withFailure ? e.failure() : KXInboxManager::FailureBlock());
        EXPECT_EQ(await(c.events.size()), c.events);
        EXPECT_EQ(service.requestsTo(path).size(), before + 1);
    }
}

TEST_F(KXInboxServiceTest, DetailsAndSummariesUpdateTheObjectsTheInboxHolds) {
    service.script("GET", kMessages + "/m1",
                   KXScriptedAnswer::json(200, {{"header", {{"id", "other"}}}, {"content", "x"}}));
    const auto message = withId("m1");
    std::shared_ptr<KXInboxMessage> handed;
    inbox.fetchMessageDetails(message, {}, e.into(handed), e.failure());
    await();
    EXPECT_EQ(handed, message);
    EXPECT_EQ(message->messageId(), "m1") << "the header's id does not replace it";
    EXPECT_EQ(message->content(), "x");
    service.script("GET", kInbox, KXScriptedAnswer::json(200, {{"unreadMessageCount", 4}}));
    std::shared_ptr<KXInboxSummary> summary;
    inbox.fetchInboxSummaryWithId(std::nullopt, e.into(summary), e.failure());
    await();
    EXPECT_EQ(summary, inbox.summary()) << "the one summary the inbox holds, updated";
    EXPECT_EQ(summary->unreadMessageCount(), 4U);
}

TEST_F(KXInboxServiceTest, FailuresAreLoggedAtErrorAndPassedOnUnchanged) {
    kxLogLevel = 1;
    auto sink = KXCapturingSink::install();
    service.script("GET", kInbox, refused(503, "busy"));
    service.script("GET", kMessages, refused(500, "down"));
    service.script("GET", kLists, refused(500, "down"));
    service.script("GET", kLists + "/L1", refused(404, "no list"));
    // One ERROR line names the operation and carries the error's description.
    const auto expectLogged = [&](const std::string& where, const std::string& event,
                                  const std::string& text = "ERROR: ") {
        SCOPED_TRACE(where);
        EXPECT_EQ(await(), std::vector{event});
        const auto lines = sink->linesContaining("[ERROR] ");
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].rfind("[ERROR] " + where + " [Line ", 0), 0U) << lines[0];
        const std::string code = event.substr(8, 3);
        EXPECT_NE(lines[0].find(text + "Error Domain=NSOSStatusErrorDomain Code=" + code),
                  std::string::npos)
            << lines[0];
        sink->clear();
    };
    inbox.fetchInboxSummaryWithId({}, {}, e.failure());
    expectLogged("KXInbox::fetchInboxSummaryWithId", "failure:503:busy",
                 "Error fetching inbox domain. ");
    inbox.fetchMessagesWithId({}, {}, e.failure());
    expectLogged("KXInbox::fetchMessagesWithId", "failure:500:down",
                 "Error fetching inbox messages. ");
    KXListManager::fetchListDataForPage(1, 0, {}, e.failure());
    expectLogged("KXListManager::fetchListDataForPage", "failure:500:down");
    KXListManager::fetchListsForPage(1, 0, {}, e.failure());
    expectLogged("KXListManager::fetchListsForPage", "failure:500:down");
    KXListManager::fetchListsWithTag("t", 1, 0, {}, e.failure());
    expectLogged("KXListManager::fetchListsWithTag", "failure:500:down");
    KXListManager::fetchListWithId("L1", {}, e.failure());
    expectLogged("KXListManager::fetchListWithId", "failure:404:no list");
    KXListManager::fetchListWithId("L1", {}, {});
    ASSERT_TRUE(runUntil([&] { return !sink->linesContaining("[ERROR] ").empty(); }))
        << "logged also without a failure callback";
}

TEST_F(KXInboxServiceTest, ArrayDeleteRunsSideBySideAndReportsEachMessage) {
    KXScriptedAnswer slow = KXScriptedAnswer::empty(200);
    slow.delay = std::chrono::milliseconds(1500);
    service.script("DELETE", kMessages + "/slow", slow);
    service.script("DELETE", kMessages + "/fast", KXScriptedAnswer::empty(204));
    service.script("DELETE", kMessages + "/gone", refused(404, "gone"));
    inbox.deleteMessageDetailsArray({withId("slow"), nullptr, withId("fast"), withId("gone")}, {},
                                    e.done(), e.failure());
    const auto seen = await(3);
    EXPECT_EQ(service.requests().size(), 3U);
    ASSERT_EQ(seen.size(), 3U);
    EXPECT_EQ(seen.back(), "success") << "the slow answer does not hold the others back";
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "failure:404:gone"), 1);
}

TEST_F(KXInboxServiceTest, BadgeFollowsTheUnreadCountOnlyWhileBadgingIsOn) {
    const KXJSON inboxGuest = R"({"externalId": "g1",
        "deliveryProfiles": [{"id": "p1", "address": {"channel": "INBOX"}}]})"_json;
    KXJSON records = headers("n", 3);
    records[1]["flags"]["read"] = true;
    service.script("GET", kMessages, page(records));
    const auto& badges = platform->recordingApplication().badgeNumbers();
    // Off: neither the service nor the badge is touched.
    KXGuest::currentGuest()->guestWithDictionary(inboxGuest);
    KXBadgeManager::setBadging(false);
    KXBadgeManager::fetchCurrentInboxUnreadCount();
    KXBadgeManager::setBadgeNumber(7);
    drain();
    EXPECT_TRUE(service.requests().empty());
    EXPECT_TRUE(badges.empty());
    // On: the full fetch sets the badge to the unread count.
    KXBadgeManager::setBadging(true);
    KXBadgeManager::fetchCurrentInboxUnreadCount();
    ASSERT_TRUE(waitFor([&] { return !badges.empty(); }));
    EXPECT_EQ(badges, std::vector<std::int64_t>{2});
    EXPECT_EQ(service.requestsTo(kMessages).size(), 1U);
}

TEST_F(KXListManagerTest, PagedRepliesHandOverListsOrTheRawReplyWithTheMoreRecordsFlag) {
    const KXJSON records = R"([{"name": "News"}, {"name": "Offers"}])"_json;
    service.script("GET", kLists, page(records, true));
    KXJSON raw;
    std::optional<KXLists> parsed;
    bool rawMore = false, parsedMore = false;
    KXListManager::fetchListDataForPage(1, 0, e.into(raw, rawMore), {});
    KXListManager::fetchListsWithTag("t", 1, 0, e.into(parsed, parsedMore), {});
    await(2);
    EXPECT_TRUE(rawMore);
    EXPECT_TRUE(parsedMore);
    EXPECT_EQ(raw, (KXJSON{{"records", records}, {"hasMoreRecords", true}}));
    ASSERT_TRUE(parsed.has_value());
    ASSERT_EQ(parsed->size(), 2U);
    EXPECT_EQ((*parsed)[1]->name(), "Offers");
}

TEST_F(KXListManagerTest, CreateReportsBadInputWithoutStoppingTheRequest) {
    const std::string badId = "failure:99:invalid externalId, remove spaces";
    const std::string badName = "failure:99:invalid name", ok = "success:Created";
    const char* complete = R"({"externalId": "news", "name": "News", "description": "Weekly",
                               "tags": ["a"], "buProperties": {"k": "v"}})";
    const struct {
        const char* input;  // externalId, name, description, tags, buProperties; absent: not given
        bool withFailure;
        std::vector<std::string> events;
        const char* body;  // "": the input as given; nullptr: nothing is posted
    } cases[] = {
        {complete, true, {ok}, ""},
        {R"({"externalId": "", "name": "News", "description": ""})",
         true,
         {ok},
         R"({"name": "News"})"},
        {R"({"externalId": "my\tnews", "name": "News"})", false, {ok}, ""},
        {R"({"externalId": "news", "name": ""})", true, {badName, ok}, ""},
        {R"({"externalId": "a b", "name": ""})", true, {badId, badName, ok}, ""},
        {R"({"externalId": "news"})", true, {badName}, nullptr},
    };
    service.script("POST", kLists + "/", created("L9"));
    service.script("GET", kLists + "/L9", KXScriptedAnswer::json(200, {{"name", "Created"}}));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.input);
        const KXJSON input = KXJSON::parse(c.input);
        const auto text = [&](const char* key) {
            return input.contains(key) ? std::optional(input[key].get<std::string>())
                                       : std::nullopt;
        };
        const std::size_t posts = service.requestsTo(kLists + "/").size();
        KXListManager::createListWithExternalId(
            text("externalId"), text("name"), text("description"), input.value("tags", KXJSON()),
            input.value("buProperties", KXJSON()), e.list(),
            c.withFailure ? e.failure() : KXListManager::FailureBlock());
        EXPECT_EQ(await(c.events.size()), c.events);
        const auto sent = service.requestsTo(kLists + "/");
        ASSERT_EQ(sent.size(), posts + (c.body ? 1 : 0));
        if (c.body) {
            EXPECT_EQ(sent.back().method, "POST");
            EXPECT_EQ(KXJSON::parse(sent.back().body), *c.body ? KXJSON::parse(c.body) : input);
        }
    }
}

TEST_F(KXListManagerTest, CreateFetchesTheRecordTheAnswerNamesOrTheBareListsPath) {
    // Each follow-up route answers in its own way, so the event tells which one was read.
    service.script("GET", kLists + "/L%207", KXScriptedAnswer::json(200, {{"name", "Seven"}}));
    service.script("GET", kLists + "/", refused(404, "none"));
    const std::pair<KXScriptedAnswer, std::string> cases[] = {
        {created("L 7"), "success:Seven"}, {KXScriptedAnswer::empty(201), "failure:404:none"}};
    for (const auto& [post, event] : cases) {
        SCOPED_TRACE(event);
        service.script("POST", kLists + "/", post);
        KXListManager::createListWithExternalId("x", "X", {}, nullptr, nullptr, e.list(),
                                                e.failure());
        EXPECT_EQ(await(), std::vector{event});
    }
}
