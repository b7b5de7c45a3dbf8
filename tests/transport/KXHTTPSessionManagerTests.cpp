// The REST transport against a real HTTP service on loopback: status handling, bodies, request
// shape, faults, the token gate and the thread every callback arrives on.
#include "KXTransportFixture.h"

#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXOAuth2Client.h>
#include <KXClientFramework/KXSessionManager.h>
#include <KXClientFramework/KXTransportActivity.h>

#include <curl/curl.h>

using namespace std::chrono_literals;

namespace {

class HTTPSessionManager : public KXTransportTest {
protected:
    void SetUp() override { giveToken(); }
};

}  // namespace

TEST_F(HTTPSessionManager, StatusCodesFrom200To299SucceedAndOthersFailWithTheirBody) {
    const std::vector<std::pair<int, bool>> cases = {
        {200, true},  {201, true},  {204, true},  {299, true},  {300, false},
        {304, false}, {400, false}, {401, false}, {404, false}, {500, false}};
    for (const auto& [status, succeeds] : cases) {
        const std::string path = "/status/" + std::to_string(status);
        service.script("GET", path, KXScriptedAnswer::json(status, KXJSON{{"status", status}}));
        const KXCallOutcome outcome = get(path);
        EXPECT_EQ(outcome.successes, succeeds ? 1 : 0) << status;
        EXPECT_EQ(outcome.failures, succeeds ? 0 : 1) << status;
        ASSERT_TRUE(outcome.response) << status;
        EXPECT_EQ(outcome.response->statusCode, status);
        if (!succeeds) {
            ASSERT_TRUE(outcome.error) << status;
            EXPECT_EQ(outcome.error->domain, NSOSStatusErrorDomain);
            EXPECT_EQ(outcome.error->code, status);
        }
        if (status >= 400) {  // an error answer's JSON body comes with it
            EXPECT_EQ(outcome.error->userInfo, (KXJSON{{"status", status}})) << status;
            EXPECT_EQ(outcome.response->body, KXJSON({{"status", status}}).dump()) << status;
        }
    }
    // A body that is not JSON leaves the user info empty.
    service.script("GET", "/fail-text", KXScriptedAnswer::text(401, "denied"));
    const KXCallOutcome text = get("/fail-text");
    ASSERT_TRUE(text.error);
    EXPECT_EQ(text.error->code, 401);
    EXPECT_TRUE(text.error->userInfo.is_null());

    // The edges that no well-behaved server sends as a final answer.
    KXHTTPResponse response;
    for (long status : {0L, 199L, 300L, -1L}) {
        response.statusCode = status;
        EXPECT_FALSE(transport().httpSuccess(&response)) << status;
    }
    EXPECT_FALSE(transport().httpSuccess(nullptr));
}

TEST_F(HTTPSessionManager, BodiesThatAreNotAJSONObjectOrArraySucceedWithANullObject) {
    service.script("GET", "/empty", KXScriptedAnswer::empty(204));
    service.script("GET", "/text", KXScriptedAnswer::text(200, "<html>hello</html>", "text/html"));
    service.script("GET", "/fragment", KXScriptedAnswer::text(200, "42", "application/json"));
    service.script("GET", "/broken",
                   KXScriptedAnswer::text(200, "{\"a\": [1, 2", "application/json"));
    service.script("GET", "/array", KXScriptedAnswer::json(200, KXJSON::array({1, 2, 3})));
    service.script("GET", "/object", KXScriptedAnswer::json(200, KXJSON{{"name", "inbox"}}));

    for (const char* path : {"/empty", "/text", "/fragment", "/broken"}) {
        const KXCallOutcome outcome = get(path);
        EXPECT_EQ(outcome.successes, 1) << path;
        EXPECT_TRUE(outcome.object.is_null()) << path;
    }
    EXPECT_EQ(get("/array").object, KXJSON::array({1, 2, 3}));
    EXPECT_EQ(get("/object").object, (KXJSON{{"name", "inbox"}}));
}

