#include "KXToolTestFixture.h"

using namespace kxtools;

namespace {

std::string nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

using R = Refusal;

const std::string kPlaceholder =
    "auth.kx-staging.invalid is a placeholder, not the service: give its address with "
    "--endpoint staging-token=URL";

// Arguments after the configuration, key and endpoints; with "DIR" in them, the whole command
// line.
const std::vector<Refusal> kRefusals = {
    R("NoCommand", {}, 2),
    R("AnUnknownCommand", {"frobnicate"}, 2),
    R("NoKey", {"--config", "DIR/KXConfig.enc", "token"}, 2),
    R("AnUnknownEndpoint", {"--endpoint", "elsewhere=http://127.0.0.1:1", "token"}, 2),
    R("AnEndpointWithoutItsAddress", {"--endpoint", "production", "token"}, 2),
    R("ANegativeTimeout", {"--timeout", "-1", "token"}, 2),
    R("AnEnvironmentWithoutItsBusinessUnit", {"--env", "1", "call", "GET", "/guests"}, 2,
      "--env 1 puts the business unit into every path: add --business-unit BU"),
    R("CallWithAnUnknownVerb", {"call", "PATCH", "/x"}, 2),
    R("CallWithoutAPath", {"call", "GET"}, 2),
    R("CallRepeatedZeroTimes", {"call", "GET", "/x", "--repeat", "0"}, 2),
    R("CallDataThatIsNoJSON", {"call", "GET", "/x", "--data", "{not json"}, 2),
    R("CallDataNestedTooDeeply", {"call", "POST", "/x", "--data", nested(600)}, 2,
      "JSON nested deeper than 512 levels"),
    R("UserInfoNested60000Deep", {"action", "ACCEPT_IDENTIFIER", "--user-info", nested(60'000)}, 2,
      "--user-info: JSON nested deeper than 512 levels"),
    R("ParamNestedTooDeeply", {"guest", "register", "--id", "g1", "--param", "tags=" + nested(600)},
      2, "--param: JSON nested deeper than 512 levels"),
    R("RegisterWithPartOfTheFullForm", {"guest", "register", "--id", "g5", "--language", "de"}, 2),
    R("SaveDataThatIsNoJSON", {"guest", "save", "--data", "{"}, 2),
    R("SubscribeWithoutChannelOrProfile", {"subscribe", "L1"}, 2),
    R("ListTagsThatAreNoJSON",
      {"list", "create", "--external-id", "x", "--name", "X", "--tags", "[1"}, 2,
      "--tags is not JSON"),
    R("DeviceTokenOfOddLength", {"device-token", "0a0"}, 2),
    R("DeviceTokenThatIsNotHexadecimal", {"device-token", "zz"}, 2),
    R("AnEmptyDeviceToken", {"device-token", ""}, 2),
    R("LifecycleWithoutEvents", {"lifecycle"}, 2, "EVENT is required"),
    R("AnUnknownLifecycleEvent", {"lifecycle", "active", "sleep"}, 2,
      "unknown lifecycle event sleep"),
    R("APushThatIsNoJSON", {"lifecycle", "push:active:{"}, 2, "push:active is not JSON: {"),
    R("APushThatIsNoObject", {"lifecycle", "push:active:[1]"}, 2,
      "push:active takes a notification payload"),
    R("APushOfAnUnknownState", {"lifecycle", "push:asleep:{}"}, 2, "push takes push:STATE:JSON"),
    R("APushWithoutPayload", {"lifecycle", "push:active"}, 2, "push takes push:STATE:JSON"),
    R("ALatitudeOutOfRange", {"lifecycle", "location:91,0"}, 2, "location takes location:LAT,LON"),
    R("ALaunchNotificationThatIsNoJSON", {"--launch-notification", "nope", "lifecycle", "active"},
      2, "--launch-notification is not JSON"),
    R("AConfigurationThatIsAFolder", {"--config", "DIR", "--key", kKey, "token"}, 1,
      "is not a file: pass the sealed KXConfig.enc itself"),
    R("AnEmptyConfiguration", {"--config", "DIR/empty.enc", "--key", kKey, "token"}, 1, "is empty"),
    R("AnAbsentConfiguration", {"--config", "DIR/absent.enc", "--key", kKey, "token"}, 1,
      "No such file or directory"),
    R("AWrongKey", {"--config", "DIR/KXConfig.enc", "--key", "wrong", "token"}, 1,
      "does not open with this key: wrong key or damaged file"),
    R("NoTokenEndpoint", {"--config", "DIR/KXConfig.enc", "--key", kKey, "--timeout", "5", "token"},
      1, kPlaceholder),
};

class KXCtlRefusal : public KXCtlTest, public testing::WithParamInterface<Refusal> {};
using KXCtlHostileAnswer = KXCtlTest;

}  // namespace

TEST_P(KXCtlRefusal, EndsWithItsStatusAndReasonBeforeAnythingIsSent) {
    Refusal refusal = GetParam();
    kxtest::writeText(directory / "empty.enc", "");
    const ProcessResult result = placeDirectory(refusal.arguments, directory)
                                     ? kxctlAlone(refusal.arguments)
                                     : kxctl(refusal.arguments);
    expectOutcome(result, refusal.exitCode, refusal.err);
    if (refusal.exitCode == 2) {
        EXPECT_EQ(result.out, "");
    }
    EXPECT_TRUE(service.requests().empty());
}

INSTANTIATE_TEST_SUITE_P(Arguments, KXCtlRefusal, testing::ValuesIn(kRefusals),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(KXCtlHostileAnswer, AnswersTooDeepToPrintEndWithAnErrorLine) {
    service.scriptToken("tok");
    const std::vector<std::pair<int, KXJSON>> cases = {
        {200, errorLine(3840, {{"NSLocalizedDescription", "JSON nested deeper than 512 levels"}},
                        "NSCocoaErrorDomain")},
        {500, errorLine(500, nullptr)},
    };
    for (const auto& [status, line] : cases) {
        SCOPED_TRACE(status);
        service.script("GET", kBase + "/deep",
                       KXScriptedAnswer::text(status, nested(140'000), "application/json"));
        const ProcessResult result = kxctl({"call", "GET", "/deep"});
        EXPECT_EQ(result.exitCode, 1) << result.err;
        EXPECT_EQ(jsonLines(result.out), JSONLines{line});
    }
}

TEST_F(KXCtlHostileAnswer, ATimeOutEndsWithThreeAndNamesWhatWasMissing) {
    // A token answer that is not JSON gives neither a token nor an error.
    service.script("POST", "/token", KXScriptedAnswer::text(200, "<html>maintenance</html>"));
    expectOutcome(kxctl({"--timeout", "1", "token"}), 3,
                  "no bearer token within 1 s: the token endpoint " + service.baseURL() +
                      "/token gave no token and no error");

    service.scriptToken("tok");
    KXScriptedAnswer slow = KXScriptedAnswer::json(200, KXJSON::object());
    slow.delay = std::chrono::seconds(8);
    service.script("GET", kBase + "/slow", slow);
    expectOutcome(kxctl({"--timeout", "1", "call", "GET", "/slow"}), 3,
                  "kxctl: no answer within 1 s");
}
