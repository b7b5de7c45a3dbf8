// kxctl run as a child process against the loopback service: what it prints, how it exits,
// and that repeated calls share one kept-alive connection.
#include "KXLoopbackService.h"
#include "KXProcess.h"
#include "KXSealedFiles.h"

#include <KXClientFramework/KXJSON.h>

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

using namespace std::chrono_literals;
using kxtest::formFields;
using kxtest::jsonLines;
using kxtest::ProcessResult;

namespace {

const std::string kKey = "kxctl-test-key";

class KXCtlTool : public testing::Test {
protected:
    KXLoopbackService service;
    std::filesystem::path directory = kxtest::scratchDirectory("kxctl");
    std::filesystem::path configFile = directory / "KXConfig.enc";

    void SetUp() override { writeConfiguration(false); }

    void writeConfiguration(bool inProduction) {
        kxtest::sealCredentialConfiguration(
            configFile, kKey,
            std::string("<key>inProduction</key>") + (inProduction ? "<true/>" : "<false/>"));
    }

    /// Every endpoint points at the loopback service.
    std::vector<std::string> endpointArguments() const {
        std::vector<std::string> arguments;
        for (const char* name : {"production", "test", "staging", "local", "development",
                                 "production-token", "staging-token"}) {
            arguments.insert(arguments.end(),
                             {"--endpoint", std::string(name) + "=" + service.baseURL()});
        }
        return arguments;
    }

    ProcessResult kxctl(std::vector<std::string> arguments, bool withEndpoints = true) {
        std::vector<std::string> all = {"--config", configFile.string(), "--key", kKey};
        if (withEndpoints) {
            const auto endpoints = endpointArguments();
            all.insert(all.end(), endpoints.begin(), endpoints.end());
        }
        all.insert(all.end(), arguments.begin(), arguments.end());
        return kxtest::runProcess(kxtest::builtProgram("tools/kxctl/kxctl"), all);
    }
};

}  // namespace