TEST_F(HTTPSessionManager, JSONRequestsCarryTheTokenHeadersAndABodyForEveryMethod) {
    const KXJSON parameters = {{"offset", 0}, {"name", "a b"}};
    for (const char* route : {"/get", "/post", "/put", "/delete", "/bare"}) {
        for (const char* method : {"GET", "POST", "PUT", "DELETE"}) {
            service.script(method, route, KXScriptedAnswer::json(200, KXJSON::object()));
        }
    }
    call(&KXHTTPSessionManager::GET, "/get", parameters);
    call(&KXHTTPSessionManager::POST, "/post", parameters);
    call(&KXHTTPSessionManager::PUT, "/put", parameters);
    call(&KXHTTPSessionManager::DELETE, "/delete", parameters);
    call(&KXHTTPSessionManager::POST, "/bare");

    const auto requests = service.requests();
    ASSERT_EQ(requests.size(), 5u);
    const char* methods[] = {"GET", "POST", "PUT", "DELETE"};
    for (std::size_t i = 0; i < 4; ++i) {
        const KXRecordedRequest& request = requests[i];
        EXPECT_EQ(request.method, methods[i]);
        EXPECT_EQ(request.body, parameters.dump()) << "compact JSON body for " << methods[i];
        EXPECT_EQ(request.headers.at("Content-Type"), "application/json");
        EXPECT_EQ(request.headers.at("Accept"), "application/json");
        EXPECT_EQ(request.headers.at("Authorization"), "BEARER test-token");
    }
    EXPECT_TRUE(requests[4].body.empty()) << "no parameters, no body";
    EXPECT_EQ(requests[4].path, "/bare");
}

TEST_F(HTTPSessionManager, FormRequestsAreUnencodedAndCarryNoTokenAndNoJSONAccept) {
    EXPECT_EQ(transport().serialize(KXJSON{{"a", "b c"}}), "a=b c");
    EXPECT_EQ(transport().serialize(KXJSON{{"n", 5}, {"s", "x&y=z"}}), "n=5&s=x&y=z");
    EXPECT_EQ(transport().serialize(nullptr), "");

    giveToken("not-for-the-token-endpoint");
    const KXURLRequest built =
        transport().authorizationRequestWithURL("http://h/token", KXJSON{{"a", "b c"}});
    EXPECT_EQ(built.HTTPMethod, "POST");
    EXPECT_EQ(built.HTTPBody, "a=b c");
    EXPECT_EQ(built.timeoutInterval, 10.0);
    EXPECT_EQ(built.allHTTPHeaderFields,
              (KXHTTPHeaders{{"Content-Type", "application/x-www-form-urlencoded"}}));

    service.script("POST", "/form", KXScriptedAnswer::json(200, KXJSON{{"ok", true}}));
    KXCallOutcome outcome;
    transport().AUTHORIZATION(
        service.baseURL() + "/form", KXJSON{{"a", "b c"}},
        [&](std::shared_ptr<const KXHTTPResponse>, const KXJSON& object) {
            ++outcome.successes;
            outcome.allOnMainThread &= platform->mainQueue().isMainThread();
            outcome.object = object;
        },
        [&](std::shared_ptr<const KXHTTPResponse>, const KXError&) { ++outcome.failures; });
    ASSERT_TRUE(runUntil([&] { return outcome.callbacks() > 0; }));
    EXPECT_EQ(outcome.successes, 1);
    EXPECT_TRUE(outcome.allOnMainThread);
    EXPECT_EQ(outcome.object, (KXJSON{{"ok", true}}));

    const auto requests = service.requestsTo("/form");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].body, "a=b c");
    EXPECT_EQ(requests[0].headers.at("Content-Type"), "application/x-www-form-urlencoded");
    const auto accept = requests[0].headers.find("Accept");
    EXPECT_TRUE(accept == requests[0].headers.end() || accept->second != "application/json");
    EXPECT_EQ(requests[0].headers.count("Authorization"), 0u);
}

