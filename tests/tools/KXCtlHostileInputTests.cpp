// kxctl against a misbehaving service and ordinary mistakes: answers that would crash a naive
// printer, token answers that leave the library waiting, placeholder endpoints, a folder where
// the configuration belongs, paths without their slash and environments without their business
// unit. Every case ends with a reason, never with a crash.
#include "KXLoopbackService.h"
#include "KXProcess.h"
#include "KXSealedFiles.h"

#include <KXClientFramework/KXJSON.h>

#include <gtest/gtest.h>

#include <csignal>

using kxtest::jsonLines;
using kxtest::ProcessResult;

namespace {

const std::string kKey = "kxctl-hostile-key";

class KXCtlHostileInput : public testing::Test {
protected:
    KXLoopbackService service;
    std::filesystem::path directory = kxtest::scratchDirectory("kxctl-hostile");
    std::filesystem::path configFile = directory / "KXConfig.enc";

    void SetUp() override { kxtest::sealCredentialConfiguration(configFile, kKey); }

    ProcessResult kxctl(const std::vector<std::string>& arguments,
                        const std::filesystem::path& config = {},
                        const std::string& timeout = "5") {
        std::vector<std::string> all = {
            "--config", (config.empty() ? configFile : config).string(), "--key", kKey, "--timeout",
            timeout};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return kxtest::runProcess(kxtest::builtProgram("tools/kxctl/kxctl"), all);
    }

    std::vector<std::string> endpoints(std::vector<std::string> arguments) const {
        std::vector<std::string> all;
        for (const char* name : {"development", "test", "staging-token"}) {
            all.insert(all.end(), {"--endpoint", std::string(name) + "=" + service.baseURL()});
        }
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }
};

}  // namespace

TEST_F(KXCtlHostileInput, EveryFaultEndsWithAStatusAndAReason) {
    service.scriptToken("tok");
    const std::string deep = std::string(140'000, '[') + std::string(140'000, ']');
    service.script("GET", "/KXFrontier-stg/deep",
                   KXScriptedAnswer::text(200, deep, "application/json"));
    service.script("GET", "/KXFrontier-stg/deep-error",
                   KXScriptedAnswer::text(500, deep, "application/json"));
    struct Case {
        const char* name;
        std::vector<std::string> arguments;
        int status;
        std::string err;  // a part of standard error
    };
    const std::vector<Case> cases = {
        {"a deeply nested answer", endpoints({"call", "GET", "/deep"}), 1, ""},
        {"a deeply nested error answer", endpoints({"call", "GET", "/deep-error"}), 1, ""},
        {"--data nested too deeply",
         endpoints({"call", "POST", "/x", "--data", std::string(600, '[') + std::string(600, ']')}),
         2, "JSON nested deeper than 512 levels"},
        {"--user-info nested 60,000 deep",
         endpoints({"action", "ACCEPT_IDENTIFIER", "--user-info",
                    std::string(60'000, '[') + std::string(60'000, ']')}),
         2, "--user-info: JSON nested deeper than 512 levels"},
        {"--param nested too deeply",
         endpoints({"guest", "register", "--id", "g1", "--param",
                    "tags=" + std::string(600, '[') + std::string(600, ']')}),
         2, "--param: JSON nested deeper than 512 levels"},
        {"no token endpoint given",
         {"token"},
         1,
         "auth.kx-staging.invalid is a placeholder, not the service: give its address with "
         "--endpoint staging-token=URL"},
        {"an environment that needs a business unit",
         endpoints({"--env", "1", "call", "GET", "/guests"}), 2,
         "--env 1 puts the business unit into every path: add --business-unit BU"},
    };
    for (const Case& c : cases) {
        const ProcessResult result = kxctl(c.arguments);
        EXPECT_EQ(result.exitCode, c.status) << c.name << "\n" << result.err;
        EXPECT_NE(result.err.find(c.err), std::string::npos) << c.name << "\n" << result.err;
    }
    const auto deepAnswer = jsonLines(kxctl(endpoints({"call", "GET", "/deep"})).out);
    ASSERT_EQ(deepAnswer.size(), 1u);
    EXPECT_EQ(deepAnswer[0]["error"]["domain"], "NSCocoaErrorDomain");
    EXPECT_EQ(deepAnswer[0]["error"]["code"], 3840);
}

TEST_F(KXCtlHostileInput, ATokenAnswerThatIsNotJSONIsNamedWhenTheTimeOutEndsTheRun) {
    service.script("POST", "/token", KXScriptedAnswer::text(200, "<html>maintenance</html>"));
    const ProcessResult result =
        kxctl({"--endpoint", "staging-token=" + service.baseURL(), "token"}, {}, "1");
    EXPECT_EQ(result.exitCode, 3) << result.err;
    EXPECT_NE(result.err.find("no bearer token within 1 s: the token endpoint " +
                              service.baseURL() + "/token gave no token and no error"),
              std::string::npos)
        << result.err;
}

TEST_F(KXCtlHostileInput, ConfigurationMistakesAreReportedNotAborted) {
    kxtest::writeText(directory / "empty.enc", "");
    struct Case {
        std::filesystem::path config;
        std::string err;
    };
    const std::vector<Case> cases = {
        {directory, "is not a file: pass the sealed KXConfig.enc itself"},
        {directory / "empty.enc", "is empty"},
        {directory / "absent.enc", "No such file or directory"},
    };
    for (const Case& c : cases) {
        const ProcessResult result = kxctl({"token"}, c.config);
        EXPECT_EQ(result.exitCode, 1) << c.config << result.err;
        EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
    }
    const ProcessResult wrongKey =
        kxtest::runProcess(kxtest::builtProgram("tools/kxctl/kxctl"),
                           {"--config", configFile.string(), "--key", "wrong", "token"});
    EXPECT_EQ(wrongKey.exitCode, 1);
    EXPECT_NE(wrongKey.err.find("wrong key or damaged file"), std::string::npos) << wrongKey.err;
    EXPECT_TRUE(service.requests().empty());
}

TEST_F(KXCtlHostileInput, APathWithoutItsSlashStillGoesBelowTheBasePath) {
    service.scriptToken("tok");
    service.script("GET", "/KXFrontier-stg/guests/42", KXScriptedAnswer::json(200, {{"id", 42}}));
    const ProcessResult result = kxctl(endpoints({"call", "GET", "guests/42"}));
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(service.requestsTo("/KXFrontier-stg/guests/42").size(), 1u);
}
