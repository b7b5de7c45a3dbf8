#include "KXProcess.h"
#include "KXTransportFixture.h"

#include <KXClientFramework/KXBackgroundTimer.h>
#include <KXClientFramework/KXOAuth2Client.h>
#include <KXClientFramework/KXOAuthCredential.h>

#include <map>

using namespace std::chrono_literals;

namespace {

class OAuth2Client : public KXTransportTest {
protected:
    KXOAuth2Client& client = KXOAuth2Client::client();

    void SetUp() override {
        client.initWithClientId("client-7", "secret-7");
        // Time passes between two readings of the clock, as it does on a real device.
        clock.setStepPerReading(1us);
    }

    std::string authenticate() {
        KXEventLog events;
        client.authenticateWithSuccess(events.done(), events.failure());
        waitForEvents(events, 1);
        EXPECT_EQ(events.count(), 1u);
        return events.seen.at(0);
    }

    std::optional<std::string> currentToken() {
        auto token = transport().bearerToken();
        return token ? token->token() : std::nullopt;
    }

    bool timerRunning() {
        KXBackgroundTimer* timer = client.backgroundTimer();
        return timer != nullptr && timer->isRunning();
    }
};

}  // namespace

TEST_F(OAuth2Client, AuthenticationPostsTheGrantAndStoresTokenAndCredentialOnlyOnSuccess) {
    // A refused grant stores nothing and starts no renewal timer.
    service.script("POST", "/token", KXScriptedAnswer::json(401, KXJSON::object()));
    EXPECT_EQ(authenticate().rfind("failure:401:", 0), 0u);
    EXPECT_FALSE(KXOAuthCredential::retrieveCredentialWithIdentifier(client.keychainId()));
    EXPECT_EQ(client.backgroundTimer(), nullptr);

    service.scriptToken("token-1", 3600);
    EXPECT_EQ(client.keychainId(), "KXOAuthCredentialServiceclient-7");
    EXPECT_EQ(authenticate(), "success");

    const auto requests = service.requestsTo("/token");
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].body, requests[0].body);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].headers.at("Content-Type"), "application/x-www-form-urlencoded");

    EXPECT_EQ(currentToken(), "token-1");
    auto stored = KXOAuthCredential::retrieveCredentialWithIdentifier(client.keychainId());
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->clientId(), "client-7");
    EXPECT_EQ(stored->clientSecret(), "secret-7");
    EXPECT_TRUE(timerRunning());
}

TEST_F(OAuth2Client, TheTokenLifetimeSetsTheRenewalTick) {
    // Nothing is scripted for /token here, so renewals that the timer starts fail and change
    // nothing that this test reads.
    const std::vector<std::pair<KXJSON, std::int64_t>> cases = {
        {3600, 47}, {"3600", 47}, {3600.0, 47}, {60, 0}, {180, 1}, {120, 0}, {-600, -8}};
    for (const auto& [expiresIn, ticks] : cases) {
        client.saveBearerToken(KXJSON{{"access_token", "t"}, {"expires_in", expiresIn}});
        EXPECT_EQ(client.expireInMinutes(), ticks) << expiresIn;
    }

    for (const KXJSON& response : {KXJSON{{"access_token", "forever"}, {"expires_in", nullptr}},
                                   KXJSON{{"access_token", "forever"}}}) {
        clock.set(std::chrono::system_clock::now());
        client.saveBearerToken(response);
        EXPECT_GT(client.expireInMinutes(), 50'000'000) << response;
        auto token = transport().bearerToken();
        ASSERT_TRUE(token);
        clock.advance(std::chrono::hours(24 * 365 * 100));
        EXPECT_FALSE(token->isExpired()) << response;
    }

    // A numeric token is taken as its decimal text; anything else counts as absent.
    client.saveBearerToken(KXJSON{{"access_token", 12345}, {"expires_in", 3600}});
    EXPECT_EQ(currentToken(), "12345");
    client.saveBearerToken(KXJSON{{"access_token", KXJSON::object()}, {"expires_in", 3600}});
    EXPECT_EQ(currentToken(), std::nullopt);
}

TEST_F(OAuth2Client, ATokenExpiresOnlyStrictlyAfterItsDate) {
    clock.setStepPerReading({});
    const auto now = clock.now();
    EXPECT_FALSE(KXBearerToken("t", now).isExpired());
    EXPECT_TRUE(KXBearerToken("t", now - 1ns).isExpired());
    EXPECT_FALSE(KXBearerToken("t", std::nullopt).isExpired());
    clock.advance(1ns);
    EXPECT_TRUE(KXBearerToken("t", now).isExpired());
}