TEST_F(HTTPSessionManager, PathsAreEscapedAndResolvedAgainstTheBaseURL) {
    for (const char* route : {"/KXFrontier-stg/guests/a b", "/relative", "/absolute", "/x"}) {
        service.script("GET", route, KXScriptedAnswer::json(200, KXJSON::object()));
    }
    get("/KXFrontier-stg/guests/a b?offset=0&limit=20");
    get("relative");
    get(service.baseURL() + "/absolute");
    transport().setBaseURL(service.baseURL() + "/ignored/base/path");
    get("/x");

    const auto requests = service.requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0].path, "/KXFrontier-stg/guests/a%20b?offset=0&limit=20");
    EXPECT_EQ(requests[1].path, "/relative");
    EXPECT_EQ(requests[2].path, "/absolute");
    EXPECT_EQ(requests[3].path, "/x") << "a path beginning with / replaces the base's path";
}

TEST_F(HTTPSessionManager, AbsoluteURLsFollowEachBaseURLAndResolveDotSegments) {
    struct Case {
        std::string base, path, expected;
    };
    // Bases alternate so that a remembered base is never reused for the wrong one.
    const std::vector<Case> cases = {
        {"http://127.0.0.1:9650", "/a/b?x=1#f", "http://127.0.0.1:9650/a/b?x=1#f"},
        {"http://h.invalid/base/path?q=1", "/a", "http://h.invalid/a"},
        {"http://127.0.0.1:9650", "/c", "http://127.0.0.1:9650/c"},
        {"http://h.invalid/base/", "/a/./b/../c", "http://h.invalid/a/c"},
        {"http://h.invalid/base/", "/a/.hidden/..x/.", "http://h.invalid/a/.hidden/..x/"},
        {"http://h.invalid/base/", "/a/.hidden/..x?y=/../",
         "http://h.invalid/a/.hidden/..x?y=/../"},
        {"http://h.invalid/base/", "rel", "http://h.invalid/base/rel"},
        {"http://h.invalid/base/", "//other.invalid/p", "http://other.invalid/p"},
        {"https://h.invalid:8443", "/", "https://h.invalid:8443/"},
        {"HTTP://H.invalid", "/Up", "http://H.invalid/Up"},
        {"not a base URL", "/a", "not a base URL/a"},
        {"http://127.0.0.1:9650", "/c d", "http://127.0.0.1:9650/c%20d"},
        {"http://127.0.0.1:9650", "/t?tag=a%26b%2x%", "http://127.0.0.1:9650/t?tag=a%26b%252x%25"},
    };
    for (const Case& c : cases) {
        transport().setBaseURL(c.base);
        EXPECT_EQ(transport().absoluteURLForPath(c.path), c.expected) << c.base << " + " << c.path;
    }
}

TEST_F(HTTPSessionManager, ResponseHeadersAreFoundWhateverTheirCase) {
    KXScriptedAnswer answer = KXScriptedAnswer::empty(201);
    answer.headers = {{"newrecordid", "guest-77"}, {"X-Many", "a"}, {"x-many", "b"}};
    service.script("POST", "/guests", answer);
    const KXCallOutcome outcome = call(&KXHTTPSessionManager::POST, "/guests", KXJSON::object());
    ASSERT_TRUE(outcome.response);
    EXPECT_EQ(outcome.response->valueForHTTPHeaderField("newRecordId"), "guest-77");
    EXPECT_EQ(outcome.response->headers.at("NEWRECORDID"), "guest-77");
    EXPECT_EQ(outcome.response->valueForHTTPHeaderField("X-Many"), "a, b");
    EXPECT_EQ(outcome.response->valueForHTTPHeaderField("Absent"), "");
}

