// Every operation of the guest, inbox, list, analytics and token clients against every way the
// service can fail: each reports exactly once, on the main thread, with the error the transport
// or the operation gave (or succeeds where the operation takes any 2xx answer as done), and
// leaves the shared state as it was: the current guest and the device's tokens, the loaded
// messages and the summary, the analytics session, the bearer token and the stored credential.
#include "../guest/KXGuestServiceFixture.h"

#include <KXClientFramework/KXAnalyticsManager.h>
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxManager.h>
#include <KXClientFramework/KXListManager.h>
#include <KXClientFramework/KXOAuth2Client.h>
#include <KXClientFramework/KXOAuthCredential.h>
#include <KXClientFramework/KXSession.h>
#include <KXClientFramework/KXTransportActivity.h>

#include <curl/curl.h>

#include <array>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace {

/// How often, with what and on which threads an operation's callbacks ran.
struct Tally {
    int successes = 0;
    std::vector<KXError> failures;
    bool allOnMainThread = true;

    int callbacks() const { return successes + static_cast<int>(failures.size()); }
    /// Fits every success block of the operations under test.
    auto success() {
        return [this](auto&&...) {
            ++successes;
            noteThread();
        };
    }
    auto failure() {
        return [this](const KXError& error) {
            failures.push_back(error);
            noteThread();
        };
    }

private:
    void noteThread() { allOnMainThread &= KXPlatform::current().mainQueue().isMainThread(); }
};

struct Fault {
    const char* name;
    KXScriptedAnswer answer;
    /// The error of a failure: the status, libcurl's code, or for a 2xx answer the operation's
    /// own error (code 99).
    const char* domain;
    std::int64_t code;
    bool timesOut = false;
};

using Answer = KXScriptedAnswer;
// The columns; a row's outcome string has one letter per fault, in this order.
const std::array<Fault, 9> kFaults = {{
    {"Status500", Answer::json(500, {{"message", "down"}}), NSOSStatusErrorDomain, 500},
    {"Status503Html", Answer::text(503, "<html><body>busy</body></html>", "text/html"),
     NSOSStatusErrorDomain, 503},
    {"Status204", Answer::empty(204), NSOSStatusErrorDomain, 99},
    {"GarbageBody", Answer::text(200, "}{ not json", "application/json"), NSOSStatusErrorDomain,
     99},
    {"WrongShape", Answer::json(200, KXJSON::array({"wrong", 7})), NSOSStatusErrorDomain, 99},
    {"OverSizeLimit",
     Answer::filler(KXSessionConfiguration::defaultSessionConfiguration().maximumResponseBodySize +
                    1),
     NSURLErrorDomain, CURLE_FILESIZE_EXCEEDED},
    {"Dropped", Answer::dropped(), NSURLErrorDomain, CURLE_GOT_NOTHING},
    {"TruncatedBody",
     {.body = std::string(4000, 'x'), .fault = Answer::Fault::TruncatedBody},
     NSURLErrorDomain,
     CURLE_PARTIAL_FILE},
    // Silent far beyond the request's time-out.
    {"TimedOut", {.body = "{}", .delay = 10s}, NSURLErrorDomain, CURLE_OPERATION_TIMEDOUT, true},
}};

// Outcome letters: F the failure block, S the success block, N neither (the answer is dropped,
// as documented for the token client), C success that rewrites shared state as documented (a
// reply of the wrong shape reads as an empty inbox or summary), B success and then the failure
// of work that success does not wait for (as documented for a guest fetch with several tokens).
constexpr const char* kAny2xxSucceeds = "FFSSSFFFF";
// A 2xx answer without "newRecordId" names no new record: a failure as well.
constexpr const char* kNeedsNewRecord = "FFFFFFFFF";
// A 2xx token answer without a JSON object is dropped: neither block runs.
constexpr const char* kTokenAnswer = "FFNNNFFFF";
constexpr const char* kWrongShapeEmpties = "FFSSCFFFF";
constexpr const char* kLateFailure = "BBSSSBBBB";