TEST_F(KXCtlTool, TokenAuthenticatesWithTheStagingCredentialsAndPrintsTheToken) {
    service.scriptToken("tok-123", 3600);
    const ProcessResult result = kxctl({"token"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto lines = jsonLines(result.out);
    ASSERT_EQ(lines.size(), 1u) << result.out;
    EXPECT_EQ(lines[0]["token"], "tok-123");
    EXPECT_TRUE(std::regex_match(lines[0]["expiresAt"].get<std::string>(),
                                 std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")))
        << lines[0];

    const auto requests = service.requestsTo("/token");
    ASSERT_EQ(requests.size(), 1u);
    const auto fields = formFields(requests[0].body);
    EXPECT_EQ(fields.at("client_id"), "stage-id");
    EXPECT_EQ(fields.at("client_secret"), "stage-secret");
}

TEST_F(KXCtlTool, ATokenWithoutLifetimeHasNoExpiryAndProductionUsesItsCredentials) {
    writeConfiguration(true);
    service.scriptToken("forever", KXJSON(KXJSON::value_t::discarded));
    const ProcessResult result = kxctl({"token"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto lines = jsonLines(result.out);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], (KXJSON{{"token", "forever"}, {"expiresAt", nullptr}}));
    EXPECT_EQ(formFields(service.requestsTo("/token").at(0).body).at("client_id"), "prod-id");
}

TEST_F(KXCtlTool, CallPrintsStatusHeadersAndBodyUnderTheBasePath) {
    service.scriptToken("tok");
    KXScriptedAnswer answer = KXScriptedAnswer::json(201, KXJSON{{"id", 7}});
    answer.headers = {{"newRecordId", "7"}};
    service.script("POST", "/ZandrelService/rest/bu/BU1/guests", answer);

    const ProcessResult result = kxctl({"--env", "1", "--business-unit", "BU1", "call", "POST",
                                        "/guests", "--data", R"({"name":"Ada"})"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto lines = jsonLines(result.out);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0]["status"], 201);
    EXPECT_EQ(lines[0]["body"], (KXJSON{{"id", 7}}));
    EXPECT_EQ(lines[0]["headers"]["newRecordId"], "7");

    const auto requests = service.requestsTo("/ZandrelService/rest/bu/BU1/guests");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].body, R"({"name":"Ada"})");
    EXPECT_EQ(requests[0].headers.at("Authorization"), "BEARER tok");
}

TEST_F(KXCtlTool, FailedAnswersArePrintedAndMakeTheExitStatusOne) {
    service.scriptToken("tok");
    service.script("GET", "/KXFrontier-stg/x", KXScriptedAnswer::json(200, KXJSON{{"n", 1}}));
    service.script("GET", "/KXFrontier-stg/x",
                   KXScriptedAnswer::json(500, KXJSON{{"error", "boom"}}));
    service.script("GET", "/KXFrontier-stg/x", KXScriptedAnswer::text(200, "plain"));

    const ProcessResult result = kxctl({"call", "GET", "/x", "--repeat", "3"});
    EXPECT_EQ(result.exitCode, 1) << result.err;
    const auto lines = jsonLines(result.out);
    ASSERT_EQ(lines.size(), 3u) << result.out;
    EXPECT_EQ(lines[0]["body"], (KXJSON{{"n", 1}}));
    EXPECT_EQ(lines[1], (KXJSON{{"error",
                                 {{"domain", "NSOSStatusErrorDomain"},
                                  {"code", 500},
                                  {"userInfo", {{"error", "boom"}}}}}}));
    EXPECT_EQ(lines[2]["status"], 200);
    EXPECT_TRUE(lines[2]["body"].is_null());
}

TEST_F(KXCtlTool, RepeatedCallsReuseOneConnection) {
    service.scriptToken("tok");
    service.script("GET", "/KXFrontier-stg/x", KXScriptedAnswer::json(200, KXJSON{{"ok", true}}));
    const ProcessResult result = kxctl({"call", "GET", "/x", "--repeat", "50"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(jsonLines(result.out).size(), 50u);
    EXPECT_EQ(service.requestsTo("/KXFrontier-stg/x").size(), 50u);
    EXPECT_EQ(service.connectionCount(), 1u)
        << "the token request and all 50 calls share one connection";
}

TEST_F(KXCtlTool, TokenFailuresAndWrongKeysExitWithOne) {
    service.script("POST", "/token",
                   KXScriptedAnswer::json(401, KXJSON{{"error", "invalid_client"}}));
    ProcessResult result = kxctl({"call", "GET", "/x"});
    EXPECT_EQ(result.exitCode, 1);
    const auto lines = jsonLines(result.out);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0]["error"]["code"], 401);

    const std::vector<std::string> wrongKey = {"--config", configFile.string(), "--key",
                                               "not-the-key", "token"};
    result = kxtest::runProcess(kxtest::builtProgram("tools/kxctl/kxctl"), wrongKey);
    EXPECT_EQ(result.exitCode, 1) << "a clean failure, not the library's abort";
    EXPECT_NE(result.err.find("does not open with this key"), std::string::npos) << result.err;
    EXPECT_EQ(service.requestsTo("/token").size(), 1u) << "nothing is sent with a wrong key";

    result = kxtest::runProcess(
        kxtest::builtProgram("tools/kxctl/kxctl"),
        {"--config", (directory / "missing.enc").string(), "--key", kKey, "token"});
    EXPECT_EQ(result.exitCode, 1);
}

TEST_F(KXCtlTool, UsageErrorsExitWithTwo) {
    const std::vector<std::vector<std::string>> mistakes = {
        {},
        {"call", "PATCH", "/x"},
        {"call", "GET"},
        {"call", "GET", "/x", "--data", "{not json"},
        {"call", "GET", "/x", "--repeat", "0"},
        {"--endpoint", "elsewhere=http://127.0.0.1:1", "token"},
        {"--endpoint", "production", "token"},
        {"--timeout", "-1", "token"},
        {"frobnicate"},
    };
    for (const auto& arguments : mistakes) {
        const ProcessResult result = kxctl(arguments);
        EXPECT_EQ(result.exitCode, 2) << ::testing::PrintToString(arguments) << result.err;
    }
    // No key at all.
    const ProcessResult noKey = kxtest::runProcess(kxtest::builtProgram("tools/kxctl/kxctl"),
                                                   {"--config", configFile.string(), "token"});
    EXPECT_EQ(noKey.exitCode, 2);
    EXPECT_TRUE(service.requests().empty());
}

TEST_F(KXCtlTool, AnAnswerThatTakesTooLongEndsWithThree) {
    service.scriptToken("tok");
    KXScriptedAnswer slow = KXScriptedAnswer::json(200, KXJSON::object());
    slow.delay = 8s;
    service.script("GET", "/KXFrontier-stg/slow", slow);
    const ProcessResult result = kxctl({"--timeout", "1", "call", "GET", "/slow"});
    EXPECT_EQ(result.exitCode, 3) << result.err;
}
