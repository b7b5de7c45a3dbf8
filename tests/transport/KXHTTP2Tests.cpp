// A real HTTP/2 server over TLS: nghttpd with a throw-away certificate for 127.0.0.1.
#include "KXHTTP2Server.h"
#include "KXSelfSignedCertificate.h"
#include "KXTransportFixture.h"

#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXOAuth2Client.h>

#include <curl/curl.h>

#include <numeric>
#include <tuple>

namespace {

class HTTP2OverTLS : public KXTransportTest {
protected:
    KXHTTP2Server server;

    HTTP2OverTLS() {
        kxtest::pointServiceAt(server.baseURL());
        server.addDocument("/inbox.json", R"({"messages":[]})");
    }

    /// Makes the shared transport trust only the authorities in `file` (empty: the system's).
    void trust(const std::filesystem::path& file) {
        KXSessionConfiguration configuration = transport().configuration();
        configuration.certificateAuthorityFile = file;
        transport().setConfiguration(configuration);
    }
};

std::string describe(const KXCallOutcome& outcome) {
    return outcome.error ? outcome.error->description() : std::string("no error");
}

}  // namespace

TEST_F(HTTP2OverTLS, OnlyTheConfiguredAuthoritiesAreTrustedForTheTokenAndTheCalls) {
    KXOAuth2Client::client().initWithClientId("kiosk-client", "kiosk-secret");
    server.addDocument("/token", R"({"access_token":"h2-token","expires_in":3600})");
    trust(server.certificateFile());
    // Leaves a verified connection to the server in the shared connection cache.
    const KXCallOutcome trusted = get("/inbox.json");
    ASSERT_EQ(trusted.successes, 1) << describe(trusted);
    EXPECT_EQ(trusted.response->HTTPVersion, "2");
    EXPECT_EQ(trusted.object, (KXJSON{{"messages", KXJSON::array()}}));
    // The token came over the same trust settings, and the call carried it.
    const std::string log = server.log();
    EXPECT_NE(log.find(":path: /token"), std::string::npos);
    EXPECT_NE(log.find("authorization: BEARER h2-token"), std::string::npos);

    const std::filesystem::path scratch = server.scratchDirectory();
    const KXSelfSignedCertificate stranger = KXSelfSignedCertificate::create(scratch, "stranger");
    const std::vector<std::tuple<std::filesystem::path, CURLcode, const char*>> cases = {
        {"", CURLE_PEER_FAILED_VERIFICATION, "the system's store"},
        {stranger.certificateFile, CURLE_PEER_FAILED_VERIFICATION, "another certificate"},
        {scratch / "missing.crt", CURLE_SSL_CACERT_BADFILE, "a missing file"},
    };
    for (const auto& [file, code, what] : cases) {
        trust(file);
        const KXCallOutcome outcome = get("/inbox.json");
        EXPECT_EQ(outcome.failures, 1) << what;
        EXPECT_FALSE(outcome.response) << what;
        ASSERT_TRUE(outcome.error) << what;
        EXPECT_EQ(outcome.error->domain, NSURLErrorDomain) << what;
        EXPECT_EQ(outcome.error->code, code) << what << ": " << describe(outcome);
        EXPECT_FALSE(outcome.error->localizedDescription().empty()) << what;
    }

    trust(server.certificateFile());
    const KXCallOutcome again = get("/inbox.json");
    ASSERT_EQ(again.successes, 1) << describe(again);
    EXPECT_EQ(again.response->HTTPVersion, "2");
    const std::vector<std::size_t> streams = server.requestStreamsPerConnection();
    EXPECT_EQ(std::accumulate(streams.begin(), streams.end(), std::size_t{0}), 3u)
        << "a refused request went out on the trusted connection";
}

TEST_F(HTTP2OverTLS, CallsStartedTogetherAreMultiplexedOnOneConnection) {
    giveToken();
    trust(server.certificateFile());
    constexpr int kCalls = 8;
    const std::vector<KXCallOutcome> outcomes = getConcurrently(kCalls, "/inbox.json");
    for (int i = 0; i < kCalls; ++i) {
        EXPECT_EQ(outcomes[i].callbacks(), 1) << i;
        ASSERT_EQ(outcomes[i].successes, 1) << i << ": " << describe(outcomes[i]);
        EXPECT_TRUE(outcomes[i].allOnMainThread) << i;
        EXPECT_EQ(outcomes[i].response->HTTPVersion, "2") << i;
    }
    // Without multiplexing, calls that start before the first connection is up each open one.
    EXPECT_EQ(server.requestStreamsPerConnection(), std::vector<std::size_t>{kCalls});
}