TEST_F(HTTPSessionManager, TransportFailuresGiveAURLErrorWithoutResponse) {
    service.script("GET", "/dropped", KXScriptedAnswer::dropped());
    service.script("GET", "/garbage",
                   KXScriptedAnswer::garbageBytes("\x01\x02 not http at all\r\n\r\n"));
    KXScriptedAnswer truncated =
        KXScriptedAnswer::json(200, KXJSON{{"padding", std::string(4000, 'x')}});
    truncated.fault = KXScriptedAnswer::Fault::TruncatedBody;
    service.script("GET", "/truncated", truncated);

    for (const char* path : {"/dropped", "/garbage", "/truncated"}) {
        const KXCallOutcome outcome = get(path);
        EXPECT_EQ(outcome.failures, 1) << path;
        EXPECT_FALSE(outcome.response) << path;
        ASSERT_TRUE(outcome.error) << path;
        EXPECT_EQ(outcome.error->domain, NSURLErrorDomain) << path;
        EXPECT_NE(outcome.error->code, 0) << path;
        EXPECT_FALSE(outcome.error->localizedDescription().empty()) << path;
    }

    // Nothing listens on a port that was just released.
    int freePort = 0;
    {
        KXLoopbackService gone;
        freePort = gone.port();
    }
    const KXCallOutcome refused = get("http://127.0.0.1:" + std::to_string(freePort) + "/x");
    ASSERT_TRUE(refused.error);
    EXPECT_EQ(refused.error->domain, NSURLErrorDomain);
    EXPECT_EQ(refused.error->code, CURLE_COULDNT_CONNECT);
    EXPECT_EQ(refused.error->userInfo.at("NSErrorFailingURLStringKey"),
              "http://127.0.0.1:" + std::to_string(freePort) + "/x");
}

TEST_F(HTTPSessionManager, ASlowAnswerTimesOut) {
    KXSessionConfiguration configuration = transport().configuration();
    EXPECT_EQ(configuration.timeoutIntervalForRequest, 10.0);
    configuration.timeoutIntervalForRequest = 0.3;
    transport().setConfiguration(configuration);

    KXScriptedAnswer slow = KXScriptedAnswer::json(200, KXJSON::object());
    slow.delay = 5s;
    service.script("GET", "/slow", slow);
    const KXCallOutcome outcome = get("/slow");
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->domain, NSURLErrorDomain);
    EXPECT_EQ(outcome.error->code, CURLE_OPERATION_TIMEDOUT);
}

TEST_F(HTTPSessionManager, ABodyOverTheLimitIsATransportErrorAndTheNextCallStillWorks) {
    KXSessionConfiguration configuration = transport().configuration();
    configuration.maximumResponseBodySize = 1024;
    transport().setConfiguration(configuration);

    service.script("GET", "/huge",
                   KXScriptedAnswer::json(200, KXJSON{{"blob", std::string(8192, 'x')}}));
    KXScriptedAnswer chunked;  // no Content-Length known up front: the limit applies while reading
    chunked.fault = KXScriptedAnswer::Fault::Garbage;
    chunked.garbage = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n" +
                      KXJSON{{"blob", std::string(8192, 'y')}}.dump();
    service.script("GET", "/unsized", chunked);
    service.script("GET", "/small", KXScriptedAnswer::json(200, KXJSON{{"ok", true}}));

    for (const char* path : {"/huge", "/unsized"}) {
        const KXCallOutcome outcome = get(path);
        ASSERT_TRUE(outcome.error) << path;
        EXPECT_EQ(outcome.error->domain, NSURLErrorDomain);
        EXPECT_EQ(outcome.error->code, CURLE_FILESIZE_EXCEEDED) << path;
    }
    EXPECT_EQ(get("/small").object, (KXJSON{{"ok", true}}));
}

