// Subscription lists against the loopback service: paging, tags, reads by id,
// creating a list with its validations, and failures.
#include "../transport/KXTransportFixture.h"

#include <KXClientFramework/KXListManager.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

const std::string kLists = "/KXFrontier-stg/lists";

/// The callbacks also record "success:<list name>".
struct Events : KXEventLog {
    std::shared_ptr<KXList> list;

    KXListManager::ListSuccessBlock listSuccess() {
        return [this](std::shared_ptr<KXList> l) {
            seen.push_back("success:" + l->name().value_or("(none)"));
            list = std::move(l);
        };
    }
    KXListManager::ListsSuccessBlock listsSuccess() {
        return [this](const std::optional<KXLists>&, bool) { succeeded(); };
    }
};

class KXListManagerTest : public KXTransportTest {
protected:
    KXListManagerTest() { giveToken(); }
};

}  // namespace

TEST_F(KXListManagerTest, EachFetchRequestsItsURL) {
    struct Case {
        const char* name;
        std::function<void(Events&)> start;
        std::string target;
    };
    const auto data = [](std::int64_t page, std::int64_t limit) {
        return [=](Events& e) {
            KXListManager::fetchListDataForPage(
                page, limit, [&e](const KXJSON&, bool) { e.seen.emplace_back("success"); },
                e.failure());
        };
    };
    const auto lists = [](std::int64_t page, std::int64_t limit) {
        return [=](Events& e) {
            KXListManager::fetchListsForPage(page, limit, e.listsSuccess(), e.failure());
        };
    };
    const auto tagged = [](std::optional<std::string> tag, std::int64_t page, std::int64_t limit) {
        return [=](Events& e) {
            KXListManager::fetchListsWithTag(tag, page, limit, e.listsSuccess(), e.failure());
        };
    };
    const std::vector<Case> cases = {
        {"data, page 2 of 50", data(2, 50), kLists + "?offset=50&limit=50"},
        {"data, page 0 of limit 0", data(0, 0), kLists + "?offset=0&limit=1000"},
        {"lists, page 1 of 10", lists(1, 10), kLists + "?offset=0&limit=10"},
        {"lists, page 4 of limit 0", lists(4, 0), kLists + "?offset=0&limit=1000"},
        {"lists, page 3 of 7", lists(3, 7), kLists + "?offset=14&limit=7"},
        {"tagged", tagged("vip", 2, 50), kLists + "?tag=vip&offset=50&limit=50"},
        {"tag with reserved characters", tagged("a&b=c d#e+f%/", 1, 0),
         kLists + "?tag=a%26b%3Dc%20d%23e%2Bf%25%2F&offset=0&limit=1000"},
        {"empty tag", tagged("", 1, 5), kLists + "?offset=0&limit=5"},
        {"absent tag", tagged(std::nullopt, 2, 5), kLists + "?offset=5&limit=5"},
        {"by id",
         [](Events& e) { KXListManager::fetchListWithId("L1", e.listSuccess(), e.failure()); },
         kLists + "/L1"},
        {"by absent id",
         [](Events& e) {
             KXListManager::fetchListWithId(std::nullopt, e.listSuccess(), e.failure());
         },
         kLists + "/"},
    };
    for (const Case& c : cases) {
        const std::size_t before = service.requests().size();
        Events events;
        c.start(events);
        waitForEvents(events, 1);
        EXPECT_EQ(events.seen.size(), 1U) << c.name;
        const auto requests = service.requests();
        ASSERT_EQ(requests.size(), before + 1) << c.name;
        EXPECT_EQ(requests.back().method, "GET") << c.name;
        EXPECT_EQ(requests.back().path, c.target) << c.name;
    }
}

