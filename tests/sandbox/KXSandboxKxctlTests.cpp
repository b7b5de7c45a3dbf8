// kxctl against the sandbox, with the options docs/SANDBOX.md shows: the local development
// server (environment 3) with a business unit, the sandbox as the staging token host.
#include "KXSandboxFixture.h"

#include "KXProcess.h"

namespace {

class SandboxKxctl : public KXSandboxTest {
protected:
    void SetUp() override { startSandbox(); }

    std::vector<KXJSON> kxctl(std::vector<std::string> arguments) {
        std::vector<std::string> all = {"--config",        configFile.string(),
                                        "--key",           kKey,
                                        "--env",           "3",
                                        "--business-unit", "BU7",
                                        "--endpoint",      "local=" + sandbox->baseURL(),
                                        "--endpoint",      "staging-token=" + sandbox->baseURL()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const kxtest::ProcessResult result =
            kxtest::runProcess(kxtest::builtProgram("tools/kxctl/kxctl"), all);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return kxtest::jsonLines(result.out);
    }
};

}  // namespace

TEST_F(SandboxKxctl, RegistersFetchesAndPagesThroughTheBusinessUnitsBasePath) {
    EXPECT_FALSE(kxctl({"token"}).at(0)["token"].get<std::string>().empty());

    const KXJSON created =
        kxctl({"call", "POST", "/guests", "--data", R"({"externalId": "ada"})"}).at(0);
    EXPECT_EQ(created["status"], 201);
    EXPECT_EQ(created["headers"]["newRecordId"], "ada");

    const KXJSON page =
        kxctl({"call", "GET", "/guests/ada/inboxes/inbox-1/messages?offset=0&limit=5"}).at(0);
    EXPECT_EQ(page["status"], 200);
    EXPECT_EQ(page["body"]["records"].size(), 5u);
    EXPECT_EQ(page["body"]["hasMoreRecords"], true);

    const kxtest::ProcessResult guests =
        kxtest::runProcess(kxtest::builtProgram("tools/kxsandbox/kxsandbox"),
                           {"--db", database.string(), "guests", "--tenant", "BU7", "--json"});
    EXPECT_EQ(KXJSON::parse(guests.out).at(0)["externalId"], "ada");
}
