#include "KXToolTestFixture.h"

#include <algorithm>
#include <optional>

using namespace kxtools;

namespace {

// A guest as the service sends it: one SMS profile subscribed to one list.
KXJSON serviceGuest(const std::string& id) {
    KXJSON guest = KXJSON::parse(R"({"languagePref": "fr", "tags": ["vip"],
        "buProperties": {"tier": 2}, "deliveryProfiles": [{"id": "SM-1", "enabled": true,
            "memberships": [{"recipientListId": "L0", "enabled": true}],
            "address": {"channel": "sms", "enabled": true, "attributes": {"mdn": "555"}}}]})");
    guest["externalId"] = id;
    return guest;
}

// What kxctl prints for serviceGuest(id): every property, absent ones as null.
KXJSON printedGuest(const std::string& id) {
    KXJSON guest = KXJSON::parse(R"({"externalIdType": null, "languagePref": "fr",
        "buCreativeLabel": null, "tags": ["vip"], "buProperties": {"tier": 2},
        "deliveryProfiles": [{"profileId": "SM-1", "enabled": true, "tags": null,
            "memberships": [{"recipientListId": "L0", "languagePref": null, "enabled": true}],
            "address": {"channel": "sms", "attributes": {"mdn": "555"}, "enabled": true}}]})");
    guest["externalId"] = id;
    return {{"guest", guest}};
}

// The answers to a registration that the service gives `id`, and the requests it takes.
std::vector<Script> registration(const std::string& id) {
    return {{"POST", "/guests", createdAs(id)},
            {"GET", "/guests/" + id, KXScriptedAnswer::json(200, serviceGuest(id))}};
}
Lines registrationRequests(const std::string& id) {
    return {"POST /guests", "GET /guests/" + id, "POST /guests/" + id + "/profiles"};
}

// Without --guest the current guest has no externalId: the guest segment is empty. Paths are
// below the base path.
const std::string kInbox = "/guests//inboxes/Dom";

KXJSON message(const std::string& id, bool read, std::optional<double> timestamp) {
    KXJSON header = {{"id", id}, {"subject", "About " + id}, {"flags", {{"read", read}}}};
    if (timestamp) {
        header["dateReceived"] = *timestamp;
    }
    return header;
}

KXJSON printedMessage(const std::string& id, bool read, double timestamp) {
    return {{"messageId", id},        {"title", "About " + id}, {"sender", nullptr},
            {"contentType", nullptr}, {"timestamp", timestamp}, {"read", read}};
}

KXJSON printedSummary() {
    KXJSON summary = KXJSON::parse(R"({"inboxDomainId": "Dom", "name": "Main", "desc": "Inbox",
        "totalMessageCount": 5, "unreadMessageCount": 2, "deleteByGuestForbidden": false})");
    summary["description"] =
        "inboxDomainId: Dom, name: Main, desc: Inbox, _totalMessageCount: 5, "
        "_unreadMessageCount: 2, deleteByGuestForbidden: 0";
    return {{"summary", summary}};
}

const KXJSON kNewsRecord = KXJSON::parse(R"({"type": "PUBLIC", "externalId": "news",
    "name": "News", "channelCounts": {"APNS_PUSH": 4, "SMS": 1}, "tags": ["vip"]})");
const KXJSON kNewsPrinted = KXJSON::parse(R"({"type": "PUBLIC", "externalId": "news",
    "desc": null, "name": "News", "channel": {"isIos": true, "isEmail": false, "isSMS": true},
    "tags": ["vip"], "buProperties": null})");

struct CommandCase {
    const char* name;
    std::vector<std::string> arguments;
    std::vector<Script> scripts;
    int exitCode;
    std::vector<KXJSON> lines;
    Lines requests;               // "METHOD path" below the base path, the token request left out
    const char* body = "";        // JSON of the last request's body, when given
    const char* stderrText = "";  // a text standard error must hold
    int bodyOf = -1;              // the request whose body `body` is; -1 the last
    bool unordered = false;       // lines and requests may come in any order
};
using C = CommandCase;

void PrintTo(const CommandCase& c, std::ostream* os) {
    *os << c.name;
}

