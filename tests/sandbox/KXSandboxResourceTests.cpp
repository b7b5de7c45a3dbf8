#include "KXSandboxFixture.h"

#include <chrono>
#include <map>
#include <regex>
#include <thread>

namespace {

using SandboxResources = KXAuthenticatedSandboxTest;

/// "{name}" placeholders replaced by the values captured so far.
std::string expand(std::string text, const std::map<std::string, std::string>& values) {
    for (const auto& [name, value] : values) {
        const std::string placeholder = "{" + name + "}";
        for (std::size_t at = text.find(placeholder); at != std::string::npos;
             at = text.find(placeholder)) {
            text.replace(at, placeholder.size(), value);
        }
    }
    return text;
}

}  // namespace

TEST_F(SandboxResources, AGuestsLifeThroughEveryResource) {
    struct Step {
        const char* method;
        std::string path;
        const char* body;  // JSON; "" for none
        long status;
        const char* capture;  // saves "newRecordId" under this name for later paths and bodies
        // JSON pointers into the answer and the values they must find there; a pointer ending
        // in "#" counts the elements of the array it names.
        const char* expected = "{}";
    };
    const std::string inbox = "/guests/{guest}/inboxes/inbox-1";
    const std::string memberships = "/guests/{guest}/profiles/{inbox}/memberships/";
    const char* subscribe = R"({"externalId": "{guest}", "enabled": 1})";
    const std::vector<Step> steps = {
        {"POST", "/guests",
         R"({"externalIdType": "QRID", "languagePref": "en", "tags": ["vip"], "deliveryProfiles":
             [{"address": {"channel": "APNS_PUSH", "attributes":
               {"applicationToken": "a1b2c3", "applicationId": "app-1"}}}]})",
         201, "guest",
         R"({"/externalIdType": "QRID", "/deliveryProfiles#": 1,
             "/deliveryProfiles/0/address/attributes/applicationToken": "a1b2c3"})"},
        {"GET", "/guests/{guest}", "", 200, "",
         R"({"/languagePref": "en", "/tags": ["vip"], "/deliveryProfiles/0/enabled": true})"},
        // Save keeps what it was not sent.
        {"POST", "/guests/{guest}",
         R"({"externalId": "{guest}", "languagePref": "de", "buProperties": {"room": 12}})", 200,
         "", R"({"/languagePref": "de", "/buProperties/room": 12, "/externalIdType": "QRID"})"},
        {"POST", "/guests/{guest}/profiles",
         R"({"address": {"channel": "INBOX",
             "attributes": {"guestId": "{guest}", "inboxDomainId": "inbox-1"}}})",
         201, "inbox"},
        {"POST", "/guests/{guest}/profiles",
         R"({"address": {"channel": "EMAIL", "attributes": {"emailAddress": "a@b.example"}}})", 201,
         "email"},
        {"POST", "/guests/{guest}/profiles",
         R"({"address": {"channel": "SMS", "attributes": {"mdn": "+15550100"}}})", 201, "sms"},
        {"POST", "/guests/{guest}/profiles/{email}/disable", "", 200, "", R"({"/enabled": false})"},
        {"POST", "/guests/{guest}/profiles/{email}/enable", "", 200, "", R"({"/enabled": true})"},
        {"PUT", memberships + "offers?createList=true", subscribe, 200, "",
         R"({"/memberships/0/recipientListId": "offers"})"},
        {"PUT", memberships + "brand-new?createList=true", subscribe, 200, ""},
        {"GET", "/lists/brand-new", "", 200, "", R"({"/channelCounts/INBOX": 1})"},
        {"PUT", memberships + "nowhere", R"({"enabled": 1})", 404, ""},
        {"DELETE", memberships + "brand-new", "", 200, "", R"({"/memberships#": 1})"},
        {"GET", "/guests/{guest}", "", 200, "",
         R"({"/deliveryProfiles#": 4, "/deliveryProfiles/0/address/channel": "APNS_PUSH",
             "/deliveryProfiles/1/address/channel": "INBOX",
             "/deliveryProfiles/2/address/channel": "EMAIL",
             "/deliveryProfiles/3/address/channel": "SMS"})"},
        {"GET", inbox, "", 200, "",
         R"({"/totalMessageCount": 25, "/unreadMessageCount": 25,
             "/deleteByGuestForbidden": false})"},
        {"GET", inbox + "/messages?offset=20&limit=10", "", 200, "",
         R"({"/records#": 5, "/hasMoreRecords": false})"},
        {"GET", inbox + "/messages?offset=0&limit=10", "", 200, "",
         R"({"/records#": 10, "/hasMoreRecords": true, "/records/0/flags/read": false})"},
        {"GET", inbox + "/messages", "", 200, "", R"({"/records#": 25})"},
        {"GET", "/lists?offset=0&limit=4", "", 200, "",
         R"({"/records#": 4, "/hasMoreRecords": true})"},
        {"GET", "/lists?tag=marketing&offset=0&limit=10", "", 200, "",
         R"({"/records#": 2, "/records/0/externalId": "offers", "/records/1/externalId": "spa"})"},
        // The live subscription counts beside the seeded ones.
        {"GET", "/lists/offers", "", 200, "",
         R"({"/channelCounts/APNS_PUSH": 1240, "/channelCounts/INBOX": 1,
             "/tags": ["marketing", "weekly"]})"},
        {"POST", "/lists/",
         R"({"externalId": "late-checkout", "name": "Late checkout", "tags": ["stay"]})", 201,
         "list"},
        {"POST", "/lists/", R"({"externalId": "late-checkout", "name": "Again"})", 409, ""},
        {"GET", "/lists/{list}", "", 200, "", R"({"/name": "Late checkout"})"},
        {"POST", "/sessions",
         R"({"time": "1500000000", "guestSession": {"guestId": "{guest}"},
             "deviceData": {"model": "x"}})",
         201, "session"},
        {"POST", "/sessions/{session}", R"({"time": "1500000060", "isClosed": false})", 200, "",
         R"({"/closed": false})"},
        {"POST", "/sessions/{session}", R"({"time": "1500000120", "isClosed": true})", 200, "",
         R"({"/closed": true})"},
        {"POST", "/sessions/", R"({"isClosed": true})", 404, ""},
        {"DELETE", "/guests/{guest}", "", 200, ""},
        {"GET", "/guests/{guest}", "", 404, ""},
    };
    std::map<std::string, std::string> values;
    const std::map<std::string, Verb> verbs = {{"GET", &KXHTTPSessionManager::GET},
                                               {"POST", &KXHTTPSessionManager::POST},
                                               {"PUT", &KXHTTPSessionManager::PUT},
                                               {"DELETE", &KXHTTPSessionManager::DELETE}};
    for (const Step& step : steps) {
        const std::string path = expand(step.path, values);
        SCOPED_TRACE(std::string(step.method) + " " + path);
        const KXJSON body =
            *step.body == '\0' ? KXJSON() : KXJSON::parse(expand(step.body, values));
        const KXSandboxAnswer answer = call(verbs.at(step.method), path, body);
        ASSERT_EQ(answer.status, step.status) << answer.object;
        EXPECT_EQ(answer.succeeded, step.status < 300);
        if (step.status >= 400) {
            EXPECT_EQ(answer.object["status"], step.status) << "errors carry a JSON body";
        }
        if (*step.capture != '\0') {
            ASSERT_FALSE(answer.newRecordId.empty());
            values[step.capture] = answer.newRecordId;
        }
        const KXJSON expected = KXJSON::parse(step.expected);
        for (const auto& [pointer, value] : expected.items()) {
            const bool count = pointer.ends_with('#');
            const KXJSON::json_pointer at(count ? pointer.substr(0, pointer.size() - 1) : pointer);
            ASSERT_TRUE(answer.object.contains(at)) << pointer << " in " << answer.object;
            EXPECT_EQ(count ? KXJSON(answer.object[at].size()) : answer.object[at], value)
                << pointer;
        }
        if (step.path == inbox + "/messages?offset=0&limit=10") {
            const KXJSON& records = answer.object["records"];
            EXPECT_GT(records[0]["dateReceived"], records[1]["dateReceived"]) << "newest first";
        }
    }
}

