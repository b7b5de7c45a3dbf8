// kxctl's guest, profile, membership, action and defaults commands run as child processes
// against the loopback service: the lines they print, their exit status, the requests they
// send, and the automatic guest kept across two runs.
#include "KXLoopbackService.h"
#include "KXProcess.h"
#include "KXSealedFiles.h"

#include <KXClientFramework/KXJSON.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using kxtest::jsonLines;
using kxtest::ProcessResult;

namespace {

using Lines = std::vector<std::string>;

const std::string kKey = "kxctl-guest-key";
const std::string kBase = "/KXFrontier-stg";

// A guest as the service sends it: g1 with an SMS profile subscribed to one list.
KXJSON serviceGuest(const std::string& id) {
    return {{"externalId", id},
            {"languagePref", "fr"},
            {"tags", {"vip"}},
            {"buProperties", {{"tier", 2}}},
            {"deliveryProfiles",
             {{{"id", "SM-1"},
               {"enabled", true},
               {"memberships", {{{"recipientListId", "L0"}, {"enabled", true}}}},
               {"address",
                {{"channel", "sms"}, {"enabled", true}, {"attributes", {{"mdn", "555"}}}}}}}}};
}

// What kxctl prints for serviceGuest(id): every property, absent ones as null.
KXJSON printedGuest(const std::string& id) {
    return {{"guest",
             {{"externalId", id},
              {"externalIdType", nullptr},
              {"languagePref", "fr"},
              {"buCreativeLabel", nullptr},
              {"tags", {"vip"}},
              {"buProperties", {{"tier", 2}}},
              {"deliveryProfiles",
               {{{"profileId", "SM-1"},
                 {"enabled", true},
                 {"tags", nullptr},
                 {"memberships",
                  {{{"recipientListId", "L0"}, {"languagePref", nullptr}, {"enabled", true}}}},
                 {"address",
                  {{"channel", "sms"}, {"attributes", {{"mdn", "555"}}}, {"enabled", true}}}}}}}}};
}

KXJSON errorLine(std::int64_t code, const KXJSON& userInfo) {
    return {
        {"error", {{"domain", "NSOSStatusErrorDomain"}, {"code", code}, {"userInfo", userInfo}}}};
}

KXJSON validationError(const char* message) {
    return errorLine(99, {{"message", message}});
}

KXScriptedAnswer createdAs(const std::string& id) {
    KXScriptedAnswer answer = KXScriptedAnswer::empty(201);
    answer.headers = {{"newRecordId", id}};
    return answer;
}

struct Script {
    std::string method;
    std::string path;  // below the base path
    KXScriptedAnswer answer;
};

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
};

void PrintTo(const CommandCase& c, std::ostream* os) {
    *os << c.name;
}

const Script kGuestG1{"GET", "/guests/g1", KXScriptedAnswer::json(200, serviceGuest("g1"))};