TEST_F(OAuth2Client, TheRenewalComesOnTheTickThatReachesEightyPercent) {
    service.scriptToken("token-1", 3600);
    authenticate();
    ASSERT_EQ(client.expireInMinutes(), 47);
    // A new timer ticks at once; the next scheduled tick is a minute away.
    ASSERT_TRUE(waitFor([&] { return client.countOfMinutes() == 1; }));

    for (int tick = 2; tick <= 46; ++tick) {
        client.refreshBearerTokenIfNecessary();
    }
    drain();
    EXPECT_EQ(client.countOfMinutes(), 46);
    EXPECT_EQ(service.requestsTo("/token").size(), 1u);
    EXPECT_TRUE(timerRunning());

    service.scriptToken("token-2", 3600);
    client.refreshBearerTokenIfNecessary();  // the 47th
    EXPECT_FALSE(timerRunning()) << "the renewing tick suspends the timer";
    ASSERT_TRUE(waitFor([&] { return currentToken() == "token-2"; }));
    EXPECT_EQ(service.requestsTo("/token").size(), 2u);
    EXPECT_TRUE(timerRunning()) << "the saved token resumes it";
    EXPECT_EQ(client.expireInMinutes(), 47);
    EXPECT_LE(client.countOfMinutes(), 1) << "the count starts again";

    // A failed renewal leaves the timer suspended and the old token in place.
    service.script("POST", "/token", KXScriptedAnswer::json(503, KXJSON{{"error", "down"}}));
    auto sink = KXCapturingSink::install();
    client.setCountOfMinutes(46);
    client.refreshBearerTokenIfNecessary();
    ASSERT_TRUE(waitFor([&] { return logged(*sink, "Failed To Refresh Bearer Token"); }));
    EXPECT_FALSE(timerRunning());
    EXPECT_EQ(currentToken(), "token-2");
    EXPECT_EQ(service.requestsTo("/token").size(), 3u);
}

TEST_F(OAuth2Client, AShortLivedTokenIsRenewedOnTheSecondTickNotInALoop) {
    service.scriptToken("short", 1);
    authenticate();
    EXPECT_EQ(client.expireInMinutes(), 0);
    // The tick that comes at once when the timer resumes does not renew.
    ASSERT_TRUE(waitFor([&] { return client.countOfMinutes() == 1; }));
    platform->asioMainQueue().runFor(200ms);
    EXPECT_EQ(service.requestsTo("/token").size(), 1u);
    client.refreshBearerTokenIfNecessary();  // a minute later
    ASSERT_TRUE(waitFor([&] { return service.requestsTo("/token").size() == 2; }));
    platform->asioMainQueue().runFor(200ms);
    EXPECT_EQ(service.requestsTo("/token").size(), 2u);
}

TEST_F(OAuth2Client, RenewalUsesTheCredentialInTheKeychain) {
    service.scriptToken("renewed", 3600);
    ASSERT_TRUE(KXOAuthCredential::storeCredential(
        KXOAuthCredential::credentialWithClientId("kc-id", "kc-secret"), client.keychainId()));

    const auto refresh = [&] {
        std::shared_ptr<KXBearerToken> received;
        KXEventLog events;
        client.refreshBearerTokenWithSuccess(
            [&](const std::shared_ptr<KXBearerToken>& token) {
                received = token;
                events.succeeded();
            },
            events.failure());
        waitForEvents(events, 1);
        EXPECT_EQ(events.seen, std::vector<std::string>{"success"});
        return std::pair(received, kxtest::formFields(service.requestsTo("/token").back().body));
    };
    const auto [received, fields] = refresh();
    ASSERT_TRUE(received);
    EXPECT_EQ(received, transport().bearerToken());
    EXPECT_EQ(received->token(), "renewed");
    EXPECT_EQ(fields.at("client_id"), "kc-id");
    EXPECT_EQ(fields.at("client_secret"), "kc-secret");

    // Without a stored credential only the grant type and the scope go out.
    ASSERT_TRUE(KXOAuthCredential::deleteCredentialWithIdentifier(client.keychainId()));
    EXPECT_EQ(refresh().second,
              (std::map<std::string, std::string>{{"grant_type", "client_credentials"},
                                                  {"scope", "RETURN_ALL_CLIENT_SCOPES"}}));
}

TEST_F(OAuth2Client, ARequestInTheGateDuringTheFirstAuthenticationWaitsForItsToken) {
    // Nothing is in the keychain yet, as on a device's first start: a renewal of its own would
    // go out without credentials.
    service.scriptToken("first", 3600);
    service.script("GET", "/inbox", KXScriptedAnswer::json(200, KXJSON{{"messages", 0}}));
    int authenticated = 0;
    client.authenticateWithSuccess([&] { ++authenticated; }, {});
    KXCallOutcome outcome;
    start(&KXHTTPSessionManager::GET, "/inbox", nullptr, outcome);
    ASSERT_TRUE(runUntil([&] { return outcome.callbacks() > 0; }));
    drain();
    EXPECT_EQ(authenticated, 1);
    EXPECT_EQ(outcome.successes, 1);
    const auto tokenRequests = service.requestsTo("/token");
    ASSERT_EQ(tokenRequests.size(), 1u) << "the request waited for the authentication's token";
    EXPECT_EQ(kxtest::formFields(tokenRequests[0].body)["client_id"], "client-7");
    EXPECT_EQ(service.requestsTo("/inbox").at(0).headers.at("Authorization"), "BEARER first");
}
