// kxctl's inbox and list commands as a child process against the loopback service: the lines
// they print (shapes scripts rely on), the requests they send and the exit status.
#include "KXLoopbackService.h"
#include "KXProcess.h"
#include "KXSealedFiles.h"

#include <KXClientFramework/KXJSON.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

using kxtest::jsonLines;
using kxtest::ProcessResult;

namespace {

const std::string kKey = "kxctl-inbox-key";
// Without --guest the current guest has no externalId: the guest segment is empty.
const std::string kInbox = "/KXFrontier-stg/guests//inboxes/d1";
const std::string kLists = "/KXFrontier-stg/lists";

const KXJSON kInvalidGuest = {{"error",
                               {{"domain", "NSOSStatusErrorDomain"},
                                {"code", 99},
                                {"userInfo", {{"message", "invalid guest"}}}}}};

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

struct Scripted {
    std::string method, path;
    KXScriptedAnswer answer;
};

struct Case {
    const char* name;
    std::vector<std::string> arguments;
    std::vector<Scripted> scripts;
    std::vector<KXJSON> lines;
    int exitCode;
    std::vector<std::string> targets;  // "METHOD path?query" of every request but the token's
};

class KXCtlInbox : public testing::TestWithParam<Case> {
protected:
    KXLoopbackService service;
    std::filesystem::path directory = kxtest::scratchDirectory("kxctl-inbox");
    std::filesystem::path configFile = directory / "KXConfig.enc";

    ProcessResult kxctl(const std::vector<std::string>& arguments) {
        kxtest::sealCredentialConfiguration(configFile, kKey,
                                            "<key>inboxDomainId</key><string>d1</string>");
        std::vector<std::string> all = {"--config", configFile.string(), "--key", kKey};
        for (const char* name : {"development", "staging-token"}) {
            all.insert(all.end(), {"--endpoint", std::string(name) + "=" + service.baseURL()});
        }
        all.insert(all.end(), arguments.begin(), arguments.end());
        return kxtest::runProcess(kxtest::builtProgram("tools/kxctl/kxctl"), all);
    }
};

KXScriptedAnswer created(const std::string& id) {
    KXScriptedAnswer answer = KXScriptedAnswer::empty(201);
    answer.headers = {{"newRecordId", id}};
    return answer;
}

const KXJSON kNewsRecord = {{"type", "PUBLIC"},
                            {"externalId", "news"},
                            {"name", "News"},
                            {"channelCounts", {{"APNS_PUSH", 4}, {"SMS", 1}}},
                            {"tags", {"vip"}}};
const KXJSON kNewsPrinted = {{"type", "PUBLIC"},
                             {"externalId", "news"},
                             {"desc", nullptr},
                             {"name", "News"},
                             {"channel", {{"isIos", true}, {"isEmail", false}, {"isSMS", true}}},
                             {"tags", {"vip"}},
                             {"buProperties", nullptr}};

const Case kCases[] = {
    {"summary_reports_the_missing_guest_then_the_answer",
     {"inbox", "summary"},
     {{"GET", kInbox,
       KXScriptedAnswer::json(200, {{"name", "Main"},
                                    {"description", "Inbox"},
                                    {"totalMessageCount", 5},
                                    {"unreadMessageCount", 2}})}},
     {kInvalidGuest,
      {{"summary",
        {{"inboxDomainId", "d1"},
         {"name", "Main"},
         {"desc", "Inbox"},
         {"totalMessageCount", 5},
         {"unreadMessageCount", 2},
         {"deleteByGuestForbidden", false},
         {"description",
          "inboxDomainId: d1, name: Main, desc: Inbox, _totalMessageCount: 5, "
          "_unreadMessageCount: 2, deleteByGuestForbidden: 0"}}}}},
     1,
     {"GET " + kInbox}},
    {"pages_in_the_order_given_are_appended",
     {"inbox", "messages", "--limit", "10", "--page", "3", "--page", "1"},
     {{"GET", kInbox + "/messages",
       KXScriptedAnswer::json(
           200, {{"records", {message("m21", false, 1.5e12)}}, {"hasMoreRecords", false}})},
      {"GET", kInbox + "/messages",
       KXScriptedAnswer::json(
           200, {{"records", {message("m1", true, std::nullopt)}}, {"hasMoreRecords", true}})}},
     {{{"messages", {printedMessage("m21", false, 1.5e12)}},
       {"hasMoreRecords", false},
       {"messageCount", 1},
       {"unreadCount", 1}},
      {{"messages", {printedMessage("m1", true, 0)}},
       {"hasMoreRecords", true},
       {"messageCount", 2},
       {"unreadCount", 1}}},
     0,
     {"GET " + kInbox + "/messages?offset=20&limit=10",
      "GET " + kInbox + "/messages?offset=0&limit=10"}},
    {"the_full_fetch_has_no_more_records_flag",
     {"inbox", "messages", "--domain", "d2"},
     {{"GET", "/KXFrontier-stg/guests//inboxes/d2/messages",
       KXScriptedAnswer::json(200, {{"records", {message("a", false, 7)}}})}},
     {{{"messages", {printedMessage("a", false, 7)}},
       {"hasMoreRecords", nullptr},
       {"messageCount", 1},
       {"unreadCount", 1}}},
     0,
     {"GET /KXFrontier-stg/guests//inboxes/d2/messages"}},
    {"one_message_with_its_content",
     {"inbox", "message", "m1"},
     {{"GET", kInbox + "/messages/m1",
       KXScriptedAnswer::json(200,
                              {{"header", message("other", true, 9)}, {"content", "<p>Hi</p>"}})}},
     {{{"message",
        {{"messageId", "m1"},
         {"title", "About other"},
         {"sender", nullptr},
         {"contentType", nullptr},
         {"timestamp", 9},
         {"read", true},
         {"content", "<p>Hi</p>"}}}}},
     0,
     {"GET " + kInbox + "/messages/m1"}},
    {"unread_posts_to_unread",
     {"inbox", "unread", "m1"},
     {{"POST", kInbox + "/messages/m1/unread", KXScriptedAnswer::empty(200)}},
     {{{"ok", true}}},
     0,
     {"POST " + kInbox + "/messages/m1/unread"}},
    {"delete_reports_each_message",
     {"inbox", "delete", "a", "b"},
     {{"DELETE", kInbox + "/messages/a", KXScriptedAnswer::empty(204)},
      {"DELETE", kInbox + "/messages/b", KXScriptedAnswer::json(404, {{"message", "gone"}})}},
     {{{"deleted", true}},
      {{"error",
        {{"domain", "NSOSStatusErrorDomain"},
         {"code", 404},
         {"userInfo", {{"message", "gone"}}}}}}},
     1,
     {"DELETE " + kInbox + "/messages/a", "DELETE " + kInbox + "/messages/b"}},
    {"badge_without_an_inbox_profile_stays_zero", {"inbox", "badge"}, {}, {{{"badge", 0}}}, 0, {}},
    {"lists_with_a_tag_of_reserved_characters",
     {"lists", "--tag", "a&b c", "--page", "2", "--limit", "5"},
     {{"GET", kLists,
       KXScriptedAnswer::json(200, {{"records", {kNewsRecord}}, {"hasMoreRecords", true}})}},
     {{{"lists", {kNewsPrinted}}, {"hasMoreRecords", true}}},
     0,
     {"GET " + kLists + "?tag=a%26b%20c&offset=5&limit=5"}},
    {"raw_lists_default_to_page_1_and_the_library_limit",
     {"lists", "--raw"},
     {{"GET", kLists, KXScriptedAnswer::json(200, {{"records", KXJSON::array()}})}},
     {{{"data", {{"records", KXJSON::array()}}}, {"hasMoreRecords", false}}},
     0,
     {"GET " + kLists + "?offset=0&limit=1000"}},
    {"create_reports_the_blank_and_still_creates",
     {"list", "create", "--external-id", "my news", "--name", "News", "--tags", "[\"vip\"]"},
     {{"POST", kLists + "/", created("news")},
      {"GET", kLists + "/news", KXScriptedAnswer::json(200, kNewsRecord)}},
     {{{"error",
        {{"domain", "NSOSStatusErrorDomain"},
         {"code", 99},
         {"userInfo", {{"message", "invalid externalId, remove spaces"}}}}}},
      {{"list", kNewsPrinted}}},
     1,
     {"POST " + kLists + "/", "GET " + kLists + "/news"}},
};

}  // namespace

