#include "KXSandboxFixture.h"

#include <thread>

namespace {

class SandboxRefusals : public KXSandboxTest {
protected:
    void SetUp() override { startSandbox(); }

    /// A raw request with the library's bearer token (or `authorization` when given).
    httplib::Result send(const std::string& method, const std::string& path,
                         const std::string& body,
                         std::optional<std::string> authorization = std::nullopt) {
        httplib::Request request;
        request.method = method;
        request.path = path;
        request.headers = {{"Authorization", authorization.value_or("BEARER " + bearerToken())}};
        request.body = body;
        if (!body.empty()) {
            request.set_header("Content-Type", "application/json");
        }
        return rawClient().send(request);
    }
};

}  // namespace

TEST_F(SandboxRefusals, TheTokenEndpointChecksTheGrantAndTheCredentials) {
    struct Case {
        const char* clientId;
        const char* secret;
        long status;
        const char* error;
    };
    for (const Case& c : std::vector<Case>{{"stage-id", "wrong", 401, "invalid_client"},
                                           {"someone", "stage-secret", 401, "invalid_client"},
                                           {"", "", 401, "invalid_client"},
                                           {"prod-id", "prod-secret", 0, nullptr}}) {
        SCOPED_TRACE(std::string(c.clientId) + "/" + c.secret);
        const std::optional<KXError> failure = authenticate(c.clientId, c.secret);
        if (c.error == nullptr) {
            EXPECT_FALSE(failure.has_value());
            continue;
        }
        ASSERT_TRUE(failure.has_value());
        EXPECT_EQ(failure->code, c.status);
        EXPECT_EQ(failure->userInfo["error"], c.error);
    }
    const auto wrongGrant = rawClient().Post("/token", "grant_type=password&client_id=stage-id",
                                             "application/x-www-form-urlencoded");
    ASSERT_TRUE(wrongGrant);
    EXPECT_EQ(wrongGrant->status, 400);
    EXPECT_EQ(KXJSON::parse(wrongGrant->body)["error"], "unsupported_grant_type");
}

TEST_F(SandboxRefusals, RESTCallsNeedAValidBearerToken) {
    ASSERT_FALSE(authenticate().has_value());
    const std::string guest = registerGuest();
    struct Case {
        const char* name;
        std::optional<std::string> authorization;
        const char* error;
    };
    for (const Case& c :
         std::vector<Case>{{"missing", std::string(), "unauthorized"},
                           {"another scheme", "Basic " + bearerToken(), "unauthorized"},
                           {"unknown", std::string("BEARER not-a-token"), "invalid_token"},
                           {"lower-case scheme", "bearer " + bearerToken(), nullptr}}) {
        SCOPED_TRACE(c.name);
        const auto answer =
            send("GET", "/ZandrelService/rest/bu/BU1/guests/" + guest, "", c.authorization);
        ASSERT_TRUE(answer);
        if (c.error == nullptr) {
            EXPECT_EQ(answer->status, 200);
            continue;
        }
        EXPECT_EQ(answer->status, 401);
        EXPECT_EQ(KXJSON::parse(answer->body)["error"], c.error);
    }
    // Tokens of a sandbox started with a lifetime of two seconds run out.
    sandbox.reset();
    startSandbox({"--token-lifetime", "2"});
    ASSERT_FALSE(authenticate().has_value());
    const std::string expired = bearerToken();
    std::this_thread::sleep_for(std::chrono::milliseconds(2200));
    const auto answer =
        send("GET", "/ZandrelService/rest/bu/BU1/guests/" + guest, "", "BEARER " + expired);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 401);
    EXPECT_EQ(KXJSON::parse(answer->body)["message"], "the bearer token has expired");
}

TEST_F(SandboxRefusals, BadRequestsGetAJSONErrorAndChangeNothing) {
    ASSERT_FALSE(authenticate().has_value());
    const std::string guest = registerGuest({{"languagePref", "en"}});
    const std::string base = "/ZandrelService/rest/bu/BU1";
    const std::string guestPath = base + "/guests/" + guest;
    const KXJSON before = get("/guests/" + guest).object;
    const std::string deep(100'000, '[');
    struct Case {
        const char* name;
        std::string method;
        std::string path;
        std::string body;
        int status;
    };
    const std::vector<Case> cases = {
        {"malformed JSON", "POST", guestPath, R"({"languagePref": "fr",)", 400},
        {"not an object", "POST", guestPath, R"(["languagePref"])", 400},
        {"a number for a string", "POST", guestPath, R"({"languagePref": 7})", 400},
        {"a string for an object", "POST", guestPath, R"({"buProperties": "x"})", 400},
        {"tags that are not strings", "POST", guestPath, R"({"tags": ["a", 1]})", 400},
        {"deep nesting", "POST", guestPath, deep, 400},
        {"another guest's id", "POST", guestPath, R"({"externalId": "other"})", 400},
        {"unknown channel", "POST", guestPath + "/profiles",
         R"({"address": {"channel": "FAX", "attributes": {}}})", 400},
        {"missing address attribute", "POST", guestPath + "/profiles",
         R"({"address": {"channel": "EMAIL", "attributes": {}}})", 400},
        {"a register that fails halfway", "POST", base + "/guests",
         R"({"externalId": "half", "deliveryProfiles": [{"address": {"channel": "SMS",
             "attributes": {"mdn": "1"}}}, {"address": 5}]})",
         400},
        {"an existing guest", "POST", base + "/guests", "{\"externalId\": \"" + guest + "\"}", 409},
        {"a body over 1 MiB", "POST", guestPath,
         "{\"languagePref\": \"" + std::string(1024 * 1024 + 1, 'x') + "\"}", 413},
        {"a bad page offset", "GET", guestPath + "/inboxes/inbox-1/messages?offset=-1&limit=5", "",
         400},
        {"a page too large", "GET", guestPath + "/inboxes/inbox-1/messages?offset=0&limit=5000", "",
         400},
        {"an unknown path", "GET", base + "/guests/" + guest + "/wallet", "", 404},
        {"no base path", "GET", "/guests/" + guest, "", 404},
        {"an unknown verb", "PATCH", guestPath, R"({"languagePref": "fr"})", 405},
        {"a verb the path does not take", "PUT", guestPath, R"({"languagePref": "fr"})", 405},
        {"a session document with wrong types", "POST", base + "/sessions",
         R"({"isClosed": "yes"})", 400},
        {"a list without a name", "POST", base + "/lists/", R"({"externalId": "x"})", 400},
        {"a list id with a blank", "POST", base + "/lists/",
         R"({"externalId": "a b", "name": "n"})", 400},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto answer = send(c.method, c.path, c.body);
        ASSERT_TRUE(answer) << "no answer";
        EXPECT_EQ(answer->status, c.status);
        const KXJSON error = KXJSON::parse(answer->body, nullptr, false);
        ASSERT_TRUE(error.is_object()) << answer->body;
        EXPECT_TRUE(error.contains("error")) << answer->body;
        EXPECT_EQ(error["status"], c.status) << answer->body;
    }
    EXPECT_EQ(get("/guests/" + guest).object, before);
    EXPECT_EQ(get("/guests/half").status, 404) << "a refused registration leaves nothing";
    EXPECT_EQ(get("/lists/x").status, 404);

    // Not refused: the library sends parameters as a JSON body with every verb, GET included,
    // and the connection still serves the next requests.
    EXPECT_EQ(call(&KXHTTPSessionManager::GET, "/guests/" + guest,
                   KXJSON{{"ignored", std::string(5000, 'x')}})
                  .status,
              200);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(get("/guests/" + guest).status, 200);
    }
}
