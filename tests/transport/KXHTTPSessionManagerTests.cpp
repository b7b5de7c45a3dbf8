#include "KXTransportFixture.h"

#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXSessionManager.h>
#include <KXClientFramework/KXTransportActivity.h>

#include <curl/curl.h>

#include <array>
#include <tuple>

using namespace std::chrono_literals;

namespace {

class HTTPSessionManager : public KXTransportTest {
protected:
    void SetUp() override { giveToken(); }
};

}  // namespace

TEST_F(HTTPSessionManager, Only2xxSucceedsWithAnObjectOrArrayAndOthersFailWithTheirBody) {
    using A = KXScriptedAnswer;
    const KXJSON none;
    struct Row {
        KXScriptedAnswer answer;
        KXJSON expected;  // the object of a success, the user info of a failure
        std::string version = "1.1";
    };
    const std::vector<Row> rows = {
        {A::json(200, {{"status", 200}}), {{"status", 200}}},
        {A::json(299, KXJSON::array({1, 2, 3})), KXJSON::array({1, 2, 3})},
        // Bodies that are not a JSON object or array succeed with a null object.
        {A::empty(204), none},
        {A::text(200, "<html>hello</html>", "text/html"), none},
        {A::text(200, "42", "application/json"), none},
        {A::empty(300), none},
        {A::json(304, {{"status", 304}}), none},
        {A::json(400, {{"status", 400}}), {{"status", 400}}},
        {A::json(404, KXJSON::array({"gone"})), KXJSON::array({"gone"})},
        {A::text(401, "denied"), none},  // a body that is not JSON leaves the user info empty
        {A::garbageBytes("HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\n{}"), KXJSON::object(),
         "1.0"},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        const Row& row = rows[i];
        const std::string path = "/status/" + std::to_string(i);
        SCOPED_TRACE(path + " answered " + std::to_string(row.answer.status));
        service.script("GET", path, row.answer);
        const KXCallOutcome outcome = get(path);
        ASSERT_TRUE(outcome.response);
        EXPECT_EQ(outcome.response->statusCode, row.answer.status);
        EXPECT_EQ(outcome.response->HTTPVersion, row.version);
        if (row.answer.status < 300) {
            EXPECT_EQ(outcome.successes, 1);
            EXPECT_EQ(outcome.object, row.expected);
        } else {
            ASSERT_TRUE(outcome.error);
            EXPECT_EQ(outcome.error->domain, NSOSStatusErrorDomain);
            EXPECT_EQ(outcome.error->code, row.answer.status);
            EXPECT_EQ(outcome.error->userInfo, row.expected);
            EXPECT_EQ(outcome.response->body, row.answer.status == 304 ? "" : row.answer.body);
        }
    }

    // The edges that no well-behaved server sends as a final answer.
    KXHTTPResponse response;
    for (long status : {0L, 199L, 300L, -1L}) {
        response.statusCode = status;
        EXPECT_FALSE(transport().httpSuccess(&response)) << status;
    }
    EXPECT_FALSE(transport().httpSuccess(nullptr));
}

TEST_F(HTTPSessionManager, JSONRequestsCarryTheTokenHeadersAndABodyForEveryMethod) {
    const KXJSON parameters = {{"offset", 0}, {"name", "a b"}};
    const std::vector<std::tuple<Verb, std::string, KXJSON>> calls = {
        {&KXHTTPSessionManager::GET, "GET", parameters},
        {&KXHTTPSessionManager::POST, "POST", parameters},
        {&KXHTTPSessionManager::PUT, "PUT", parameters},
        {&KXHTTPSessionManager::DELETE, "DELETE", parameters},
        {&KXHTTPSessionManager::POST, "POST", nullptr}};
    service.scriptEveryRoute(KXScriptedAnswer::json(200, KXJSON::object()));
    for (const auto& [verb, method, sent] : calls) {
        SCOPED_TRACE(method + " " + sent.dump());
        giveToken("token-" + method);  // a new token keeps the connection alive
        call(verb, "/call", sent);
        const KXRecordedRequest request = service.requests().back();
        EXPECT_EQ(request.method, method);
        // Compact JSON, and no body without parameters.
        EXPECT_EQ(request.body, sent.is_null() ? "" : sent.dump());
        EXPECT_EQ(request.headers.at("Content-Type"), "application/json");
        EXPECT_EQ(request.headers.at("Accept"), "application/json");
        EXPECT_EQ(request.headers.at("Authorization"), "BEARER token-" + method);
    }
    EXPECT_EQ(service.connectionCount(), 1u);
    EXPECT_EQ(transport().session()->configuration().HTTPAdditionalHeaders,
              (KXHTTPHeaders{{"Authorization", "BEARER token-POST"}}));
}