TEST_F(SandboxResources, MessagesOpenAsDetailsAndTheirFlagsAndDeletionShowInTheSummary) {
    const std::string guest = registerGuest();
    const std::string inbox = "/guests/" + guest + "/inboxes/" + kInboxDomain;
    const KXJSON first = get(inbox + "/messages?offset=0&limit=3").object["records"];
    ASSERT_EQ(first.size(), 3u);
    std::map<std::string, std::string> types;
    for (const auto& header : first) {
        const KXJSON details = get(inbox + "/messages/" + header["id"].get<std::string>()).object;
        EXPECT_EQ(details["header"]["id"], header["id"]);
        EXPECT_FALSE(details["content"].get<std::string>().empty());
        types[header["contentType"]] = details["content"];
    }
    EXPECT_EQ(types.size(), 3u) << "HTML, plain text and a URL";
    EXPECT_NE(types["text/html"].find("<h1>"), std::string::npos);
    EXPECT_EQ(types["text/uri-list"].rfind("https://", 0), 0u);

    const std::string message = inbox + "/messages/" + first[0]["id"].get<std::string>();
    struct Case {
        const char* action;
        long status;
        int unread;
        int total;
    };
    for (const Case& c : std::vector<Case>{{"/read", 200, 24, 25},
                                           {"/read", 200, 24, 25},
                                           {"/unread", 200, 25, 25},
                                           {"/read", 200, 24, 25},
                                           {"", 200, 24, 24},
                                           {"/read", 404, 24, 24}}) {
        SCOPED_TRACE(std::string("action ") + c.action);
        const KXSandboxAnswer answer = *c.action == '\0' ? del(message) : post(message + c.action);
        EXPECT_EQ(answer.status, c.status);
        const KXJSON summary = get(inbox).object;
        EXPECT_EQ(summary["unreadMessageCount"], c.unread);
        EXPECT_EQ(summary["totalMessageCount"], c.total);
    }

    const std::string notices = "/guests/" + guest + "/inboxes/notices";
    EXPECT_EQ(get(notices).object["deleteByGuestForbidden"], true);
    const std::string id = get(notices + "/messages?offset=0&limit=1").object["records"][0]["id"];
    EXPECT_EQ(del(notices + "/messages/" + id).error->code, 403);
    EXPECT_EQ(get(notices).object["totalMessageCount"], 25);
    EXPECT_EQ(get("/guests/" + guest + "/inboxes/unknown-domain").status, 404);
}

