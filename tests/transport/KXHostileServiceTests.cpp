// What a misbehaving or hostile service can send the transport: deeply nested or huge answers,
// token answers that give no usable token, and redirects that point elsewhere.
#include "KXTransportFixture.h"

#include <KXClientFramework/KXOAuth2Client.h>

#include <curl/curl.h>

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

    /// Starts `count` GETs of /inbox at once and waits until every one has an outcome.
    std::vector<KXCallOutcome> getConcurrently(std::size_t count) {
        std::vector<KXCallOutcome> outcomes(count);
        for (KXCallOutcome& outcome : outcomes) {
            start(&KXHTTPSessionManager::GET, "/inbox", nullptr, outcome);
        }
        EXPECT_TRUE(runUntil([&] {
            return std::all_of(outcomes.begin(), outcomes.end(),
                               [](const KXCallOutcome& o) { return o.callbacks() > 0; });
        }));
        drain();
        return outcomes;
    }
};

}  // namespace

TEST_F(HostileService, AnswersBeyondTheJSONLimitsAreRefusedWithAClearError) {
    giveToken();
    struct Case {
        std::string body;
        int status;
        std::string reason;  // empty: the answer is accepted
    };
    const std::vector<Case> cases = {
        {nested(140'000), 200, "JSON nested deeper than 512 levels"},
        {nested(513), 200, "JSON nested deeper than 512 levels"},
        {nested(512), 200, ""},
        {flatArray(1'000'000), 200, "JSON with more than 1000000 values"},  // with the array
        {flatArray(999'999), 200, ""},
        // An error answer's body is only its user info: null when it is refused.
        {nested(140'000), 401, ""},
    };
    for (const Case& c : cases) {
        service.script("GET", "/hostile",
                       KXScriptedAnswer::text(c.status, c.body, "application/json"));
        const KXCallOutcome outcome = get("/hostile");
        const std::string label = c.body.substr(0, 8) + " x" + std::to_string(c.body.size());
        if (c.status != 200) {
            ASSERT_TRUE(outcome.error) << label;
            EXPECT_EQ(outcome.error->code, c.status) << label;
            EXPECT_TRUE(outcome.error->userInfo.is_null()) << label;
            EXPECT_NE(outcome.error->description().find("Code=401"), std::string::npos);
        } else if (c.reason.empty()) {
            EXPECT_EQ(outcome.successes, 1) << label;
            EXPECT_TRUE(outcome.object.is_array()) << label;
        } else {
            ASSERT_TRUE(outcome.error) << label;
            ASSERT_TRUE(outcome.response) << label;
            EXPECT_EQ(outcome.error->domain, "NSCocoaErrorDomain") << label;
            EXPECT_EQ(outcome.error->code, 3840) << label;
            EXPECT_EQ(outcome.error->localizedDescription(), c.reason) << label;
        }
    }
}

TEST_F(HostileService, TheDefaultBodyLimitIsSixteenMebibytes) {
    giveToken();
    constexpr std::size_t kLimit = std::size_t{16} * 1024 * 1024;
    service.script("GET", "/limit", KXScriptedAnswer::text(200, std::string(kLimit, ' ')));
    EXPECT_EQ(get("/limit").successes, 1);
    service.script("GET", "/over", KXScriptedAnswer::text(200, std::string(kLimit + 1, ' ')));
    const KXCallOutcome over = get("/over");
    ASSERT_TRUE(over.error);
    EXPECT_EQ(over.error->code, CURLE_FILESIZE_EXCEEDED);
}

TEST_F(HostileService, RequestsWaitingForATokenShareOneTokenRequest) {
    service.scriptToken("shared-token");
    for (const KXCallOutcome& outcome : getConcurrently(25)) {
        EXPECT_EQ(outcome.successes, 1);
    }
    EXPECT_EQ(service.requestsTo("/token").size(), 1u);
    const auto inbox = service.requestsTo("/inbox");
    ASSERT_EQ(inbox.size(), 25u);
    for (const KXRecordedRequest& request : inbox) {
        EXPECT_EQ(request.headers.at("Authorization"), "BEARER shared-token");
    }
}

TEST_F(HostileService, TokenAnswersWithoutAUsableTokenFailEveryWaitingRequestOnce) {
    struct Case {
        const char* name;
        KXScriptedAnswer answer;
        std::int64_t code;
    };
    const std::vector<Case> cases = {
        {"no lifetime left",
         KXScriptedAnswer::json(200, {{"access_token", "t"}, {"expires_in", 0}}),
         kKXTokenAnswerErrorCode},
        {"negative lifetime",
         KXScriptedAnswer::json(200, {{"access_token", "t"}, {"expires_in", -5}}),
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
        KXLoopbackService fresh;
        pointEveryEndpointAt(fresh.baseURL());
        fresh.script("GET", "/inbox", KXScriptedAnswer::json(200, KXJSON::object()));
        fresh.script("POST", "/token", c.answer);

        for (const KXCallOutcome& outcome : getConcurrently(10)) {
            ASSERT_TRUE(outcome.error) << c.name;
            EXPECT_EQ(outcome.error->code, c.code) << c.name;
            EXPECT_FALSE(outcome.error->description().empty());
        }
        platform->asioMainQueue().runFor(200ms);  // a renewal loop would show up meanwhile
        EXPECT_EQ(fresh.requestsTo("/token").size(), 1u) << c.name;
        EXPECT_TRUE(fresh.requestsTo("/inbox").empty()) << c.name;
        EXPECT_FALSE(transport().bearerToken()) << c.name;
    }
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
    struct Case {
        std::string location;
        KXLoopbackService* target;
        bool keepsToken;
    };
    const std::vector<Case> cases = {{service.baseURL() + "/landing", &service, true},
                                     {elsewhere.baseURL() + "/landing", &elsewhere, false}};
    for (const Case& c : cases) {
        KXScriptedAnswer redirect = KXScriptedAnswer::empty(307);
        redirect.headers = {{"Location", c.location}};
        service.script("GET", "/moved", redirect);
        EXPECT_EQ(get("/moved").successes, 1) << c.location;
        const auto landed = c.target->requestsTo("/landing");
        ASSERT_FALSE(landed.empty()) << c.location;
        EXPECT_EQ(landed.back().headers.count("Authorization"), c.keepsToken ? 1u : 0u)
            << c.location;
    }
}
