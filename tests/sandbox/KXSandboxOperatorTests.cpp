#include "KXSandboxFixture.h"

#include <regex>

using SandboxOperator = KXAuthenticatedSandboxTest;

TEST_F(SandboxOperator, MessagesSentByTheOperatorArriveInTheGuestsInbox) {
    const std::string guest = registerGuest();
    const std::filesystem::path html = directory / "note.html";
    kxtest::writeText(html, "<p>Pool closed today</p>");
    struct Case {
        std::vector<std::string> content;
        const char* type;
        const char* body;
    };
    for (const Case& c : std::vector<Case>{
             {{"--html", html.string()}, "text/html", "<p>Pool closed today</p>"},
             {{"--text", "Hello"}, "text/plain", "Hello"},
             {{"--url", "https://example.com/x"}, "text/uri-list", "https://example.com/x"}}) {
        SCOPED_TRACE(c.type);
        std::vector<std::string> arguments = {
            "message", "send", "--guest", guest, "--subject", std::string("Note ") + c.type};
        arguments.insert(arguments.end(), c.content.begin(), c.content.end());
        const KXJSON sent = json(arguments);
        EXPECT_EQ(sent["domain"], kInboxDomain);
        const KXJSON details = get("/guests/" + guest + "/inboxes/" + kInboxDomain + "/messages/" +
                                   sent["id"].get<std::string>())
                                   .object;
        EXPECT_EQ(details["header"]["contentType"], c.type);
        EXPECT_EQ(details["content"], c.body);
    }
    EXPECT_EQ(get("/guests/" + guest + "/inboxes/inbox-1").object["totalMessageCount"], 28);
    const KXJSON inbox = json({"inbox", guest});
    ASSERT_EQ(inbox.size(), 28u);
    EXPECT_EQ(inbox[0]["subject"], "Note text/uri-list") << "newest first";

    const kxtest::ProcessResult unknown =
        kxsandbox({"message", "send", "--guest", "nobody", "--subject", "s", "--text", "t"});
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_NE(unknown.err.find("no guest \"nobody\""), std::string::npos) << unknown.err;
    EXPECT_EQ(kxsandbox({"message", "send", "--guest", guest, "--subject", "s"}).exitCode, 2)
        << "one content option is required";
}

TEST_F(SandboxOperator, TablesAndJSONShowGuestsListsAndSessions) {
    const std::string guest = registerGuest(
        {{"deliveryProfiles",
          {{{"address", {{"channel", "EMAIL"}, {"attributes", {{"emailAddress", "a@b.c"}}}}}}}}});
    const std::string session =
        post("/sessions", {{"time", "60"}, {"guestSession", {{"guestId", guest}}}}).newRecordId;
    post("/sessions/" + session, {{"time", "120"}, {"isClosed", true}});
    post("/sessions", {{"time", "60"}});

    const kxtest::ProcessResult table = kxsandbox({"guests"});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_TRUE(std::regex_search(table.out, std::regex("^BASE PATH +GUEST +PROFILES")));
    EXPECT_TRUE(std::regex_search(
        table.out, std::regex("/ZandrelService/rest/bu/BU1 +" + guest + " +EMAIL +50 +50")));

    const KXJSON sessions = json({"sessions", "--guest", guest});
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(sessions[0]["closed"], true);
    ASSERT_EQ(sessions[0]["documents"].size(), 2u);
    EXPECT_EQ(sessions[0]["documents"][1]["kind"], "end");
    EXPECT_EQ(json({"sessions"}).size(), 2u);

    const KXJSON created = json({"list", "create", "--tenant", "BU1", "--id", "vip", "--name",
                                 "VIP", "--tag", "members", "--tag", "gold"});
    EXPECT_EQ(created["externalId"], "vip");
    EXPECT_EQ(get("/lists?tag=gold").object["records"][0]["name"], "VIP");
    EXPECT_EQ(json({"lists", "--tenant", "BU1"}).size(), 7u);
    EXPECT_EQ(
        kxsandbox({"list", "create", "--tenant", "BU1", "--id", "vip", "--name", "x"}).exitCode, 1)
        << "an existing list";
}

TEST_F(SandboxOperator, FailRateAndLatencyAreForTestingErrorHandling) {
    sandbox.reset();
    startSandbox({"--fail-rate", "1"});
    const std::optional<KXError> failure = authenticate();
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->code, 503);
    EXPECT_EQ(failure->userInfo["error"], "unavailable");

    sandbox.reset();
    startSandbox({"--latency", "300"});
    const auto started = std::chrono::steady_clock::now();
    ASSERT_FALSE(authenticate().has_value());
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(300));
}

// The local development server (environment 3) with a business unit, the sandbox as the staging
// token host.
TEST_F(SandboxOperator, KxctlRegistersFetchesAndPagesThroughTheBusinessUnitsBasePath) {
    auto kxctl = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(),
                         {"--config", configFile.string(), "--key", kKey, "--env", "3",
                          "--business-unit", "BU7", "--endpoint", "local=" + sandbox->baseURL(),
                          "--endpoint", "staging-token=" + sandbox->baseURL()});
        const kxtest::ProcessResult result =
            kxtest::runProcess(kxtest::builtProgram("tools/kxctl/kxctl"), arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return kxtest::jsonLines(result.out).at(0);
    };
    EXPECT_FALSE(kxctl({"token"})["token"].get<std::string>().empty());
    const KXJSON created = kxctl({"call", "POST", "/guests", "--data", R"({"externalId": "ada"})"});
    EXPECT_EQ(created["headers"]["newRecordId"], "ada");
    const KXJSON page =
        kxctl({"call", "GET", "/guests/ada/inboxes/inbox-1/messages?offset=0&limit=5"});
    EXPECT_EQ(page["body"]["records"].size(), 5u);
    EXPECT_EQ(page["body"]["hasMoreRecords"], true);
    EXPECT_EQ(json({"guests", "--tenant", "BU7"}).at(0)["externalId"], "ada");
}