const CommandCase kCommandCases[] = {
    {"RegisterWithServiceChosenId",
     {"guest", "register"},
     {{"POST", "/guests", createdAs("N1")},
      {"GET", "/guests/N1", KXScriptedAnswer::json(200, serviceGuest("N1"))}},
     0,
     {printedGuest("N1")},
     {"POST /guests", "GET /guests/N1", "POST /guests/N1/profiles"}},
    {"RegisterWithIdAndParameters",
     {"guest", "register", "--id", "g5", "--param", "x={\"a\":1}", "--param", "externalId=\"g6\""},
     {{"POST", "/guests", createdAs("g6")},
      {"GET", "/guests/g6", KXScriptedAnswer::json(200, serviceGuest("g6"))}},
     0,
     {printedGuest("g6")},
     {"POST /guests", "GET /guests/g6", "POST /guests/g6/profiles"}},
    {"RegisterWithEmptyIdIsRefusedByTheLibrary",
     {"guest", "register", "--id", ""},
     {},
     1,
     {validationError("invalid guest")},
     {}},
    {"RegisterWithQRIDAndNoTokenSendsTheIdAlone",
     {"guest", "register", "--qrid", "q1"},
     {{"POST", "/guests", createdAs("q1")},
      {"GET", "/guests/q1", KXScriptedAnswer::json(200, serviceGuest("q1"))}},
     0,
     {printedGuest("q1")},
     {"POST /guests", "GET /guests/q1", "POST /guests/q1/profiles"},
     R"({"externalId":"q1"})",
     "",
     0},
    {"RegisterFull",
     {"guest", "register", "--id", "g5", "--bu-properties", R"({"k":1})", "--language", "de",
      "--creative-label", "c", "--tags", R"(["a"])"},
     {{"POST", "/guests", createdAs("g5")},
      {"GET", "/guests/g5", KXScriptedAnswer::json(200, serviceGuest("g5"))}},
     0,
     {printedGuest("g5")},
     {"POST /guests", "GET /guests/g5", "POST /guests/g5/profiles"}},
    {"RegisterWithPartOfTheFullFormIsAUsageError",
     {"guest", "register", "--id", "g5", "--language", "de"},
     {},
     2,
     {},
     {}},
    {"FetchPrintsTheGuest",
     {"guest", "fetch", "g1"},
     {kGuestG1},
     0,
     {printedGuest("g1")},
     {"GET /guests/g1"}},
    {"FetchRefused",
     {"guest", "fetch", "g1"},
     {{"GET", "/guests/g1", KXScriptedAnswer::json(404, {{"error", "no such guest"}})}},
     1,
     {errorLine(404, {{"error", "no such guest"}})},
     {"GET /guests/g1"}},
    {"SaveParsesTheDataAndPostsIt",
     {"guest", "save", "--data", R"({"externalId":"g1","languagePref":"fr","tags":["x"]})"},
     {{"POST", "/guests/g1", KXScriptedAnswer::empty(200)}},
     0,
     {{{"saved", true}}},
     {"POST /guests/g1"},
     R"({"externalId":"g1","languagePref":"fr","buProperties":{}})"},
    {"SaveWithDataThatIsNoJSON", {"guest", "save", "--data", "{"}, {}, 2, {}, {}},
    {"Delete",
     {"guest", "delete", "g1"},
     {{"DELETE", "/guests/g1", KXScriptedAnswer::empty(204)}},
     0,
     {{{"deleted", true}}},
     {"DELETE /guests/g1"}},
    {"DeleteEmptyId", {"guest", "delete", ""}, {}, 1, {validationError("Invalid guestId")}, {}},
    // Without an analytics engine the session post cannot succeed, so nothing is cleared.
    {"LogoutWithoutAnalyticsKeepsTheGuest",
     {"--guest", "g1", "guest", "logout"},
     {kGuestG1},
     0,
     {printedGuest("g1")},
     {"GET /guests/g1"}},
    {"AddEmailProfile",
     {"profile", "add", "email", "g1", "a@b.c"},
     {{"POST", "/guests/g1/profiles", createdAs("EM-9")}},
     0,
     {{{"profileId", "EM-9"}}},
     {"POST /guests/g1/profiles"},
     R"({"address":{"channel":"EMAIL","attributes":{"emailAddress":"a@b.c"}}})"},
    {"AddSMSProfileWithoutNumber",
     {"profile", "add", "sms", "g1"},
     {},
     1,
     {validationError("invalid mdn")},
     {}},
    {"AddInboxProfileOfTheConfiguredDomain",
     {"profile", "add", "inbox", "g1"},
     {{"POST", "/guests/g1/profiles", createdAs("IN-9")}},
     0,
     {{{"profileId", "IN-9"}}},
     {"POST /guests/g1/profiles"},
     R"({"address":{"channel":"INBOX","attributes":{"guestId":"g1","inboxDomainId":"Dom"}}})"},
    {"EnablePushWithoutTokenFails",
     {"--guest", "g1", "profile", "enable", "1"},
     {kGuestG1},
     1,
     {validationError("invalid guest delivery profile")},
     {"GET /guests/g1"}},
    {"EnableEmailAnswersNothing", {"profile", "enable", "4"}, {}, 0, {}, {}},
    {"DisableUnknownChannel",
     {"profile", "disable", "9"},
     {},
     1,
     {validationError("Invalid Channel")},
     {}},
    {"SubscribeByChannelOnTheFetchedGuest",
     {"--guest", "g1", "subscribe", "L1", "--channel", "2"},
     {kGuestG1, {"PUT", "/guests/g1/profiles/SM-1/memberships/L1", KXScriptedAnswer::empty(200)}},
     0,
     {{{"ok", true}}},
     {"GET /guests/g1", "PUT /guests/g1/profiles/SM-1/memberships/L1?createList=true"},
     R"({"externalId":"g1","enabled":1})"},
    {"UnsubscribeChannelZero",
     {"--guest", "g1", "unsubscribe", "L1", "--channel", "0"},
     {kGuestG1},
     1,
     {validationError("Invalid Channel")},
     {"GET /guests/g1"}},
    {"UnsubscribeByProfile",
     {"--guest", "g1", "unsubscribe", "L0", "--profile", "SM-1"},
     {kGuestG1,
      {"DELETE", "/guests/g1/profiles/SM-1/memberships/L0", KXScriptedAnswer::empty(200)}},
     0,
     {{{"ok", true}}},
     {"GET /guests/g1", "DELETE /guests/g1/profiles/SM-1/memberships/L0"}},
    {"AGuestThatCannotBeFetchedRunsNoCommand",
     {"--guest", "g1", "subscribe", "L1", "--profile", "P1"},
     {{"GET", "/guests/g1", KXScriptedAnswer::empty(404)}},
     1,
     {errorLine(404, nullptr)},
     {"GET /guests/g1"}},
    {"SubscribeNeedsChannelOrProfile", {"subscribe", "L1"}, {}, 2, {}, {}},
    {"AcceptWithoutPushProfileCompletesAndWritesTheFailure",
     {"--guest", "g1", "action", "ACCEPT_IDENTIFIER", "--user-info", R"({"aps":{"listId":"L1"}})"},
     {kGuestG1},
     0,
     {{{"completed", true}}},
     {"GET /guests/g1"},
     "",
     "Unable to subscribed to L1"},
    {"Decline",
     {"action", "DECLINE_IDENTIFIER"},
     {},
     0,
     {{{"completed", true}}},
     {},
     "",
     "Handling decline..."},
};

