// kxctl refusing what it cannot run, as a child process: usage mistakes end with 2 and a
// reason before anything is sent, configuration mistakes with 1 and a reason, and answers that
// would crash a naive printer or leave the library waiting with a status and a reason too.
#include "KXToolTestFixture.h"

using namespace kxtools;

namespace {

std::string nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

struct Refusal {
    const char* name;
    std::vector<std::string> arguments;  // after the configuration, key and endpoints
    int exitCode;
    std::string err;     // a part of standard error
    bool alone = false;  // the whole command line, with "DIR" standing for the test's folder
};

void PrintTo(const Refusal& r, std::ostream* os) {
    *os << r.name;
}

const std::string kPlaceholder =
    "auth.kx-staging.invalid is a placeholder, not the service: give its address with "
    "--endpoint staging-token=URL";

const std::vector<Refusal> kRefusals = {
    {"NoCommand", {}, 2, ""},
    {"AnUnknownCommand", {"frobnicate"}, 2, ""},
    {"NoKey", {"--config", "DIR/KXConfig.enc", "token"}, 2, "", true},
    {"AnUnknownEndpoint", {"--endpoint", "elsewhere=http://127.0.0.1:1", "token"}, 2, ""},
    {"AnEndpointWithoutItsAddress", {"--endpoint", "production", "token"}, 2, ""},
    {"ANegativeTimeout", {"--timeout", "-1", "token"}, 2, ""},
    {"AnEnvironmentWithoutItsBusinessUnit",
     {"--env", "1", "call", "GET", "/guests"},
     2,
     "--env 1 puts the business unit into every path: add --business-unit BU"},
    {"CallWithAnUnknownVerb", {"call", "PATCH", "/x"}, 2, ""},
    {"CallWithoutAPath", {"call", "GET"}, 2, ""},
    {"CallRepeatedZeroTimes", {"call", "GET", "/x", "--repeat", "0"}, 2, ""},
    {"CallDataThatIsNoJSON", {"call", "GET", "/x", "--data", "{not json"}, 2, ""},
    {"CallDataNestedTooDeeply",
     {"call", "POST", "/x", "--data", nested(600)},
     2,
     "JSON nested deeper than 512 levels"},
    {"UserInfoNested60000Deep",
     {"action", "ACCEPT_IDENTIFIER", "--user-info", nested(60'000)},
     2,
     "--user-info: JSON nested deeper than 512 levels"},
    {"ParamNestedTooDeeply",
     {"guest", "register", "--id", "g1", "--param", "tags=" + nested(600)},
     2,
     "--param: JSON nested deeper than 512 levels"},
    {"RegisterWithPartOfTheFullForm",
     {"guest", "register", "--id", "g5", "--language", "de"},
     2,
     ""},
    {"SaveDataThatIsNoJSON", {"guest", "save", "--data", "{"}, 2, ""},
    {"SubscribeWithoutChannelOrProfile", {"subscribe", "L1"}, 2, ""},
    {"ListTagsThatAreNoJSON",
     {"list", "create", "--external-id", "x", "--name", "X", "--tags", "[1"},
     2,
     "--tags is not JSON"},
    {"DeviceTokenOfOddLength", {"device-token", "0a0"}, 2, ""},
    {"DeviceTokenThatIsNotHexadecimal", {"device-token", "zz"}, 2, ""},
    {"AnEmptyDeviceToken", {"device-token", ""}, 2, ""},
    {"LifecycleWithoutEvents", {"lifecycle"}, 2, "EVENT is required"},
    {"AnUnknownLifecycleEvent",
     {"lifecycle", "active", "sleep"},
     2,
     "unknown lifecycle event sleep"},
    {"APushThatIsNoJSON", {"lifecycle", "push:active:{"}, 2, "push:active is not JSON: {"},
    {"APushThatIsNoObject",
     {"lifecycle", "push:active:[1]"},
     2,
     "push:active takes a notification payload"},
    {"APushOfAnUnknownState", {"lifecycle", "push:asleep:{}"}, 2, "push takes push:STATE:JSON"},
    {"APushWithoutPayload", {"lifecycle", "push:active"}, 2, "push takes push:STATE:JSON"},
    {"ALatitudeOutOfRange", {"lifecycle", "location:91,0"}, 2, "location takes location:LAT,LON"},
    {"ALaunchNotificationThatIsNoJSON",
     {"--launch-notification", "nope", "lifecycle", "active"},
     2,
     "--launch-notification is not JSON"},
    {"AConfigurationThatIsAFolder",
     {"--config", "DIR", "--key", kKey, "token"},
     1,
     "is not a file: pass the sealed KXConfig.enc itself",
     true},
    {"AnEmptyConfiguration",
     {"--config", "DIR/empty.enc", "--key", kKey, "token"},
     1,
     "is empty",
     true},
    {"AnAbsentConfiguration",
     {"--config", "DIR/absent.enc", "--key", kKey, "token"},
     1,
     "No such file or directory",
     true},
    {"AWrongKey",
     {"--config", "DIR/KXConfig.enc", "--key", "wrong", "token"},
     1,
     "does not open with this key: wrong key or damaged file",
     true},
    {"NoTokenEndpoint",
     {"--config", "DIR/KXConfig.enc", "--key", kKey, "--timeout", "5", "token"},
     1,
     kPlaceholder,
     true},
};

class KXCtlRefusal : public KXCtlTest, public testing::WithParamInterface<Refusal> {};
using KXCtlHostileAnswer = KXCtlTest;

}  // namespace

TEST_P(KXCtlRefusal, EndsWithItsStatusAndReasonBeforeAnythingIsSent) {
    Refusal refusal = GetParam();
    kxtest::writeText(directory / "empty.enc", "");
    ProcessResult result;
    if (refusal.alone) {
        for (std::string& argument : refusal.arguments) {
            if (argument.starts_with("DIR")) {
                argument.replace(0, 3, directory.string());
            }
        }
        result = kxctlAlone(refusal.arguments);
    } else {
        result = kxctl(refusal.arguments);
    }
    expectOutcome({refusal.arguments, refusal.exitCode, refusal.err}, result);
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

TEST_F(KXCtlHostileAnswer, ATokenAnswerThatIsNotJSONIsNamedWhenTheTimeOutEndsTheRun) {
    service.script("POST", "/token", KXScriptedAnswer::text(200, "<html>maintenance</html>"));
    const ProcessResult result = kxctl({"--timeout", "1", "token"});
    EXPECT_EQ(result.exitCode, 3) << result.err;
    EXPECT_NE(result.err.find("no bearer token within 1 s: the token endpoint " +
                              service.baseURL() + "/token gave no token and no error"),
              std::string::npos)
        << result.err;
}