TEST_F(HTTPSessionManager, ManyConcurrentCallsEachCompleteOnceOnTheMainThread) {
    service.script("GET", "/inbox",
                   KXScriptedAnswer::json(200, KXJSON{{"messages", KXJSON::array()}}));
    service.script("POST", "/sessions", KXScriptedAnswer::json(500, KXJSON{{"error", "busy"}}));
    constexpr int kCalls = 40;
    std::vector<KXCallOutcome> outcomes(kCalls);
    for (int i = 0; i < kCalls; ++i) {
        if (i % 2 == 0) {
            start(&KXHTTPSessionManager::GET, "/inbox", nullptr, outcomes[i]);
        } else {
            start(&KXHTTPSessionManager::POST, "/sessions", KXJSON{{"i", i}}, outcomes[i]);
        }
    }
    EXPECT_EQ(KXTransportActivity::requestsUnderWay(), static_cast<std::size_t>(kCalls));
    ASSERT_TRUE(runUntil([&] {
        for (const auto& outcome : outcomes) {
            if (outcome.callbacks() == 0) {
                return false;
            }
        }
        return true;
    }));
    drain();
    EXPECT_EQ(KXTransportActivity::requestsUnderWay(), 0u) << "every completion has run";
    for (int i = 0; i < kCalls; ++i) {
        EXPECT_EQ(outcomes[i].callbacks(), 1) << i;
        EXPECT_EQ(outcomes[i].successes, i % 2 == 0 ? 1 : 0) << i;
        EXPECT_TRUE(outcomes[i].allOnMainThread) << i;
    }
    EXPECT_EQ(service.requests().size(), static_cast<std::size_t>(kCalls));
}

TEST_F(HTTPSessionManager, ANewTokenKeepsTheConnectionAlive) {
    service.script("GET", "/a", KXScriptedAnswer::json(200, KXJSON::object()));
    get("/a");
    giveToken("second-token");
    get("/a");
    giveToken("third-token");
    get("/a");
    const auto requests = service.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[1].headers.at("Authorization"), "BEARER second-token");
    EXPECT_EQ(requests[2].headers.at("Authorization"), "BEARER third-token");
    EXPECT_EQ(service.connectionCount(), 1u);
    EXPECT_EQ(transport().session()->configuration().HTTPAdditionalHeaders,
              (KXHTTPHeaders{{"Authorization", "BEARER third-token"}}));
}

TEST_F(HTTPSessionManager, TheActivityIndicatorFollowsTheConfigurationAndHidesAfterwards) {
    service.script("GET", "/a", KXScriptedAnswer::json(200, KXJSON::object()));
    KXApplication& application = platform->application();

    KXConfig::defaultConfig().setNetworkActivityIndicatorEnabled(true);
    KXCallOutcome outcome;
    start(&KXHTTPSessionManager::GET, "/a", nullptr, outcome);
    EXPECT_TRUE(application.isNetworkActivityIndicatorVisible());
    ASSERT_TRUE(runUntil([&] { return outcome.callbacks() > 0; }));
    EXPECT_FALSE(application.isNetworkActivityIndicatorVisible());

    // A disabled setting actively hides an indicator someone else showed.
    KXConfig::defaultConfig().setNetworkActivityIndicatorEnabled(false);
    application.setNetworkActivityIndicatorVisible(true);
    KXCallOutcome second;
    start(&KXHTTPSessionManager::GET, "/a", nullptr, second);
    EXPECT_FALSE(application.isNetworkActivityIndicatorVisible());
    ASSERT_TRUE(runUntil([&] { return second.callbacks() > 0; }));
}

TEST_F(HTTPSessionManager, RESTLoggingWritesRequestsAndResponses) {
    auto sink = KXCapturingSink::install();
    kxLogLevel = 4;
    service.script("GET", "/logged", KXScriptedAnswer::json(200, KXJSON::object()));

    get("/logged");
    EXPECT_FALSE(logged(*sink, "Request URL:"));

    KXClientFramework::setRESTfulServiceLogging(true);
    get("/logged", KXJSON{{"page", 1}});
    EXPECT_TRUE(logged(*sink, "\nRequest Headers: "));
    EXPECT_TRUE(logged(*sink, "\nRequest URL: " + service.baseURL() + "/logged"));
    EXPECT_TRUE(logged(*sink, "\nRequest Parameters: {\"page\":1}"));
    EXPECT_TRUE(logged(*sink, "\nResponse StatusCode: 200"));
}

// The token gate: what happens when the transport has no valid token.
class TokenGate : public KXTransportTest {
protected:
    void SetUp() override {
        KXOAuth2Client::client().initWithClientId("gate-client", "gate-secret");
        service.script("GET", "/inbox", KXScriptedAnswer::json(200, KXJSON{{"messages", 0}}));
    }
};