class KXCtlGuestTool : public testing::Test {
protected:
    KXLoopbackService service;
    std::filesystem::path directory = kxtest::scratchDirectory("kxctl-guest");
    std::filesystem::path configFile = directory / "KXConfig.enc";

    KXCtlGuestTool() {
        service.scriptToken("tok");
        writeConfiguration(false, true);
    }

    void writeConfiguration(bool inProduction, bool autoGuest) {
        kxtest::sealCredentialConfiguration(
            configFile, kKey,
            std::string("<key>inboxDomainId</key><string>Dom</string>") +
                "<key>inProduction</key>" + (inProduction ? "<true/>" : "<false/>") +
                "<key>autoGuestEnabled</key>" + (autoGuest ? "<true/>" : "<false/>"));
    }

    ProcessResult kxctl(const std::vector<std::string>& arguments) {
        std::vector<std::string> all = {"--config", configFile.string(), "--key", kKey};
        for (const char* name :
             {"development", "staging-token", "production", "production-token"}) {
            all.insert(all.end(), {"--endpoint", std::string(name) + "=" + service.baseURL()});
        }
        all.insert(all.end(), arguments.begin(), arguments.end());
        return kxtest::runProcess(kxtest::builtProgram("tools/kxctl/kxctl"), all);
    }

    // The inbox summary fetch that every successful guest fetch starts on its own; it runs
    // beside the command's requests, so its place among them is not fixed.
    static bool isSummaryFetch(const KXRecordedRequest& request) {
        return request.method == "GET" && request.path.find("/inboxes/") != std::string::npos &&
               request.path.find("/messages") == std::string::npos;
    }

    // The requests in the order they came, the summary fetches left out.
    std::vector<KXRecordedRequest> commandRequests() const {
        std::vector<KXRecordedRequest> requests;
        for (const auto& request : service.requests()) {
            if (!isSummaryFetch(request)) {
                requests.push_back(request);
            }
        }
        return requests;
    }

    // Requests below the base path, the token requests and summary fetches left out.
    Lines serviceRequests() const {
        Lines lines;
        for (const auto& request : commandRequests()) {
            if (request.path.rfind(kBase, 0) == 0) {
                lines.push_back(request.method + " " + request.path.substr(kBase.size()));
            }
        }
        return lines;
    }
};

class KXCtlGuestCommandTest : public KXCtlGuestTool,
                              public testing::WithParamInterface<CommandCase> {};

TEST_P(KXCtlGuestCommandTest, PrintsItsLinesAndSendsItsRequests) {
    const CommandCase& c = GetParam();
    for (const Script& script : c.scripts) {
        service.script(script.method, kBase + script.path, script.answer);
    }
    const ProcessResult result = kxctl(c.arguments);
    EXPECT_EQ(result.exitCode, c.exitCode) << result.err;
    EXPECT_EQ(jsonLines(result.out), c.lines) << result.out;
    EXPECT_EQ(serviceRequests(), c.requests);
    const auto requests = commandRequests();
    if (*c.body != '\0' && !requests.empty()) {
        const auto& request = c.bodyOf < 0 ? requests.back() : requests.at(c.bodyOf + 1);
        EXPECT_EQ(KXJSON::parse(request.body), KXJSON::parse(c.body));
    }
    EXPECT_NE(result.err.find(c.stderrText), std::string::npos) << result.err;
}