// Which base path the library chooses for each environment is the transport's EnvironmentTable.
TEST_F(SandboxResources, EveryBasePathIsATenantOfItsOwn) {
    httplib::Client client = rawClient();
    const httplib::Headers authorization = {{"Authorization", "BEARER " + bearerToken()}};
    for (const std::string base : {"/ZandrelService/rest/bu/BU1", "/ZandrelService/rest/bu/BU2",
                                   "/KXFrontier-stg", "/KXFrontier-devinteg", "/KXFrontier"}) {
        SCOPED_TRACE(base);
        const auto created = client.Post(
            base + "/guests", authorization,
            KXJSON{{"externalId", "same-id"}, {"languagePref", base}}.dump(), "application/json");
        ASSERT_TRUE(created);
        EXPECT_EQ(created->status, 201) << "a new guest in each tenant";
        const auto guest = client.Get(base + "/guests/same-id", authorization);
        ASSERT_TRUE(guest);
        EXPECT_EQ(KXJSON::parse(guest->body)["languagePref"], base);
        const auto lists = client.Get(base + "/lists/offers", authorization);
        ASSERT_TRUE(lists);
        EXPECT_EQ(lists->status, 200) << "each tenant has its seeded lists";
    }
}

TEST_F(SandboxResources, EveryRequestIsLoggedWithMethodPathStatusAndMilliseconds) {
    const std::string guest = registerGuest();
    get("/guests/" + guest + "/inboxes/inbox-1/messages?offset=0&limit=2");
    get("/guests/nobody");
    const std::regex line(R"(^(GET|POST|PUT|DELETE) (/\S*) (\d{3}) \d+\.\dms$)");
    std::vector<std::string> logged;
    // The service writes a request's line once its answer is sent: the last may still be coming.
    for (int tries = 0; tries < 500 && logged.size() < 4; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        logged.clear();
        for (const std::string& text : sandbox->lines()) {
            std::smatch match;
            if (std::regex_match(text, match, line)) {
                logged.push_back(match[1].str() + " " + match[2].str() + " " + match[3].str());
            }
        }
    }
    EXPECT_EQ(logged, (std::vector<std::string>{
                          "POST /token 200",
                          "POST /ZandrelService/rest/bu/BU1/guests 201",
                          "GET /ZandrelService/rest/bu/BU1/guests/" + guest +
                              "/inboxes/inbox-1/messages?offset=0&limit=2 200",
                          "GET /ZandrelService/rest/bu/BU1/guests/nobody 404",
                      }));
}