const Script kGuestG1{"GET", "/guests/g1", KXScriptedAnswer::json(200, serviceGuest("g1"))};
const KXJSON kOK = {{"ok", true}};
const KXJSON kCompleted = {{"completed", true}};

KXScriptedAnswer page(const std::vector<KXJSON>& records, const KXJSON& more) {
    KXJSON body = {{"records", records}};
    if (!more.is_null()) {
        body["hasMoreRecords"] = more;
    }
    return KXScriptedAnswer::json(200, body);
}

KXJSON printedPage(const std::vector<KXJSON>& messages, const KXJSON& more, int count, int unread) {
    return {{"messages", messages},
            {"hasMoreRecords", more},
            {"messageCount", count},
            {"unreadCount", unread}};
}

const std::vector<CommandCase> kCommandCases = {
    C("RegisterWithServiceChosenId", {"guest", "register"}, registration("N1"), 0,
      {printedGuest("N1")}, registrationRequests("N1")),
    C("RegisterWithIdAndParameters",
      {"guest", "register", "--id", "g5", "--param", "x={\"a\":1}", "--param", "externalId=\"g6\""},
      registration("g6"), 0, {printedGuest("g6")}, registrationRequests("g6")),
    C("RegisterWithQRIDAndNoTokenSendsTheIdAlone", {"guest", "register", "--qrid", "q1"},
      registration("q1"), 0, {printedGuest("q1")}, registrationRequests("q1"),
      R"({"externalId":"q1"})", "", 0),
    C("RegisterFull",
      {"guest", "register", "--id", "g5", "--bu-properties", R"({"k":1})", "--language", "de",
       "--creative-label", "c", "--tags", R"(["a"])"},
      registration("g5"), 0, {printedGuest("g5")}, registrationRequests("g5")),
    C("FetchPrintsTheGuest", {"guest", "fetch", "g1"}, {kGuestG1}, 0, {printedGuest("g1")},
      {"GET /guests/g1"}),
    C("FetchRefused", {"guest", "fetch", "g1"},
      {{"GET", "/guests/g1", KXScriptedAnswer::json(404, {{"error", "no such guest"}})}}, 1,
      {errorLine(404, {{"error", "no such guest"}})}, {"GET /guests/g1"}),
    C("SaveParsesTheDataAndPostsIt",
      {"guest", "save", "--data", R"({"externalId":"g1","languagePref":"fr","tags":["x"]})"},
      {{"POST", "/guests/g1", KXScriptedAnswer::empty(200)}}, 0, {{{"saved", true}}},
      {"POST /guests/g1"}, R"({"externalId":"g1","languagePref":"fr","buProperties":{}})"),
    C("Delete", {"guest", "delete", "g1"}, {{"DELETE", "/guests/g1", KXScriptedAnswer::empty(204)}},
      0, {{{"deleted", true}}}, {"DELETE /guests/g1"}),
    // Without an analytics engine the session post cannot succeed, so nothing is cleared.
    C("LogoutWithoutAnalyticsKeepsTheGuest", {"--guest", "g1", "guest", "logout"}, {kGuestG1}, 0,
      {printedGuest("g1")}, {"GET /guests/g1"}),
    C("AddEmailProfile", {"profile", "add", "email", "g1", "a@b.c"},
      {{"POST", "/guests/g1/profiles", createdAs("EM-9")}}, 0, {{{"profileId", "EM-9"}}},
      {"POST /guests/g1/profiles"},
      R"({"address":{"channel":"EMAIL","attributes":{"emailAddress":"a@b.c"}}})"),
    C("AddInboxProfileOfTheConfiguredDomain", {"profile", "add", "inbox", "g1"},
      {{"POST", "/guests/g1/profiles", createdAs("IN-9")}}, 0, {{{"profileId", "IN-9"}}},
      {"POST /guests/g1/profiles"},
      R"({"address":{"channel":"INBOX","attributes":{"guestId":"g1","inboxDomainId":"Dom"}}})"),
    C("EnablePushWithoutTokenFails", {"--guest", "g1", "profile", "enable", "1"}, {kGuestG1}, 1,
      {validationError("invalid guest delivery profile")}, {"GET /guests/g1"}),
    C("EnableEmailAnswersNothing", {"profile", "enable", "4"}, {}, 0, {}, {}),
    C("SubscribeByChannelOnTheFetchedGuest", {"--guest", "g1", "subscribe", "L1", "--channel", "2"},
      {kGuestG1, {"PUT", "/guests/g1/profiles/SM-1/memberships/L1", KXScriptedAnswer::empty(200)}},
      0, {kOK}, {"GET /guests/g1", "PUT /guests/g1/profiles/SM-1/memberships/L1?createList=true"},
      R"({"externalId":"g1","enabled":1})"),
    C("UnsubscribeByProfile", {"--guest", "g1", "unsubscribe", "L0", "--profile", "SM-1"},
      {kGuestG1,
       {"DELETE", "/guests/g1/profiles/SM-1/memberships/L0", KXScriptedAnswer::empty(200)}},
      0, {kOK}, {"GET /guests/g1", "DELETE /guests/g1/profiles/SM-1/memberships/L0"}),
    C("AGuestThatCannotBeFetchedRunsNoCommand",
      {"--guest", "g1", "subscribe", "L1", "--profile", "P1"},
      {{"GET", "/guests/g1", KXScriptedAnswer::empty(404)}}, 1, {errorLine(404, nullptr)},
      {"GET /guests/g1"}),
    C("AcceptWithoutPushProfileCompletesAndWritesTheFailure",
      {"--guest", "g1", "action", "ACCEPT_IDENTIFIER", "--user-info", R"({"aps":{"listId":"L1"}})"},
      {kGuestG1}, 0, {kCompleted}, {"GET /guests/g1"}, "", "Unable to subscribed to L1"),
    C("Decline", {"action", "DECLINE_IDENTIFIER"}, {}, 0, {kCompleted}, {}, "",
      "Handling decline..."),
    C("SummaryReportsTheMissingGuestThenTheAnswer", {"inbox", "summary"},
      {{"GET", kInbox,
        KXScriptedAnswer::json(200, KXJSON::parse(R"({"name": "Main", "description": "Inbox",
            "totalMessageCount": 5, "unreadMessageCount": 2})"))}},
      1, {validationError("invalid guest"), printedSummary()}, {"GET " + kInbox}),
    C("PagesInTheOrderGivenAreAppended",
      {"inbox", "messages", "--limit", "10", "--page", "3", "--page", "1"},
      {{"GET", kInbox + "/messages", page({message("m21", false, 1.5e12)}, false)},
       {"GET", kInbox + "/messages", page({message("m1", true, std::nullopt)}, true)}},
      0,
      {printedPage({printedMessage("m21", false, 1.5e12)}, false, 1, 1),
       printedPage({printedMessage("m1", true, 0)}, true, 2, 1)},
      {"GET " + kInbox + "/messages?offset=20&limit=10",
       "GET " + kInbox + "/messages?offset=0&limit=10"}),
    C("TheFullFetchHasNoMoreRecordsFlag", {"inbox", "messages", "--domain", "d2"},
      {{"GET", "/guests//inboxes/d2/messages", page({message("a", false, 7)}, nullptr)}}, 0,
      {printedPage({printedMessage("a", false, 7)}, nullptr, 1, 1)},
      {"GET /guests//inboxes/d2/messages"}),
    C("OneMessageWithItsContent", {"inbox", "message", "m1"},
      {{"GET", kInbox + "/messages/m1",
        KXScriptedAnswer::json(200,
                               {{"header", message("other", true, 9)}, {"content", "<p>Hi</p>"}})}},
      0, {KXJSON::parse(R"({"message": {"messageId": "m1", "title": "About other", "sender": null,
          "contentType": null, "timestamp": 9, "read": true, "content": "<p>Hi</p>"}})")},
      {"GET " + kInbox + "/messages/m1"}),
    C("UnreadPostsToUnread", {"inbox", "unread", "m1"},
      {{"POST", kInbox + "/messages/m1/unread", KXScriptedAnswer::empty(200)}}, 0, {kOK},
      {"POST " + kInbox + "/messages/m1/unread"}),
    // The deletes run side by side: their lines come in the order the answers arrive.
    C("DeleteReportsEachMessage", {"inbox", "delete", "a", "b"},
      {{"DELETE", kInbox + "/messages/a", KXScriptedAnswer::empty(204)},
       {"DELETE", kInbox + "/messages/b", KXScriptedAnswer::json(404, {{"message", "gone"}})}},
      1, {{{"deleted", true}}, errorLine(404, {{"message", "gone"}})},
      {"DELETE " + kInbox + "/messages/a", "DELETE " + kInbox + "/messages/b"}, "", "", -1, true),
    C("BadgeWithoutAnInboxProfileStaysZero", {"inbox", "badge"}, {}, 0, {{{"badge", 0}}}, {}),
    C("ListsWithATagOfReservedCharacters",
      {"lists", "--tag", "a&b c", "--page", "2", "--limit", "5"},
      {{"GET", "/lists", page({kNewsRecord}, true)}}, 0,
      {{{"lists", {kNewsPrinted}}, {"hasMoreRecords", true}}},
      {"GET /lists?tag=a%26b%20c&offset=5&limit=5"}),
    C("RawListsDefaultToPage1AndTheLibraryLimit", {"lists", "--raw"},
      {{"GET", "/lists", page({}, nullptr)}}, 0,
      {{{"data", {{"records", KXJSON::array()}}}, {"hasMoreRecords", false}}},
      {"GET /lists?offset=0&limit=1000"}),
    C("CreateReportsTheBlankAndStillCreates",
      {"list", "create", "--external-id", "my news", "--name", "News", "--tags", "[\"vip\"]"},
      {{"POST", "/lists/", createdAs("news")},
       {"GET", "/lists/news", KXScriptedAnswer::json(200, kNewsRecord)}},
      1, {validationError("invalid externalId, remove spaces"), {{"list", kNewsPrinted}}},
      {"POST /lists/", "GET /lists/news"}),
};

class KXCtlGuestTool : public KXCtlTest {
protected:
    KXCtlGuestTool() {
        service.scriptToken("tok");
        writeConfiguration(false, true);
    }

    void writeConfiguration(bool inProduction, bool autoGuest) {
        seal(std::string("<key>inboxDomainId</key><string>Dom</string><key>inProduction</key>") +
             (inProduction ? "<true/>" : "<false/>") + "<key>autoGuestEnabled</key>" +
             (autoGuest ? "<true/>" : "<false/>"));
    }

    // The requests below the base path in the order they came, without the inbox summary fetch
    // that every successful guest fetch starts on its own beside the command's requests (the
    // guest of the inbox commands has no id).
    std::vector<KXRecordedRequest> commandRequests() const {
        std::vector<KXRecordedRequest> requests;
        for (const auto& request : service.requests()) {
            const bool summaryFetch = request.method == "GET" &&
                                      request.path.find("/inboxes/") != std::string::npos &&
                                      request.path.find("//inboxes/") == std::string::npos &&
                                      request.path.find("/messages") == std::string::npos;
            if (!summaryFetch && request.path.starts_with(kBase)) {
                requests.push_back(request);
                requests.back().path.erase(0, kBase.size());
            }
        }
        return requests;
    }

    /// Scripts the registration of guest `id` below `base`, its inbox profile included.
    void scriptRegistration(const std::string& base, const std::string& id) {
        script(registration(id), base);
        service.script("POST", base + "/guests/" + id + "/profiles", createdAs("IN-" + id));
    }

    void expectAutoGuest(const KXJSON& line) {
        const ProcessResult result = kxctl({"guest", "auto"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(jsonLines(result.out), std::vector<KXJSON>{line});
    }

    KXJSON defaults() { return jsonLines(kxctl({"defaults"}).out).at(0); }

    Lines serviceRequests() const {
        Lines lines;
        for (const auto& request : commandRequests()) {
            lines.push_back(request.method + " " + request.path);
        }
        return lines;
    }
};

class KXCtlGuestCommandTest : public KXCtlGuestTool,
                              public testing::WithParamInterface<CommandCase> {};

TEST_P(KXCtlGuestCommandTest, PrintsItsLinesAndSendsItsRequests) {
    const CommandCase& c = GetParam();
    script(c.scripts, kBase);
    const ProcessResult result = kxctl(c.arguments);
    EXPECT_EQ(result.exitCode, c.exitCode) << result.err;
    std::vector<KXJSON> lines = jsonLines(result.out);
    std::vector<KXJSON> expected = c.lines;
    Lines sent = serviceRequests();
    Lines expectedRequests = c.requests;
    if (c.unordered) {
        const auto byText = [](const KXJSON& a, const KXJSON& b) { return a.dump() < b.dump(); };
        std::sort(lines.begin(), lines.end(), byText);
        std::sort(expected.begin(), expected.end(), byText);
        std::sort(sent.begin(), sent.end());
        std::sort(expectedRequests.begin(), expectedRequests.end());
    }
    EXPECT_EQ(lines, expected) << result.out;
    EXPECT_EQ(sent, expectedRequests);
    const auto requests = commandRequests();
    if (*c.body != '\0' && !requests.empty()) {
        const auto& request = c.bodyOf < 0 ? requests.back() : requests.at(c.bodyOf);
        EXPECT_EQ(KXJSON::parse(request.body), KXJSON::parse(c.body));
    }
    EXPECT_NE(result.err.find(c.stderrText), std::string::npos) << result.err;
}

INSTANTIATE_TEST_SUITE_P(Commands, KXCtlGuestCommandTest, testing::ValuesIn(kCommandCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(KXCtlGuestTool, TheAutomaticGuestIsRegisteredOnceAndFetchedByLaterRuns) {
    // The first run registers and stores the id; the inbox profile is added after success.
    scriptRegistration(kBase, "N1");
    expectAutoGuest(printedGuest("N1"));
    EXPECT_EQ(serviceRequests(),
              (Lines{"POST /guests", "GET /guests/N1", "POST /guests/N1/profiles"}));
    EXPECT_EQ(defaults(), (KXJSON{{"stage-id-GUEST-ID", "N1"},
                                  {"applicationDeviceToken", nullptr},
                                  {"applicationDeviceTokenList", nullptr}}));

    // The second process fetches the stored guest instead of registering one.
    expectAutoGuest(printedGuest("N1"));
    EXPECT_EQ(service.requestsTo(kBase + "/guests").size(), 1u);
    EXPECT_FALSE(service.requestsTo(kBase + "/guests/N1/inboxes/Dom").empty())
        << "a fetched guest starts the inbox summary fetch of the configured domain";
    EXPECT_EQ(service.requestsTo(kBase + "/guests/N1").size(), 2u);

    // Production keeps its guest under its own key, so it starts with a fresh registration.
    writeConfiguration(true, true);
    scriptRegistration("/KXFrontier", "P1");
    expectAutoGuest(printedGuest("P1"));
    EXPECT_EQ(service.requestsTo("/KXFrontier/guests").size(), 1u);
    const KXJSON bothIds = defaults();
    EXPECT_EQ(bothIds["prod-id-GUEST-ID"], "P1");
    EXPECT_EQ(bothIds["stage-id-GUEST-ID"], "N1");

    // Switched off, the entry is removed and there is no guest.
    writeConfiguration(false, false);
    expectAutoGuest({{"guest", nullptr}});
    EXPECT_EQ(defaults()["stage-id-GUEST-ID"], nullptr);
}

TEST_F(KXCtlGuestTool, AFailedAutomaticGuestKeepsTheStoredId) {
    scriptRegistration(kBase, "N1");
    service.script("GET", kBase + "/guests/N1", KXScriptedAnswer::empty(503));
    expectAutoGuest(printedGuest("N1"));

    const ProcessResult result = kxctl({"guest", "auto"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(jsonLines(result.out), std::vector<KXJSON>{errorLine(503, nullptr)});
    EXPECT_EQ(defaults()["stage-id-GUEST-ID"], "N1");
}

}  // namespace