class KXFaultMatrixTest;

struct Row {
    const char* name;
    std::function<void(Tally&)> run;
    const char* outcomes;
    int replies = 1;  // callbacks per outcome
    /// Changes to the standard state, and routes answered well before the fault comes.
    void (*setUp)(KXFaultMatrixTest& test) = nullptr;
};

void PrintTo(const Row& row, std::ostream* os) {
    *os << row.name;
}

using M = KXGuestManager;
using IM = KXInboxManager;
using LM = KXListManager;
using AM = KXAnalyticsManager;

std::shared_ptr<KXInboxMessage> message(const std::string& id) {
    auto made = std::make_shared<KXInboxMessage>();
    made->setMessageId(id);
    made->setTitle("Title " + id);
    return made;
}

const KXJSON& standardGuest() {
    static const KXJSON guest = {
        {"externalId", "g1"},
        {"languagePref", "fr"},
        {"tags", {"t"}},
        {"deliveryProfiles",
         {apnsProfileJSON("AP-1", "aa"), profileJSON("IN-1", "inbox", {{"inboxDomainId", "Dom"}}),
          profileJSON("EM-1", "email"), profileJSON("SM-1", "sms")}}};
    return guest;
}

/// The guest as the service has it, without a push profile for this device.
KXJSON guestWithoutPushProfile() {
    KXJSON guest = standardGuest();
    guest["deliveryProfiles"].erase(0);
    return guest;
}

KXInbox& inbox() {
    return KXInbox::shared();
}

KXOAuth2Client& tokens() {
    return KXOAuth2Client::client();
}

class KXFaultMatrixTest : public KXGuestServiceTest, public testing::WithParamInterface<Row> {
public:
    using KXGuestServiceTest::answer;

protected:
    KXFaultMatrixTest() {
        KXConfig::defaultConfig().setInboxDomainId("Dom");
        haveGuest(standardGuest());
        haveTokens({"aa"});
        inbox().setMessages({message("m1"), message("m2")});
        KXInboxSummary summary;
        summary.setName("Front desk");
        summary.setTotalMessageCount(2);
        inbox().setSummary(summary);
        KXSession::currentSession().setSessionState(KXSessionStateNew);
        tokens().initWithClientId("client-7", "secret-7");
    }

    void useTimeout(double seconds) {
        KXSessionConfiguration configuration = transport().configuration();
        if (configuration.timeoutIntervalForRequest != seconds) {
            configuration.timeoutIntervalForRequest = seconds;
            transport().setConfiguration(configuration);
        }
    }

    /// Everything an operation may change for good.
    KXJSON sharedState() {
        KXJSON messages = KXJSON::array();
        for (const auto& loaded : inbox().messages()) {
            messages.push_back({optionalJSON(loaded->messageId()), optionalJSON(loaded->title())});
        }
        const KXInboxSummary& summary = *inbox().summary();
        const KXSession& session = KXSession::currentSession();
        const auto token = transport().bearerToken();
        return {
            {"guest", describeGuest(*KXGuest::currentGuest())},
            {"deviceTokens", KXDevice::currentDevice().retrieveDeviceTokenListFromUserDefaults()},
            {"messages", messages},
            {"summary", {optionalJSON(summary.name()), summary.totalMessageCount()}},
            {"session", {optionalJSON(session.sessionId()), session.sessionState()}},
            {"token", token ? optionalJSON(token->token()) : KXJSON()},
            {"credential", KXOAuthCredential::retrieveCredentialWithIdentifier(
                               tokens().keychainId()) != nullptr}};
    }
};

/// The request waits in the token gate for a new token, which the faulty service does not give.
void expireToken(KXFaultMatrixTest& /*test*/) {
    KXHTTPSessionManager::sharedManager().setBearerToken(std::make_shared<KXBearerToken>(
        "expired", KXPlatform::current().clock().now() - std::chrono::minutes(1)));
}

/// An operation that calls `function(arguments..., success, failure)` reporting to a tally.
#define KX_TALLY_CALL(function, ...) \
    [](Tally& t) { function(__VA_ARGS__ __VA_OPT__(, ) t.success(), t.failure()); }

