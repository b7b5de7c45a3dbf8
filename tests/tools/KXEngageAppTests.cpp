// The engage example run as a child process against the loopback service: it launches,
// engages from its delegate, waits for the token and terminates cleanly. Every example answers
// --help and ends a wrong key with a reason.
#include "KXLoopbackService.h"
#include "KXProcess.h"
#include "KXSealedFiles.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

using kxtest::formFields;

namespace {

const std::string kKey = "engage-app-key";

class KXEngageApp : public testing::Test {
protected:
    void SetUp() override {
        program = kxtest::builtProgram("examples/engage_app/example_engage_app");
        if (!std::filesystem::exists(program)) {
            GTEST_SKIP() << "examples are not built in this configuration";
        }
        kxtest::sealCredentialConfiguration(directory / "KXConfig.enc", kKey);
    }

    kxtest::ProcessResult run(const std::string& key, std::vector<std::string> extra = {}) {
        std::vector<std::string> arguments = {
            "--config",      (directory / "KXConfig.enc").string(),
            "--key",         key,
            "--token-url",   service.baseURL(),
            "--service-url", service.baseURL()};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        return kxtest::runProcess(program, arguments);
    }

    KXLoopbackService service;
    std::filesystem::path directory = kxtest::scratchDirectory("engage-app");
    std::filesystem::path program;
};

}  // namespace

TEST_F(KXEngageApp, EngagesGetsATokenWithTheStagingCredentialsAndTerminatesCleanly) {
    service.scriptToken("app-token");
    const auto result = run(kKey);

    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("token ready\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("terminating\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("delegate restored: yes\n"), std::string::npos) << result.out;

    const auto requests = service.requestsTo("/token");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    const auto fields = formFields(requests[0].body);
    EXPECT_EQ(fields.at("client_id"), "stage-id");
    EXPECT_EQ(fields.at("client_secret"), "stage-secret");
    EXPECT_EQ(fields.at("grant_type"), "client_credentials");
    EXPECT_EQ(fields.at("scope"), "RETURN_ALL_CLIENT_SCOPES");
}

TEST_F(KXEngageApp, ARefusedTokenEndsWithoutTokenButStillTerminates) {
    service.script("POST", "/token", KXScriptedAnswer::json(401, {{"error", "invalid_client"}}));
    const auto result = run(kKey, {"--timeout", "2", "--verbose"});
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    EXPECT_NE(result.err.find("Error Zandrel had trouble starting."), std::string::npos)
        << result.err;
    EXPECT_NE(result.out.find("delegate restored: yes\n"), std::string::npos) << result.out;
}

TEST_F(KXEngageApp, AWrongKeyEndsTheExamplesWithAReasonBeforeAnyRequest) {
    service.scriptToken("app-token");
    const kxtest::ProcessResult results[] = {
        run("not-the-key"),
        kxtest::runProcess(kxtest::builtProgram("examples/demo/example_demo"),
                           {"--config", (directory / "KXConfig.enc").string(), "--key",
                            "not-the-key", "--service", service.baseURL()})};
    for (const auto& result : results) {
        EXPECT_EQ(result.exitCode, 1) << result.err;
        EXPECT_NE(result.err.find("wrong key or damaged file"), std::string::npos) << result.err;
    }
    EXPECT_TRUE(service.requests().empty());
}

TEST_F(KXEngageApp, EveryExampleAnswersHelpAndRefusesUnknownOptions) {
    for (const char* name :
         {"engage_app/example_engage_app", "custom_main_loop/example_custom_main_loop",
          "log_routing/example_log_routing", "demo/example_demo"}) {
        const auto example = kxtest::builtProgram(std::string("examples/") + name);
        const auto help = kxtest::runProcess(example, {"--help"});
        EXPECT_EQ(help.exitCode, 0) << name << help.err;
        EXPECT_EQ(help.out.rfind("usage: example_", 0), 0u) << name << help.out;
        EXPECT_EQ(kxtest::runProcess(example, {"--frobnicate"}).exitCode, 2) << name;
    }
}

TEST_F(KXEngageApp, RefusesAConfigurationFileWithAnotherName) {
    const auto result = kxtest::runProcess(
        program, {"--config", (directory / "config.plist").string(), "--key", kKey});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(service.requests().empty());
}