TEST_F(HTTPSessionManager, FormRequestsAreUnencodedAndCarryNoTokenAndNoJSONAccept) {
    EXPECT_EQ(transport().serialize(KXJSON{{"n", 5}, {"s", "x&y=z"}}), "n=5&s=x&y=z");
    EXPECT_EQ(transport().serialize(nullptr), "");

    giveToken("not-for-the-token-endpoint");
    service.script("POST", "/form", KXScriptedAnswer::json(200, KXJSON{{"ok", true}}));
    EXPECT_EQ(call(&KXHTTPSessionManager::AUTHORIZATION, service.baseURL() + "/form",
                   KXJSON{{"a", "b c"}})
                  .object,
              (KXJSON{{"ok", true}}));
    const auto requests = service.requestsTo("/form");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].body, "a=b c");
    EXPECT_EQ(requests[0].headers.at("Content-Type"), "application/x-www-form-urlencoded");
    const auto accept = requests[0].headers.find("Accept");
    EXPECT_TRUE(accept == requests[0].headers.end() || accept->second != "application/json");
    EXPECT_EQ(requests[0].headers.count("Authorization"), 0u);
}

TEST_F(HTTPSessionManager, AbsoluteURLsFollowEachBaseURLAndResolveDotSegments) {
    // The base, the path and the URL; bases alternate so that a remembered base is never reused.
    const std::vector<std::array<std::string, 3>> cases = {
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
    for (const auto& [base, path, expected] : cases) {
        transport().setBaseURL(base);
        EXPECT_EQ(transport().absoluteURLForPath(path), expected) << base << " + " << path;
    }
    // The request goes where the path resolves to.
    service.script("GET", "/guests/a b", KXScriptedAnswer::json(200, KXJSON::object()));
    transport().setBaseURL(service.baseURL() + "/ignored/base/path");
    get("/guests/a b?offset=0&limit=20");
    EXPECT_EQ(service.requests().at(0).path, "/guests/a%20b?offset=0&limit=20");
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

// Dropped, truncated, over-long and silent answers are in the fault matrix; these are the
// failures it does not produce.
TEST_F(HTTPSessionManager, TransportFailuresGiveAURLErrorWithoutResponse) {
    EXPECT_EQ(transport().configuration().timeoutIntervalForRequest, 10.0);
    KXSessionConfiguration configuration = transport().configuration();
    configuration.maximumResponseBodySize = 1024;
    transport().setConfiguration(configuration);
    service.script("GET", "/garbage",
                   KXScriptedAnswer::garbageBytes("\x01\x02 not http at all\r\n\r\n"));
    // No Content-Length known up front: the limit applies while reading.
    service.script(
        "GET", "/unsized",
        KXScriptedAnswer::garbageBytes("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n" +
                                       KXJSON{{"blob", std::string(8192, 'y')}}.dump()));
    // Nothing listens on the port of a service that is gone.
    const std::string refused =
        "http://127.0.0.1:" + std::to_string(KXLoopbackService().port()) + "/x";
    const std::vector<std::pair<std::string, std::int64_t>> rows = {
        {"/garbage", CURLE_UNSUPPORTED_PROTOCOL},
        {"/unsized", CURLE_FILESIZE_EXCEEDED},
        {refused, CURLE_COULDNT_CONNECT}};
    for (const auto& [path, code] : rows) {
        SCOPED_TRACE(path);
        const KXCallOutcome outcome = get(path);
        EXPECT_FALSE(outcome.response);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(outcome.error->domain, NSURLErrorDomain);
        EXPECT_EQ(outcome.error->code, code);
        EXPECT_FALSE(outcome.error->localizedDescription().empty());
    }
    EXPECT_EQ(get(refused).error->userInfo.at("NSErrorFailingURLStringKey"), refused);
    // The transport is still usable afterwards.
    service.script("GET", "/small", KXScriptedAnswer::json(200, KXJSON{{"ok", true}}));
    EXPECT_EQ(get("/small").object, (KXJSON{{"ok", true}}));
}

TEST_F(HTTPSessionManager, ManyConcurrentCallsEachCompleteOnceOnTheMainThread) {
    service.script("GET", "/inbox",
                   KXScriptedAnswer::json(200, KXJSON{{"messages", KXJSON::array()}}));
    service.script("POST", "/sessions", KXScriptedAnswer::json(500, KXJSON{{"error", "busy"}}));
    constexpr int kCalls = 40;
    std::vector<KXCallOutcome> outcomes(kCalls);
    for (int i = 0; i < kCalls; ++i) {
        const bool read = i % 2 == 0;
        start(read ? &KXHTTPSessionManager::GET : &KXHTTPSessionManager::POST,
              read ? "/inbox" : "/sessions", read ? KXJSON() : KXJSON{{"i", i}}, outcomes[i]);
    }
    EXPECT_EQ(KXTransportActivity::requestsUnderWay(), static_cast<std::size_t>(kCalls));
    ASSERT_TRUE(runUntil([&] {
        return std::all_of(outcomes.begin(), outcomes.end(),
                           [](const KXCallOutcome& o) { return o.callbacks() > 0; });
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