TEST_F(KXListManagerTest, PagedRepliesHandOverListsOrTheRawReplyWithTheMoreRecordsFlag) {
    const KXJSON reply = {{"records",
                           {{{"name", "News"}, {"channelCounts", {{"APNS_PUSH", 2}, {"SMS", 1}}}},
                            {{"name", "Offers"}}}},
                          {"hasMoreRecords", true}};
    service.script("GET", kLists, KXScriptedAnswer::json(200, reply));

    KXJSON raw;
    bool rawMore = false;
    std::optional<KXLists> parsed;
    bool parsedMore = false;
    int answers = 0;
    KXListManager::fetchListDataForPage(1, 0,
                                        [&](const KXJSON& r, bool more) {
                                            raw = r;
                                            rawMore = more;
                                            ++answers;
                                        },
                                        {});
    KXListManager::fetchListsWithTag("t", 1, 0,
                                     [&](const std::optional<KXLists>& lists, bool more) {
                                         parsed = lists;
                                         parsedMore = more;
                                         ++answers;
                                     },
                                     {});
    ASSERT_TRUE(runUntil([&] { return answers == 2; }));

    EXPECT_EQ(raw, reply);
    EXPECT_TRUE(rawMore);
    EXPECT_TRUE(parsedMore);
    ASSERT_TRUE(parsed.has_value());
    ASSERT_EQ(parsed->size(), 2U);
    EXPECT_EQ((*parsed)[0]->name(), "News");
    EXPECT_TRUE((*parsed)[0]->channel()->isIos());
    EXPECT_FALSE((*parsed)[0]->channel()->isEmail());
    EXPECT_TRUE((*parsed)[0]->channel()->isSMS());
}

TEST_F(KXListManagerTest, FailuresAreLoggedAndPassedOnUnchanged) {
    kxLogLevel = 1;
    auto sink = KXCapturingSink::install();
    service.script("GET", kLists, KXScriptedAnswer::json(500, {{"message", "down"}}));
    service.script("GET", kLists + "/L1", KXScriptedAnswer::json(404, {{"message", "no list"}}));
    struct Case {
        const char* operation;
        std::function<void(KXListManager::FailureBlock)> start;
        const char* event;
    };
    const std::vector<Case> cases = {
        {"fetchListDataForPage",
         [](auto failure) { KXListManager::fetchListDataForPage(1, 0, {}, failure); },
         "failure:500:down"},
        {"fetchListsForPage",
         [](auto failure) { KXListManager::fetchListsForPage(1, 0, {}, failure); },
         "failure:500:down"},
        {"fetchListsWithTag",
         [](auto failure) { KXListManager::fetchListsWithTag("t", 1, 0, {}, failure); },
         "failure:500:down"},
        {"fetchListWithId", [](auto failure) { KXListManager::fetchListWithId("L1", {}, failure); },
         "failure:404:no list"},
    };
    for (const Case& c : cases) {
        sink->clear();
        Events events;
        c.start(events.failure());
        waitForEvents(events, 1);
        EXPECT_EQ(events.seen, std::vector<std::string>{c.event}) << c.operation;
        const auto lines = sink->linesContaining("ERROR: ");
        ASSERT_EQ(lines.size(), 1U) << c.operation;
        EXPECT_EQ(
            lines[0].rfind(std::string("[ERROR] KXListManager::") + c.operation + " [Line ", 0), 0U)
            << lines[0];
        EXPECT_NE(lines[0].find("ERROR: Error Domain=NSOSStatusErrorDomain Code="),
                  std::string::npos)
            << lines[0];
    }

    sink->clear();
    KXListManager::fetchListWithId("L1", {}, {});
    ASSERT_TRUE(runUntil([&] { return !sink->linesContaining("ERROR: ").empty(); }))
        << "logged also without a failure callback";
}

