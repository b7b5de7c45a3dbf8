#include "KXTestDirectories.h"
#include "KXToolTestFixture.h"

#include <KXClientFramework/KXFileUserDefaults.h>

#include <regex>

using namespace kxtools;
using kxtest::formFields;
using KXCtlTool = KXCtlTest;

TEST_F(KXCtlTool, TokenAuthenticatesWithTheCredentialsOfTheEnvironmentAndPrintsTheToken) {
    service.scriptToken("tok-123", 3600);
    ProcessResult result = kxctl({"token"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    JSONLines lines = jsonLines(result.out);
    ASSERT_EQ(lines.size(), 1u) << result.out;
    EXPECT_EQ(lines[0]["token"], "tok-123");
    EXPECT_TRUE(std::regex_match(lines[0]["expiresAt"].get<std::string>(),
                                 std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")))
        << lines[0];
    const auto fields = formFields(service.requestsTo("/token").at(0).body);
    EXPECT_EQ(fields.at("client_id"), "stage-id");
    EXPECT_EQ(fields.at("client_secret"), "stage-secret");

    // A token without lifetime has no expiry; production authenticates with its credentials.
    seal("<key>inProduction</key><true/>");
    service.scriptToken("forever", KXJSON(KXJSON::value_t::discarded));
    result = kxctl({"token"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(jsonLines(result.out), (JSONLines{{{"token", "forever"}, {"expiresAt", nullptr}}}));
    EXPECT_EQ(formFields(service.requestsTo("/token").at(1).body).at("client_id"), "prod-id");
}

TEST_F(KXCtlTool, CallsPrintEveryAnswerOnOneConnectionAndAFailureMakesTheStatusOne) {
    service.scriptToken("tok");
    KXScriptedAnswer created = KXScriptedAnswer::json(201, KXJSON{{"id", 7}});
    created.headers = {{"newRecordId", "7"}};
    const std::string path = "/ZandrelService/rest/bu/BU1/guests";
    script({{"POST", path, created},
            {"POST", path, KXScriptedAnswer::json(500, KXJSON{{"error", "boom"}})},
            {"POST", path, KXScriptedAnswer::text(200, "plain")}});

    // The path without its leading slash still goes below the base path.
    const ProcessResult result = kxctl({"--env", "1", "--business-unit", "BU1", "call", "POST",
                                        "guests", "--data", R"({"name":"Ada"})", "--repeat", "50"});
    EXPECT_EQ(result.exitCode, 1) << result.err;
    const JSONLines lines = jsonLines(result.out);
    ASSERT_EQ(lines.size(), 50u) << result.out;
    EXPECT_EQ(lines[0]["status"], 201);
    EXPECT_EQ(lines[0]["body"], (KXJSON{{"id", 7}}));
    EXPECT_EQ(lines[0]["headers"]["newRecordId"], "7");
    EXPECT_EQ(lines[1], errorLine(500, {{"error", "boom"}}));
    EXPECT_EQ(lines[49]["status"], 200);
    EXPECT_TRUE(lines[49]["body"].is_null());
    const auto requests = service.requestsTo(path);
    ASSERT_EQ(requests.size(), 50u);
    for (const auto& request : requests) {
        EXPECT_EQ(request.body, R"({"name":"Ada"})");
        EXPECT_EQ(request.headers.at("Authorization"), "BEARER tok");
    }
    EXPECT_EQ(service.connectionCount(), 1u)
        << "the token request and all 50 calls share one connection";
}

TEST_F(KXCtlTool, EngagePrintsWhereTheLibraryIsConnectedOnceTheTokenIsThere) {
    service.scriptToken("tok-1");
    // kxctl's bundle maps the library's resource to whatever --config names.
    std::filesystem::rename(configFile, directory / "frontdesk.sealed");
    configFile = directory / "frontdesk.sealed";
    // The second run has an Info.plist with the remote-notification background mode.
    const std::vector<std::pair<std::vector<std::string>, KXJSON>> cases = {
        {{"engage"}, {0, service.baseURL(), "/KXFrontier-stg", false}},
        {{"--env", "1", "--business-unit", "BU7", "engage"},
         {1, service.baseURL() + "/test", "/ZandrelService/rest/bu/BU7", true}}};
    for (const auto& [arguments, shown] : cases) {
        SCOPED_TRACE(shown.dump());
        if (shown[3] == true) {
            kxtest::writeText(
                directory / "Info.plist",
                kxtest::xmlPropertyList("<key>UIBackgroundModes</key>"
                                        "<array><string>remote-notification</string></array>"));
        }
        const ProcessResult result = kxctl(arguments);
        ASSERT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(jsonLines(result.out), (JSONLines{{{"ready", true},
                                                     {"environment", shown[0]},
                                                     {"baseURL", shown[1]},
                                                     {"basePath", shown[2]},
                                                     {"backgroundNotificationEnabled", shown[3]}}}))
            << result.out;
        // A clean run: the library found its launch and its engagement in time.
        EXPECT_EQ(result.err.find("was not called"), std::string::npos) << result.err;
    }
}

TEST_F(KXCtlTool, ARefusedTokenEndsTheStartUpWithTheErrorAndStatusOne) {
    service.script("POST", "/token", KXScriptedAnswer::json(401, {{"error", "invalid_client"}}));
    const std::vector<std::vector<std::string>> commands = {
        {"engage"}, {"token"}, {"call", "GET", "/x"}};
    for (const auto& command : commands) {
        const ProcessResult result = kxctl(command);
        EXPECT_EQ(result.exitCode, 1) << command[0] << result.err;
        EXPECT_EQ(jsonLines(result.out), JSONLines{errorLine(401, {{"error", "invalid_client"}})})
            << command[0];
        // The library's own report stays visible.
        EXPECT_NE(result.err.find("Error Zandrel had trouble starting."), std::string::npos);
    }
    EXPECT_EQ(service.requests().size(), 3u);  // one token request per run, no retry
}

TEST_F(KXCtlTool, DeviceTokenGoesThroughTheDispatcherAndIsStored) {
    service.scriptToken("tok-1");
    const ProcessResult result = kxctl({"device-token", "0A0bFF10"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const JSONLines lines = jsonLines(result.out);
    ASSERT_EQ(lines.size(), 1u) << result.out;
    EXPECT_EQ(lines[0]["pushEnabled"], true);
    EXPECT_TRUE(lines[0]["manufacturer"].is_string());
    EXPECT_FALSE(lines[0].contains("carrier"));

    // kxctl keeps its user defaults in the XDG configuration folder it inherited.
    KXFileUserDefaults stored(KXTestDirectories::current() / "config" / "kxctl" /
                              "UserDefaults.plist");
    EXPECT_EQ(stored.objectForKey("applicationDeviceToken"), "0a0bff10");
    EXPECT_EQ(stored.objectForKey("applicationDeviceTokenList"), KXJSON({"0a0bff10"}));
}
