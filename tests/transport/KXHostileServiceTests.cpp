#include "KXTransportFixture.h"

#include <KXClientFramework/KXOAuth2Client.h>
#include <KXClientFramework/KXTransportActivity.h>

#include <curl/curl.h>

#include <tuple>

using namespace std::chrono_literals;

namespace {

std::string nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

std::string flatArray(std::size_t values) {
    std::string text = "[0";
    for (std::size_t i = 1; i < values; ++i) {
        text += ",0";
    }
    return text + "]";
}

class HostileService : public KXTransportTest {
protected:
    void SetUp() override {
        KXOAuth2Client::client().initWithClientId("hostile-client", "hostile-secret");
        service.script("GET", "/inbox", KXScriptedAnswer::json(200, KXJSON{{"messages", 0}}));
    }
};

}  // namespace

TEST_F(HostileService, AnswersBeyondTheJSONLimitsAreRefusedWithAClearError) {
    giveToken();
    // The body, the status, and why it is refused (empty: accepted).
    const std::vector<std::tuple<std::string, int, std::string>> cases = {
        {nested(140'000), 200, "JSON nested deeper than 512 levels"},
        {nested(513), 200, "JSON nested deeper than 512 levels"},
        {nested(512), 200, ""},
        {flatArray(1'000'000), 200, "JSON with more than 1000000 values"},  // with the array
        {flatArray(999'999), 200, ""},
        // An error answer's body is only its user info: null when it is refused.
        {nested(140'000), 401, ""},
    };
    for (const auto& [body, status, reason] : cases) {
        service.script("GET", "/hostile", KXScriptedAnswer::text(status, body, "application/json"));
        const KXCallOutcome outcome = get("/hostile");
        const std::string label = body.substr(0, 8) + " x" + std::to_string(body.size());
        if (status != 200) {
            ASSERT_TRUE(outcome.error) << label;
            EXPECT_EQ(outcome.error->code, status) << label;
            EXPECT_TRUE(outcome.error->userInfo.is_null()) << label;
        } else if (reason.empty()) {
            EXPECT_EQ(outcome.successes, 1) << label;
            EXPECT_TRUE(outcome.object.is_array()) << label;
        } else {
            ASSERT_TRUE(outcome.error) << label;
            ASSERT_TRUE(outcome.response) << label;
            EXPECT_EQ(outcome.error->domain, "NSCocoaErrorDomain") << label;
            EXPECT_EQ(outcome.error->code, 3840) << label;
            EXPECT_EQ(outcome.error->localizedDescription(), reason) << label;
        }
    }
}

TEST_F(HostileService, TheDefaultBodyLimitIsSixteenMebibytes) {
    giveToken();
    constexpr std::size_t kLimit = std::size_t{16} * 1024 * 1024;
    // One byte more fails: the fault matrix's OverSizeLimit column.
    service.script("GET", "/limit", KXScriptedAnswer::text(200, std::string(kLimit, ' ')));
    EXPECT_EQ(get("/limit").successes, 1);
    EXPECT_EQ(KXSessionConfiguration::defaultSessionConfiguration().maximumResponseBodySize,
              kLimit);
}

TEST_F(HostileService, RequestsWaitingForATokenShareOneTokenRequestAndUseItUntilItExpires) {
    service.scriptToken("shared-token");
    for (const KXCallOutcome& outcome : getConcurrently(25, "/inbox")) {
        EXPECT_EQ(outcome.successes, 1);
    }
    EXPECT_EQ(service.requestsTo("/token").size(), 1u);
    const auto inbox = service.requestsTo("/inbox");
    ASSERT_EQ(inbox.size(), 25u);
    for (const KXRecordedRequest& request : inbox) {
        EXPECT_EQ(request.headers.at("Authorization"), "BEARER shared-token");
    }

    // A valid token is used as it is; an expired one is replaced before the request.
    get("/inbox");
    EXPECT_EQ(service.requestsTo("/token").size(), 1u);
    service.scriptToken("renewed-token");
    transport().setBearerToken(std::make_shared<KXBearerToken>("stale-token", clock.now() - 1s));
    get("/inbox");
    EXPECT_EQ(service.requestsTo("/inbox").back().headers.at("Authorization"),
              "BEARER renewed-token");
    EXPECT_EQ(service.requestsTo("/token").size(), 2u);
}

TEST_F(HostileService, TokenFailuresFailEveryWaitingRequestOnceWithoutAResponse) {
    auto sink = KXCapturingSink::install();
    struct Case {
        const char* name;
        KXScriptedAnswer answer;
        std::int64_t code;
        KXJSON userInfo = nullptr;
    };
    const KXJSON invalid = {{"error", "invalid_client"}};
    const std::vector<Case> cases = {
        {"refused", KXScriptedAnswer::json(401, invalid), 401, invalid},
        {"dropped", KXScriptedAnswer::dropped(), CURLE_GOT_NOTHING},
        {"no lifetime left",
         KXScriptedAnswer::json(200, {{"access_token", "t"}, {"expires_in", 0}}),
         kKXTokenAnswerErrorCode},
        {"lifetime that is not a number",
         KXScriptedAnswer::json(200, {{"access_token", "t"}, {"expires_in", "soon"}}),
         kKXTokenAnswerErrorCode},
        {"no access token", KXScriptedAnswer::json(200, {{"expires_in", 3600}}),
         kKXTokenAnswerErrorCode},
        {"access token of the wrong type",
         KXScriptedAnswer::json(200, {{"access_token", {{"a", 1}}}, {"expires_in", 3600}}),
         kKXTokenAnswerErrorCode},
        {"answer nested too deeply",
         KXScriptedAnswer::text(200, "{\"a\":" + nested(100'000) + "}", "application/json"), 3840},
        {"error answer nested too deeply",
         KXScriptedAnswer::text(400, nested(100'000), "application/json"), 400},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        KXLoopbackService fresh;
        kxtest::pointServiceAt(fresh.baseURL());
        fresh.script("GET", "/inbox", KXScriptedAnswer::json(200, KXJSON::object()));
        fresh.script("POST", "/token", c.answer);
        sink->clear();

        for (const KXCallOutcome& outcome : getConcurrently(10, "/inbox")) {
            EXPECT_FALSE(outcome.response);
            ASSERT_TRUE(outcome.error);
            EXPECT_EQ(outcome.error->code, c.code);
            if (!c.userInfo.is_null()) {
                EXPECT_EQ(outcome.error->userInfo, c.userInfo);
            }
            EXPECT_EQ(sink->linesContaining("ERROR: " + outcome.error->description()).size(), 10u);
        }
        platform->asioMainQueue().runFor(200ms);  // a renewal loop would show up meanwhile
        EXPECT_EQ(fresh.requestsTo("/token").size(), 1u);
        EXPECT_TRUE(fresh.requestsTo("/inbox").empty()) << "no request goes out without a token";
        EXPECT_FALSE(transport().bearerToken());
    }
}

TEST_F(HostileService, ATokenAnswerWithoutJSONLeavesTheRequestWaitingForever) {
    service.script("POST", "/token", KXScriptedAnswer::text(200, "not json"));
    KXCallOutcome outcome;
    start(&KXHTTPSessionManager::GET, "/inbox", nullptr, outcome);
    ASSERT_TRUE(service.waitForRequests(1, kPatience));
    // Let the token answer reach the main queue and be dropped there.
    platform->asioMainQueue().runFor(300ms);
    EXPECT_EQ(KXTransportActivity::requestsWaitingForToken(), 1u);

    // The dropped fetch does not hold up the next request: it asks for a token of its own.
    service.scriptToken("later");
    EXPECT_EQ(get("/inbox").successes, 1);
    EXPECT_EQ(service.requestsTo("/token").size(), 2u);
    EXPECT_EQ(outcome.callbacks(), 0);
}

TEST_F(HostileService, TheTokenRequestIsNeverRedirectedWhileRESTCallsKeepTheTokenInTheirOrigin) {
    KXLoopbackService elsewhere;
    elsewhere.scriptToken("stolen");
    elsewhere.script("GET", "/landing", KXScriptedAnswer::json(200, KXJSON::object()));
    service.script("GET", "/landing", KXScriptedAnswer::json(200, KXJSON::object()));
    for (int status : {307, 308}) {
        KXScriptedAnswer redirect = KXScriptedAnswer::empty(status);
        redirect.headers = {{"Location", elsewhere.baseURL() + "/token"}};
        service.script("POST", "/token", redirect);
        const KXCallOutcome outcome = get("/inbox");
        ASSERT_TRUE(outcome.error) << status;
        EXPECT_EQ(outcome.error->code, status);
    }
    EXPECT_TRUE(elsewhere.requests().empty()) << "the client secret went to another origin";

    giveToken("bearer-1");
    for (const auto& [target, keepsToken] : {std::pair{&service, true}, {&elsewhere, false}}) {
        KXScriptedAnswer redirect = KXScriptedAnswer::empty(307);
        redirect.headers = {{"Location", target->baseURL() + "/landing"}};
        service.script("GET", "/moved", redirect);
        EXPECT_EQ(get("/moved").successes, 1) << keepsToken;
        const auto landed = target->requestsTo("/landing");
        ASSERT_FALSE(landed.empty()) << keepsToken;
        EXPECT_EQ(landed.back().headers.count("Authorization"), keepsToken ? 1u : 0u);
    }
}