const std::vector<Row> kRows = {
    {"RegisterGuest", KX_TALLY_CALL(M::registerGuestWithSuccess), kNeedsNewRecord},
    {"RegisterGuestWithId", KX_TALLY_CALL(M::registerGuestWithId, "g9"), kNeedsNewRecord},
    {"RegisterGuestWithParameters",
     KX_TALLY_CALL(M::registerGuestWithId, "g9", {{"languagePref", "de"}}), kNeedsNewRecord},
    {"RegisterGuestWithQRID", KX_TALLY_CALL(M::registerGuestWithQRID, "QR-1"), kNeedsNewRecord},
    {"RegisterGuestWithProperties",
     KX_TALLY_CALL(M::registerGuestWithId, std::string("g9"), {{"tier", 1}}, "de", "label",
                   {"vip"}),
     kNeedsNewRecord},
    {"FetchGuest", KX_TALLY_CALL(M::fetchGuestWithId, "g1"), kAny2xxSucceeds},
    {"SaveGuest", KX_TALLY_CALL(M::saveGuest, *KXGuest::currentGuest()), kAny2xxSucceeds},
    {"DeleteGuest", KX_TALLY_CALL(M::deleteGuest, "g1"), kAny2xxSucceeds},
    {"AddAPNSProfile", KX_TALLY_CALL(M::addAPNSDeliveryProfileForGuestWithId, "g1"),
     kNeedsNewRecord},
    {"UpdateAPNSProfile", KX_TALLY_CALL(M::updateAPNSGuestWithId, "g1", "AP-1"), kAny2xxSucceeds},
    {"EnableAPNSProfile", KX_TALLY_CALL(M::APNSDeliveryProfileEnable, true), kAny2xxSucceeds},
    {"DisableInboxProfile", KX_TALLY_CALL(M::inboxDeliveryProfileEnable, false), kAny2xxSucceeds},
    {"EnableChannel", KX_TALLY_CALL(M::enableDeliveryProfileForChannel, KXChannelTypeAPNS),
     kAny2xxSucceeds},
    {"DisableChannel", KX_TALLY_CALL(M::disableDeliveryProfileForChannel, KXChannelTypeInbox),
     kAny2xxSucceeds},
    {"AddInboxProfileForGuest",
     KX_TALLY_CALL(M::addInboxDeliveryProfileForGuestWithId, "g1", "Dom2"), kNeedsNewRecord},
    {"AddInboxProfile", KX_TALLY_CALL(M::addInboxDeliveryProfileWithInboxId, "Dom2"),
     kNeedsNewRecord},
    {"AddEmailProfile", KX_TALLY_CALL(M::addEmailDeliveryProfileForGuestWithId, "g1", "a@b.c"),
     kNeedsNewRecord},
    {"AddSMSProfile", KX_TALLY_CALL(M::addSMSDeliveryProfileForGuestWithId, "g1", "555"),
     kNeedsNewRecord},
    {"SubscribeByProfile", KX_TALLY_CALL(M::subscribeToList, "L1", "SM-1"), kAny2xxSucceeds},
    {"UnsubscribeByProfile", KX_TALLY_CALL(M::unsubscribeToList, "L1", "SM-1"), kAny2xxSucceeds},
    {"SubscribeByChannel", KX_TALLY_CALL(M::subscribeToList, "L1", KXChannelTypeEmail),
     kAny2xxSucceeds},
    {"UnsubscribeByChannel", KX_TALLY_CALL(M::unsubscribeToList, "L1", KXChannelTypeSMS),
     kAny2xxSucceeds},

    {"InboxManagerSummary", KX_TALLY_CALL(IM::fetchInboxSummaryWithId, std::nullopt),
     kWrongShapeEmpties},
    {"InboxManagerInboxes", KX_TALLY_CALL(IM::fetchInboxesWithSuccess), kAny2xxSucceeds},
    {"InboxManagerMessages", KX_TALLY_CALL(IM::fetchMessagesWithId, "Dom"), kAny2xxSucceeds},
    {"InboxManagerPage", KX_TALLY_CALL(IM::fetchMessagesForPage, 0, 20, std::nullopt),
     kAny2xxSucceeds},
    {"InboxManagerDetails",
     KX_TALLY_CALL(IM::fetchMessageDetailsWithMessage, message("x1"), std::nullopt),
     kAny2xxSucceeds},
    {"InboxManagerDelete",
     KX_TALLY_CALL(IM::deleteMessageDetailsWithMessage, *message("m1"), std::nullopt),
     kAny2xxSucceeds},
    {"InboxManagerMark", KX_TALLY_CALL(IM::markMessage, *message("m1"), std::nullopt, true),
     kAny2xxSucceeds},

    {"InboxSummary", KX_TALLY_CALL(inbox().fetchInboxSummaryWithId, std::nullopt),
     kWrongShapeEmpties},
    {"InboxMessages", KX_TALLY_CALL(inbox().fetchMessagesWithId, std::nullopt), kWrongShapeEmpties},
    {"InboxPage", KX_TALLY_CALL(inbox().fetchWithPageNumber, 2, 20, std::nullopt), kAny2xxSucceeds},
    {"InboxDetails", KX_TALLY_CALL(inbox().fetchMessageDetails, message("x1"), std::nullopt),
     kAny2xxSucceeds},
    {"InboxDelete", KX_TALLY_CALL(inbox().deleteMessageDetails, *message("m1"), std::nullopt),
     kAny2xxSucceeds},
    {"InboxDeleteArray",
     KX_TALLY_CALL(inbox().deleteMessageDetailsArray, {message("m1"), nullptr, message("m2")},
                   std::nullopt),
     kAny2xxSucceeds, 2},

    {"ListData", KX_TALLY_CALL(LM::fetchListDataForPage, 1, 10), kAny2xxSucceeds},
    {"Lists", KX_TALLY_CALL(LM::fetchListsForPage, 2, 10), kAny2xxSucceeds},
    {"ListsWithTag", KX_TALLY_CALL(LM::fetchListsWithTag, "vip", 1, 0), kAny2xxSucceeds},
    {"List", KX_TALLY_CALL(LM::fetchListWithId, "L1"), kAny2xxSucceeds},
    // A 2xx answer to the post is followed by the read of the new list, faulted the same way.
    {"CreateList",
     KX_TALLY_CALL(LM::createListWithExternalId, "ext-1", "Name", "About", {"t"}, nullptr),
     kAny2xxSucceeds},

    {"AnalyticsStart", KX_TALLY_CALL(AM::postStartSession, KXSession::currentSession()),
     kAny2xxSucceeds},
    {"AnalyticsUpdate", KX_TALLY_CALL(AM::postUpdateOrEndSession, KXSession::currentSession()),
     kAny2xxSucceeds},
    {"AnalyticsPost",
     KX_TALLY_CALL(AM::post, {{"k", 1}}, KXSessionManager::kxBaseURI() + "/sessions"),
     kAny2xxSucceeds},

    {"Authenticate", KX_TALLY_CALL(tokens().authenticateWithSuccess), kTokenAnswer},
    {"FetchAndStoreToken",
     KX_TALLY_CALL(tokens().fetchAndStoreBearerTokenWithParameters,
                   KXOAuth2Client::grantParameters("client-7", "secret-7")),
     kTokenAnswer},
    {"RefreshToken", KX_TALLY_CALL(tokens().refreshBearerTokenWithSuccess), kTokenAnswer},
    // The first requests succeed, the next one meets the fault.
    {"RegisterGuestThenFetch", KX_TALLY_CALL(M::registerGuestWithId, "g9"), kAny2xxSucceeds, 1,
     [](KXFaultMatrixTest& test) { test.answer("POST /guests", createdAs("g9")); }},
    {"CreateListThenFetch",
     KX_TALLY_CALL(LM::createListWithExternalId, std::nullopt, "Name", std::nullopt, nullptr,
                   nullptr),
     kAny2xxSucceeds, 1,
     [](KXFaultMatrixTest& test) { test.answer("POST /lists/", createdAs("L9")); }},
    {"FetchGuestThenAddPushProfile", KX_TALLY_CALL(M::fetchGuestWithId, "g1"), kNeedsNewRecord, 1,
     [](KXFaultMatrixTest& test) {
         haveGuest(guestWithoutPushProfile());
         test.answer("GET /guests/g1", Answer::json(200, guestWithoutPushProfile()));
     }},
    {"FetchGuestThenRepointTokens", KX_TALLY_CALL(M::fetchGuestWithId, "g1"), kLateFailure, 1,
     [](KXFaultMatrixTest& test) {
         haveTokens({"bb"});
         test.answer("GET /guests/g1", Answer::json(200, standardGuest()));
     }},
    {"InboxDeleteArrayThroughTokenGate",
     KX_TALLY_CALL(inbox().deleteMessageDetailsArray, {message("m1"), message("m2")}, std::nullopt),
     kTokenAnswer, 2, expireToken},
    // The request in the gate waits for the authentication under way.
    {"AuthenticateWithARequestInTheGate",
     [](Tally& t) {
         tokens().authenticateWithSuccess(t.success(), t.failure());
         M::fetchGuestWithId("g1", t.success(), t.failure());
     },
     kTokenAnswer, 2, expireToken},
    {"FetchGuestThroughTokenGate", KX_TALLY_CALL(M::fetchGuestWithId, "g1"), kTokenAnswer, 1,
     expireToken},
};