TEST_F(KXListManagerTest, CreateReportsBadInputWithoutStoppingTheRequest) {
    struct Case {
        const char* name;
        std::optional<std::string> externalId, listName, description;
        KXJSON tags, buProperties;
        bool withFailure;
        std::vector<std::string> events;
        std::optional<KXJSON> body;  // absent: nothing is posted
    };
    const std::vector<Case> cases = {
        {"complete",
         "news",
         "News",
         "Weekly",
         {"a"},
         {{"k", "v"}},
         true,
         {"success:Created"},
         KXJSON{{"name", "News"},
                {"externalId", "news"},
                {"description", "Weekly"},
                {"tags", {"a"}},
                {"buProperties", {{"k", "v"}}}}},
        {"optional parts left out",
         "",
         "News",
         "",
         nullptr,
         nullptr,
         true,
         {"success:Created"},
         KXJSON{{"name", "News"}}},
        {"blank in the external id",
         "my news",
         "News",
         std::nullopt,
         nullptr,
         nullptr,
         true,
         {"failure:99:invalid externalId, remove spaces", "success:Created"},
         KXJSON{{"name", "News"}, {"externalId", "my news"}}},
        {"tab in the external id, no failure block",
         "my\tnews",
         "News",
         std::nullopt,
         nullptr,
         nullptr,
         false,
         {"success:Created"},
         KXJSON{{"name", "News"}, {"externalId", "my\tnews"}}},
        {"empty name",
         "news",
         "",
         std::nullopt,
         nullptr,
         nullptr,
         true,
         {"failure:99:invalid name", "success:Created"},
         KXJSON{{"name", ""}, {"externalId", "news"}}},
        {"both wrong",
         "a b",
         "",
         std::nullopt,
         nullptr,
         nullptr,
         true,
         {"failure:99:invalid externalId, remove spaces", "failure:99:invalid name",
          "success:Created"},
         KXJSON{{"name", ""}, {"externalId", "a b"}}},
        {"absent name",
         "news",
         std::nullopt,
         std::nullopt,
         nullptr,
         nullptr,
         true,
         {"failure:99:invalid name"},
         std::nullopt},
    };
    KXScriptedAnswer created = KXScriptedAnswer::empty(201);
    created.headers = {{"newRecordId", "L9"}};
    service.script("POST", kLists + "/", created);
    service.script("GET", kLists + "/L9", KXScriptedAnswer::json(200, {{"name", "Created"}}));

    for (const Case& c : cases) {
        const std::size_t posts = service.requestsTo(kLists + "/").size();
        Events events;
        KXListManager::createListWithExternalId(
            c.externalId, c.listName, c.description, c.tags, c.buProperties, events.listSuccess(),
            c.withFailure ? events.failure() : KXListManager::FailureBlock());
        waitForEvents(events, c.events.size());
        EXPECT_EQ(events.seen, c.events) << c.name;
        const auto sent = service.requestsTo(kLists + "/");
        if (!c.body) {
            EXPECT_EQ(sent.size(), posts) << c.name;
            continue;
        }
        ASSERT_EQ(sent.size(), posts + 1) << c.name;
        EXPECT_EQ(sent.back().method, "POST") << c.name;
        EXPECT_EQ(KXJSON::parse(sent.back().body), *c.body) << c.name;
    }
}

TEST_F(KXListManagerTest, CreateFetchesTheNewRecordOrFailsWithThePost) {
    struct Case {
        const char* name;
        KXScriptedAnswer post;
        std::string fetched;  // path of the follow-up fetch, empty: none
        std::vector<std::string> events;
    };
    KXScriptedAnswer withId = KXScriptedAnswer::empty(201);
    withId.headers = {{"newRecordId", "L 7"}};
    const std::vector<Case> cases = {
        {"new record id", withId, kLists + "/L%207", {"success:Seven"}},
        {"no new record id", KXScriptedAnswer::empty(201), kLists + "/", {"failure:404:none"}},
        {"post refused",
         KXScriptedAnswer::json(409, {{"message", "exists"}}),
         "",
         {"failure:409:exists"}},
    };
    service.script("GET", kLists + "/L%207", KXScriptedAnswer::json(200, {{"name", "Seven"}}));
    service.script("GET", kLists + "/", KXScriptedAnswer::json(404, {{"message", "none"}}));
    for (const Case& c : cases) {
        service.script("POST", kLists + "/", c.post);
        const std::size_t before = service.requests().size();
        Events events;
        KXListManager::createListWithExternalId("x", "X", std::nullopt, nullptr, nullptr,
                                                events.listSuccess(), events.failure());
        waitForEvents(events, 1);
        EXPECT_EQ(events.seen, c.events) << c.name;
        const auto requests = service.requests();
        ASSERT_EQ(requests.size(), before + (c.fetched.empty() ? 1 : 2)) << c.name;
        if (!c.fetched.empty()) {
            EXPECT_EQ(requests.back().method, "GET") << c.name;
            EXPECT_EQ(requests.back().path, c.fetched) << c.name;
        }
    }
}