TEST_F(TokenGate, WithoutATokenOneIsFetchedFirstAndThenUsed) {
    service.scriptToken("fresh-token");
    const KXCallOutcome outcome = get("/inbox");
    EXPECT_EQ(outcome.successes, 1);

    const auto requests = service.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].path, "/token");
    EXPECT_EQ(requests[1].path, "/inbox");
    EXPECT_EQ(requests[1].headers.at("Authorization"), "BEARER fresh-token");
    ASSERT_TRUE(transport().bearerToken());
    EXPECT_EQ(transport().bearerToken()->token(), "fresh-token");

    // A valid token is used as it is; an expired one is replaced before the request.
    get("/inbox");
    EXPECT_EQ(service.requestsTo("/token").size(), 1u);
    service.scriptToken("renewed-token");
    transport().setBearerToken(std::make_shared<KXBearerToken>("stale-token", clock.now() - 1s));
    get("/inbox");
    const auto inbox = service.requestsTo("/inbox");
    ASSERT_EQ(inbox.size(), 3u);
    EXPECT_EQ(inbox[1].headers.at("Authorization"), "BEARER fresh-token");
    EXPECT_EQ(inbox[2].headers.at("Authorization"), "BEARER renewed-token");
    EXPECT_EQ(service.requestsTo("/token").size(), 2u);
}

TEST_F(TokenGate, ATokenFailureReachesTheCallerWithoutAResponseAndIsLogged) {
    auto sink = KXCapturingSink::install();
    service.script("POST", "/token",
                   KXScriptedAnswer::json(401, KXJSON{{"error", "invalid_client"}}));
    service.script("POST", "/token", KXScriptedAnswer::dropped());

    const KXCallOutcome rejected = get("/inbox");
    ASSERT_TRUE(rejected.error);
    EXPECT_FALSE(rejected.response);
    EXPECT_EQ(rejected.error->domain, NSOSStatusErrorDomain);
    EXPECT_EQ(rejected.error->code, 401);
    EXPECT_EQ(rejected.error->userInfo, (KXJSON{{"error", "invalid_client"}}));
    EXPECT_TRUE(logged(*sink, "[ERROR] "));
    EXPECT_TRUE(logged(*sink, "ERROR: Error Domain=NSOSStatusErrorDomain Code=401"));

    const KXCallOutcome unreachable = get("/inbox");
    ASSERT_TRUE(unreachable.error);
    EXPECT_FALSE(unreachable.response);
    EXPECT_EQ(unreachable.error->domain, NSURLErrorDomain);

    EXPECT_TRUE(service.requestsTo("/inbox").empty()) << "no request goes out without a token";
    EXPECT_FALSE(transport().bearerToken());
}

TEST_F(TokenGate, ATokenAnswerWithoutJSONLeavesTheRequestWaitingForever) {
    service.script("POST", "/token", KXScriptedAnswer::text(200, "not json"));
    KXCallOutcome outcome;
    start(&KXHTTPSessionManager::GET, "/inbox", nullptr, outcome);
    ASSERT_TRUE(service.waitForRequests(1, kPatience));
    // Let the token answer reach the main queue and be dropped there.
    platform->asioMainQueue().runFor(300ms);
    EXPECT_EQ(outcome.callbacks(), 0);
    EXPECT_FALSE(transport().bearerToken());
    EXPECT_TRUE(service.requestsTo("/inbox").empty());
    EXPECT_EQ(KXTransportActivity::requestsUnderWay(), 1u) << "the waiting request never ends";
    EXPECT_EQ(KXTransportActivity::requestsWaitingForToken(), 1u);

    // The dropped fetch does not hold up the next request: it asks for a token of its own.
    service.scriptToken("later");
    EXPECT_EQ(get("/inbox").successes, 1);
    EXPECT_EQ(service.requestsTo("/token").size(), 2u);
    EXPECT_EQ(outcome.callbacks(), 0);
}