TEST_P(KXFaultMatrixTest, EachFaultIsReportedOnceOnTheMainThreadAndKeepsTheSharedState) {
    const Row& row = GetParam();
    ASSERT_EQ(std::strlen(row.outcomes), kFaults.size());
    if (row.setUp) {
        row.setUp(*this);
    }
    std::array<Tally, kFaults.size()> tallies;
    for (std::size_t column = 0; column < kFaults.size(); ++column) {
        const Fault& fault = kFaults[column];
        const char outcome = row.outcomes[column];
        SCOPED_TRACE(fault.name);
        useTimeout(fault.timesOut ? 0.3 : 10.0);
        service.scriptEveryRoute(fault.answer);
        const KXJSON before = sharedState();
        const std::size_t sent = service.requests().size();
        Tally& tally = tallies[column];

        row.run(tally);
        // Every request of the operation has finished and its completion has run; a request
        // whose token answer was dropped stays in the gate for good.
        const int expected = outcome == 'N' ? 0 : outcome == 'B' ? 2 * row.replies : row.replies;
        ASSERT_TRUE(waitFor([&] {
            return tally.callbacks() >= expected &&
                   KXTransportActivity::requestsUnderWay() ==
                       KXTransportActivity::requestsWaitingForToken();
        }));
        // A request the client gave up on may reach the service after the failure.
        EXPECT_TRUE(service.waitForRequests(sent + 1, kPatience))
            << "the operation reached the service";
        if (outcome != 'C') {
            EXPECT_EQ(sharedState(), before);
        }
    }
    drain();  // a second callback of any cell has arrived by now
    for (std::size_t column = 0; column < kFaults.size(); ++column) {
        const Fault& fault = kFaults[column];
        const char outcome = row.outcomes[column];
        const Tally& tally = tallies[column];
        SCOPED_TRACE(fault.name);
        EXPECT_EQ(tally.successes, std::strchr("SCB", outcome) != nullptr ? row.replies : 0);
        EXPECT_EQ(tally.failures.size(),
                  outcome == 'F' || outcome == 'B' ? std::size_t(row.replies) : 0u);
        EXPECT_TRUE(tally.allOnMainThread);
        for (const KXError& error : tally.failures) {
            EXPECT_EQ(error.domain, fault.domain);
            EXPECT_EQ(error.code, fault.code) << error.description();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Operations, KXFaultMatrixTest, testing::ValuesIn(kRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