TEST_P(KXCtlInbox, PrintsItsLinesAndSendsItsRequests) {
    const Case& c = GetParam();
    service.scriptToken("tok");
    for (const Scripted& s : c.scripts) {
        service.script(s.method, s.path, s.answer);
    }
    const ProcessResult result = kxctl(c.arguments);
    EXPECT_EQ(result.exitCode, c.exitCode) << result.err;
    std::vector<KXJSON> lines = jsonLines(result.out);
    std::vector<KXJSON> expected = c.lines;
    const bool sideBySide = c.name == std::string("delete_reports_each_message");
    if (sideBySide) {
        // The deletes run side by side: their lines come in the order the answers arrive.
        const auto byText = [](const KXJSON& a, const KXJSON& b) { return a.dump() < b.dump(); };
        std::sort(lines.begin(), lines.end(), byText);
        std::sort(expected.begin(), expected.end(), byText);
    }
    EXPECT_EQ(lines, expected) << result.out;

    std::vector<std::string> targets;
    for (const auto& request : service.requests()) {
        if (request.path != "/token") {
            targets.push_back(request.method + " " + request.path);
        }
    }
    if (sideBySide) {
        std::sort(targets.begin(), targets.end());
    }
    EXPECT_EQ(targets, c.targets);
}

INSTANTIATE_TEST_SUITE_P(Commands, KXCtlInbox, testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(KXCtlInboxUsage, JSONOptionsMustBeJSON) {
    KXLoopbackService service;
    const auto directory = kxtest::scratchDirectory("kxctl-inbox-usage");
    kxtest::sealCredentialConfiguration(directory / "KXConfig.enc", kKey);
    const ProcessResult result =
        kxtest::runProcess(kxtest::builtProgram("tools/kxctl/kxctl"),
                           {"--config", (directory / "KXConfig.enc").string(), "--key", kKey,
                            "list", "create", "--external-id", "x", "--name", "X", "--tags", "[1"});
    EXPECT_EQ(result.exitCode, 2) << result.err;
    EXPECT_NE(result.err.find("--tags is not JSON"), std::string::npos) << result.err;
    EXPECT_TRUE(service.requests().empty());
}