INSTANTIATE_TEST_SUITE_P(Commands, KXCtlGuestCommandTest, testing::ValuesIn(kCommandCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(KXCtlGuestTool, TheAutomaticGuestIsRegisteredOnceAndFetchedByLaterRuns) {
    service.script("POST", kBase + "/guests", createdAs("N1"));
    service.script("GET", kBase + "/guests/N1", KXScriptedAnswer::json(200, serviceGuest("N1")));
    service.script("POST", kBase + "/guests/N1/profiles", createdAs("IN-1"));

    // The first run registers and stores the id; the inbox profile is added after success.
    ProcessResult first = kxctl({"guest", "auto"});
    ASSERT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(jsonLines(first.out), std::vector<KXJSON>{printedGuest("N1")});
    EXPECT_EQ(serviceRequests(),
              (Lines{"POST /guests", "GET /guests/N1", "POST /guests/N1/profiles"}));
    ProcessResult defaults = kxctl({"defaults"});
    EXPECT_EQ(jsonLines(defaults.out),
              (std::vector<KXJSON>{{{"stage-id-GUEST-ID", "N1"},
                                    {"applicationDeviceToken", nullptr},
                                    {"applicationDeviceTokenList", nullptr}}}));

    // The second process fetches the stored guest instead of registering one.
    ProcessResult second = kxctl({"guest", "auto"});
    ASSERT_EQ(second.exitCode, 0) << second.err;
    EXPECT_EQ(jsonLines(second.out), std::vector<KXJSON>{printedGuest("N1")});
    EXPECT_EQ(service.requestsTo(kBase + "/guests").size(), 1u);
    EXPECT_FALSE(service.requestsTo(kBase + "/guests/N1/inboxes/Dom").empty())
        << "a fetched guest starts the inbox summary fetch of the configured domain";
    EXPECT_EQ(service.requestsTo(kBase + "/guests/N1").size(), 2u);

    // Production keeps its guest under its own key, so it starts with a fresh registration.
    writeConfiguration(true, true);
    const std::string production = "/KXFrontier";
    service.script("POST", production + "/guests", createdAs("P1"));
    service.script("GET", production + "/guests/P1",
                   KXScriptedAnswer::json(200, serviceGuest("P1")));
    service.script("POST", production + "/guests/P1/profiles", createdAs("IN-2"));
    ProcessResult inProduction = kxctl({"guest", "auto"});
    ASSERT_EQ(inProduction.exitCode, 0) << inProduction.err;
    EXPECT_EQ(jsonLines(inProduction.out), std::vector<KXJSON>{printedGuest("P1")});
    EXPECT_EQ(service.requestsTo(production + "/guests").size(), 1u);
    const KXJSON bothIds = jsonLines(kxctl({"defaults"}).out).at(0);
    EXPECT_EQ(bothIds["prod-id-GUEST-ID"], "P1");
    EXPECT_EQ(bothIds["stage-id-GUEST-ID"], "N1");

    // Switched off, the entry is removed and there is no guest.
    writeConfiguration(false, false);
    ProcessResult off = kxctl({"guest", "auto"});
    ASSERT_EQ(off.exitCode, 0) << off.err;
    EXPECT_EQ(jsonLines(off.out), (std::vector<KXJSON>{{{"guest", nullptr}}}));
    defaults = kxctl({"defaults"});
    EXPECT_EQ(jsonLines(defaults.out)[0]["stage-id-GUEST-ID"], nullptr);
}

TEST_F(KXCtlGuestTool, AFailedAutomaticGuestKeepsTheStoredId) {
    service.script("POST", kBase + "/guests", createdAs("N1"));
    service.script("GET", kBase + "/guests/N1", KXScriptedAnswer::json(200, serviceGuest("N1")));
    service.script("GET", kBase + "/guests/N1", KXScriptedAnswer::empty(503));
    service.script("POST", kBase + "/guests/N1/profiles", createdAs("IN-1"));
    ASSERT_EQ(kxctl({"guest", "auto"}).exitCode, 0);

    const ProcessResult result = kxctl({"guest", "auto"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(jsonLines(result.out), std::vector<KXJSON>{errorLine(503, nullptr)});
    EXPECT_EQ(jsonLines(kxctl({"defaults"}).out).at(0)["stage-id-GUEST-ID"], "N1");
}

}  // namespace
