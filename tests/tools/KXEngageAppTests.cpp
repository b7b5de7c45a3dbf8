#include "KXToolTestFixture.h"

using namespace kxtools;
using kxtest::formFields;

namespace {

std::filesystem::path example(const std::string& name) {
    return kxtest::builtProgram("examples/" + name + "/example_" + name);
}

class KXEngageApp : public testing::Test {
protected:
    KXLoopbackService service;
    std::filesystem::path directory = kxtest::scratchDirectory("engage-app");
    std::filesystem::path config = directory / "KXConfig.enc";

    void SetUp() override {
        if (!std::filesystem::exists(example("engage_app"))) {
            GTEST_SKIP() << "examples are not built in this configuration";
        }
        kxtest::sealCredentialConfiguration(config, kKey);
    }

    ProcessResult run(std::vector<std::string> extra) {
        std::vector<std::string> arguments = {"--token-url", service.baseURL(), "--service-url",
                                              service.baseURL()};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        return kxtest::runProcess(example("engage_app"), arguments);
    }
};

}  // namespace

// The token request's grant and scope are the library's own (checked in the transport tests);
// the example passes the staging credentials of its configuration.
TEST_F(KXEngageApp, EngagesGetsATokenWithTheStagingCredentialsAndTerminatesCleanly) {
    service.scriptToken("app-token");
    const auto result = run({"--config", config.string(), "--key", kKey});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    for (const char* line : {"token ready\n", "terminating\n", "delegate restored: yes\n"}) {
        EXPECT_NE(result.out.find(line), std::string::npos) << result.out;
    }
    const auto requests = service.requestsTo("/token");
    ASSERT_EQ(requests.size(), 1u);
    const auto fields = formFields(requests[0].body);
    EXPECT_EQ(fields.at("client_id"), "stage-id");
    EXPECT_EQ(fields.at("client_secret"), "stage-secret");

    // A refused token ends the run without a token, but it still terminates cleanly.
    service.script("POST", "/token", KXScriptedAnswer::json(401, {{"error", "invalid_client"}}));
    const auto refused =
        run({"--config", config.string(), "--key", kKey, "--timeout", "2", "--verbose"});
    expectOutcome(refused, 1, "Error Zandrel had trouble starting.");
    EXPECT_NE(refused.out.find("delegate restored: yes\n"), std::string::npos) << refused.out;
}

TEST_F(KXEngageApp, EveryExampleAnswersHelpAndRefusesWhatItCannotRun) {
    for (const char* name : {"engage_app", "custom_main_loop", "log_routing", "demo"}) {
        const auto help = kxtest::runProcess(example(name), {"--help"});
        EXPECT_EQ(help.exitCode, 0) << name << help.err;
        EXPECT_EQ(help.out.rfind("usage: example_", 0), 0u) << name << help.out;
        EXPECT_EQ(kxtest::runProcess(example(name), {"--frobnicate"}).exitCode, 2) << name;
    }
    expectOutcome(run({"--config", config.string(), "--key", "not-the-key"}), 1,
                  "wrong key or damaged file");
    expectOutcome(run({"--config", (directory / "config.plist").string(), "--key", kKey}), 2, "");
    expectOutcome(
        kxtest::runProcess(example("demo"), {"--config", config.string(), "--key", "not-the-key",
                                             "--service", service.baseURL()}),
        1, "wrong key or damaged file");
    EXPECT_TRUE(service.requests().empty());
}
