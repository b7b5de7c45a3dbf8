// kxctl's start-up through the library's engagement, run as a child process against the
// loopback service: `engage`, `device-token`, and how a start-up failure ends.
#include "KXLoopbackService.h"
#include "KXProcess.h"
#include "KXSealedFiles.h"
#include "KXTestDirectories.h"

#include <KXClientFramework/KXFileUserDefaults.h>
#include <KXClientFramework/KXJSON.h>

#include <gtest/gtest.h>

#include <map>
#include <sstream>

using kxtest::formFields;
using kxtest::jsonLines;
using kxtest::ProcessResult;

namespace {

const std::string kKey = "kxctl-engage-key";

class KXCtlEngage : public testing::Test {
protected:
    // The configuration deliberately has another name than KXConfig.enc: kxctl's bundle maps
    // the library's resource to whatever --config names.
    std::filesystem::path directory = kxtest::scratchDirectory("kxctl-engage");
    std::filesystem::path configFile = directory / "frontdesk.sealed";
    KXLoopbackService service;

    void SetUp() override { kxtest::sealCredentialConfiguration(configFile, kKey); }

    ProcessResult kxctl(std::vector<std::string> arguments, const std::string& key = kKey) {
        std::vector<std::string> all = {"--config",   configFile.string(),
                                        "--key",      key,
                                        "--endpoint", "development=" + service.baseURL(),
                                        "--endpoint", "test=" + service.baseURL() + "/test",
                                        "--endpoint", "staging-token=" + service.baseURL()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return kxtest::runProcess(kxtest::builtProgram("tools/kxctl/kxctl"), all);
    }
};

}  // namespace

TEST_F(KXCtlEngage, EngagePrintsWhereTheLibraryIsConnectedOnceTheTokenIsThere) {
    service.scriptToken("tok-1");
    const ProcessResult result = kxctl({"engage"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto lines = jsonLines(result.out);
    ASSERT_EQ(lines.size(), 1u) << result.out;
    EXPECT_EQ(lines[0], (KXJSON{{"ready", true},
                                {"environment", 0},
                                {"baseURL", service.baseURL()},
                                {"basePath", "/KXFrontier-stg"},
                                {"backgroundNotificationEnabled", false}}));

    const auto requests = service.requestsTo("/token");
    ASSERT_EQ(requests.size(), 1u);
    const auto fields = formFields(requests[0].body);
    EXPECT_EQ(fields.at("client_id"), "stage-id");
    EXPECT_EQ(fields.at("client_secret"), "stage-secret");
    // A clean run: the library found its launch and its engagement in time.
    EXPECT_EQ(result.err.find("was not called"), std::string::npos) << result.err;
}

TEST_F(KXCtlEngage, EngageReadsEnvironmentBusinessUnitAndTheInformationDictionary) {
    service.scriptToken("tok-1");
    kxtest::writeText(
        directory / "Info.plist",
        kxtest::xmlPropertyList("<key>UIBackgroundModes</key>"
                                "<array><string>remote-notification</string></array>"));
    const ProcessResult result = kxctl({"--env", "1", "--business-unit", "BU7", "engage"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto lines = jsonLines(result.out);
    ASSERT_EQ(lines.size(), 1u) << result.out;
    EXPECT_EQ(lines[0]["environment"], 1);
    EXPECT_EQ(lines[0]["baseURL"], service.baseURL() + "/test");
    EXPECT_EQ(lines[0]["basePath"], "/ZandrelService/rest/bu/BU7");
    EXPECT_EQ(lines[0]["backgroundNotificationEnabled"], true);
}

TEST_F(KXCtlEngage, ARefusedTokenEndsTheStartUpWithTheErrorAndStatusOne) {
    service.script("POST", "/token", KXScriptedAnswer::json(401, {{"error", "invalid_client"}}));
    for (const char* command : {"engage", "token"}) {
        const ProcessResult result = kxctl({command});
        EXPECT_EQ(result.exitCode, 1) << command << result.err;
        const auto lines = jsonLines(result.out);
        ASSERT_EQ(lines.size(), 1u) << result.out;
        EXPECT_EQ(lines[0], (KXJSON{{"error",
                                     {{"domain", "NSOSStatusErrorDomain"},
                                      {"code", 401},
                                      {"userInfo", {{"error", "invalid_client"}}}}}}))
            << command;
        // The library's own report stays visible.
        EXPECT_NE(result.err.find("Error Zandrel had trouble starting."), std::string::npos);
    }
    EXPECT_EQ(service.requestsTo("/token").size(), 2u);  // one per run, no retry
}

TEST_F(KXCtlEngage, AWrongKeyIsACleanFailureBeforeTheLibraryStarts) {
    const ProcessResult result = kxctl({"engage"}, "wrong-key");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("does not open with this key"), std::string::npos) << result.err;
    EXPECT_TRUE(service.requests().empty());
}

TEST_F(KXCtlEngage, DeviceTokenGoesThroughTheDispatcherAndIsStored) {
    service.scriptToken("tok-1");
    const ProcessResult result = kxctl({"device-token", "0A0bFF10"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto lines = jsonLines(result.out);
    ASSERT_EQ(lines.size(), 1u) << result.out;
    const KXJSON& data = lines[0];
    EXPECT_EQ(data["pushEnabled"], true);
    EXPECT_EQ(data["frameworkVersion"], "1.0.8.1");
    EXPECT_TRUE(data["manufacturer"].is_string());
    EXPECT_FALSE(data.contains("carrier"));

    // kxctl keeps its user defaults in the XDG configuration folder it inherited.
    KXFileUserDefaults stored(KXTestDirectories::current() / "config" / "kxctl" /
                              "UserDefaults.plist");
    EXPECT_EQ(stored.objectForKey("applicationDeviceToken"), "0a0bff10");
    EXPECT_EQ(stored.objectForKey("applicationDeviceTokenList"), KXJSON({"0a0bff10"}));
}

TEST_F(KXCtlEngage, DeviceTokenRefusesTextThatIsNotHexadecimalBytes) {
    for (const char* text : {"0a0", "zz", "0a 0b", ""}) {
        const ProcessResult result = kxctl({"device-token", text});
        EXPECT_EQ(result.exitCode, 2) << text << result.err;
    }
    EXPECT_TRUE(service.requests().empty());
}
