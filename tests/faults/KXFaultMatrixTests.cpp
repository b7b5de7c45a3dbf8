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
    KXScriptedAnswer (*answer)();
    /// The error of a failure: the status, libcurl's code, or for a 2xx answer the operation's
    /// own error (code 99).
    const char* domain;
    std::int64_t code;
    bool timesOut = false;
};

KXScriptedAnswer truncated() {
    KXScriptedAnswer answer = KXScriptedAnswer::json(200, {{"padding", std::string(4000, 'x')}});
    answer.fault = KXScriptedAnswer::Fault::TruncatedBody;
    return answer;
}

KXScriptedAnswer silent() {
    KXScriptedAnswer answer = KXScriptedAnswer::json(200, KXJSON::object());
    answer.delay = 10s;  // far beyond the request's time-out
    return answer;
}

// The columns; a row's outcome string has one letter per fault, in this order.
const std::array<Fault, 9> kFaults = {{
    {"Status500",
     [] {
         return KXScriptedAnswer::json(500, {{"message", "down"}});
     },
     NSOSStatusErrorDomain, 500},
    {"Status503Html",
     [] { return KXScriptedAnswer::text(503, "<html><body>busy</body></html>", "text/html"); },
     NSOSStatusErrorDomain, 503},
    {"Status204", [] { return KXScriptedAnswer::empty(204); }, NSOSStatusErrorDomain, 99},
    {"GarbageBody", [] { return KXScriptedAnswer::text(200, "}{ not json", "application/json"); },
     NSOSStatusErrorDomain, 99},
    {"WrongShape",
     [] {
         return KXScriptedAnswer::json(200, KXJSON::array({"wrong", 7}));
     },
     NSOSStatusErrorDomain, 99},
    {"OverSizeLimit",
     [] {
         return KXScriptedAnswer::filler(
             KXHTTPSessionManager::sharedManager().configuration().maximumResponseBodySize + 1);
     },
     NSURLErrorDomain, CURLE_FILESIZE_EXCEEDED},
    {"Dropped", [] { return KXScriptedAnswer::dropped(); }, NSURLErrorDomain, CURLE_GOT_NOTHING},
    {"TruncatedBody", truncated, NSURLErrorDomain, CURLE_PARTIAL_FILE},
    {"TimedOut", silent, NSURLErrorDomain, CURLE_OPERATION_TIMEDOUT, true},
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

struct Row {
    const char* name;
    std::function<void(Tally&)> run;
    const char* outcomes;
    int replies = 1;  // callbacks per outcome
    /// Changes to the standard state, and routes answered well before the fault comes.
    void (*setUp)(KXLoopbackService& service) = nullptr;
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

/// The request waits in the token gate for a new token, which the faulty service does not give.
void expireToken(KXLoopbackService& /*service*/) {
    KXHTTPSessionManager::sharedManager().setBearerToken(std::make_shared<KXBearerToken>(
        "expired", KXPlatform::current().clock().now() - std::chrono::minutes(1)));
}

KXScriptedAnswer created(const std::string& identifier) {
    KXScriptedAnswer answer = KXScriptedAnswer::empty(201);
    answer.headers = {{"newRecordId", identifier}};
    return answer;
}

std::string base(const std::string& suffix) {
    return KXSessionManager::kxBaseURI() + suffix;
}

const KXJSON& standardGuest();

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

const std::vector<Row> kRows = {
    {"RegisterGuest", [](Tally& t) { M::registerGuestWithSuccess(t.success(), t.failure()); },
     kNeedsNewRecord},
    {"RegisterGuestWithId",
     [](Tally& t) { M::registerGuestWithId("g9", t.success(), t.failure()); }, kNeedsNewRecord},
    {"RegisterGuestWithParameters",
     [](Tally& t) {
         M::registerGuestWithId("g9", {{"languagePref", "de"}}, t.success(), t.failure());
     },
     kNeedsNewRecord},
    {"RegisterGuestWithQRID",
     [](Tally& t) { M::registerGuestWithQRID("QR-1", t.success(), t.failure()); }, kNeedsNewRecord},
    {"RegisterGuestWithProperties",
     [](Tally& t) {
         M::registerGuestWithId(std::string("g9"), {{"tier", 1}}, "de", "label", {"vip"},
                                t.success(), t.failure());
     },
     kNeedsNewRecord},
    {"FetchGuest", [](Tally& t) { M::fetchGuestWithId("g1", t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"SaveGuest",
     [](Tally& t) { M::saveGuest(*KXGuest::currentGuest(), t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"DeleteGuest", [](Tally& t) { M::deleteGuest("g1", t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"AddAPNSProfile",
     [](Tally& t) { M::addAPNSDeliveryProfileForGuestWithId("g1", t.success(), t.failure()); },
     kNeedsNewRecord},
    {"UpdateAPNSProfile",
     [](Tally& t) { M::updateAPNSGuestWithId("g1", "AP-1", t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"EnableAPNSProfile",
     [](Tally& t) { M::APNSDeliveryProfileEnable(true, t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"DisableInboxProfile",
     [](Tally& t) { M::inboxDeliveryProfileEnable(false, t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"EnableChannel",
     [](Tally& t) {
         M::enableDeliveryProfileForChannel(KXChannelTypeAPNS, t.success(), t.failure());
     },
     kAny2xxSucceeds},
    {"DisableChannel",
     [](Tally& t) {
         M::disableDeliveryProfileForChannel(KXChannelTypeInbox, t.success(), t.failure());
     },
     kAny2xxSucceeds},
    {"AddInboxProfileForGuest",
     [](Tally& t) {
         M::addInboxDeliveryProfileForGuestWithId("g1", "Dom2", t.success(), t.failure());
     },
     kNeedsNewRecord},
    {"AddInboxProfile",
     [](Tally& t) { M::addInboxDeliveryProfileWithInboxId("Dom2", t.success(), t.failure()); },
     kNeedsNewRecord},
    {"AddEmailProfile",
     [](Tally& t) {
         M::addEmailDeliveryProfileForGuestWithId("g1", "a@b.c", t.success(), t.failure());
     },
     kNeedsNewRecord},
    {"AddSMSProfile",
     [](Tally& t) {
         M::addSMSDeliveryProfileForGuestWithId("g1", "555", t.success(), t.failure());
     },
     kNeedsNewRecord},
    {"SubscribeByProfile",
     [](Tally& t) { M::subscribeToList("L1", "SM-1", t.success(), t.failure()); }, kAny2xxSucceeds},
    {"UnsubscribeByProfile",
     [](Tally& t) { M::unsubscribeToList("L1", "SM-1", t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"SubscribeByChannel",
     [](Tally& t) { M::subscribeToList("L1", KXChannelTypeEmail, t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"UnsubscribeByChannel",
     [](Tally& t) { M::unsubscribeToList("L1", KXChannelTypeSMS, t.success(), t.failure()); },
     kAny2xxSucceeds},

    {"InboxManagerSummary",
     [](Tally& t) { IM::fetchInboxSummaryWithId(std::nullopt, t.success(), t.failure()); },
     kWrongShapeEmpties},
    {"InboxManagerInboxes", [](Tally& t) { IM::fetchInboxesWithSuccess(t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"InboxManagerMessages",
     [](Tally& t) { IM::fetchMessagesWithId("Dom", t.success(), t.failure()); }, kAny2xxSucceeds},
    {"InboxManagerPage",
     [](Tally& t) { IM::fetchMessagesForPage(0, 20, std::nullopt, t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"InboxManagerDetails",
     [](Tally& t) {
         IM::fetchMessageDetailsWithMessage(message("x1"), std::nullopt, t.success(), t.failure());
     },
     kAny2xxSucceeds},
    {"InboxManagerDelete",
     [](Tally& t) {
         IM::deleteMessageDetailsWithMessage(*message("m1"), std::nullopt, t.success(),
                                             t.failure());
     },
     kAny2xxSucceeds},
    {"InboxManagerMark",
     [](Tally& t) {
         IM::markMessage(*message("m1"), std::nullopt, true, t.success(), t.failure());
     },
     kAny2xxSucceeds},

    {"InboxSummary",
     [](Tally& t) { inbox().fetchInboxSummaryWithId(std::nullopt, t.success(), t.failure()); },
     kWrongShapeEmpties},
    {"InboxMessages",
     [](Tally& t) { inbox().fetchMessagesWithId(std::nullopt, t.success(), t.failure()); },
     kWrongShapeEmpties},
    {"InboxPage",
     [](Tally& t) { inbox().fetchWithPageNumber(2, 20, std::nullopt, t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"InboxDetails",
     [](Tally& t) {
         inbox().fetchMessageDetails(message("x1"), std::nullopt, t.success(), t.failure());
     },
     kAny2xxSucceeds},
    {"InboxDelete",
     [](Tally& t) {
         inbox().deleteMessageDetails(*message("m1"), std::nullopt, t.success(), t.failure());
     },
     kAny2xxSucceeds},
    {"InboxDeleteArray",
     [](Tally& t) {
         inbox().deleteMessageDetailsArray({message("m1"), nullptr, message("m2")}, std::nullopt,
                                           t.success(), t.failure());
     },
     kAny2xxSucceeds, 2},

    {"ListData", [](Tally& t) { LM::fetchListDataForPage(1, 10, t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"Lists", [](Tally& t) { LM::fetchListsForPage(2, 10, t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"ListsWithTag", [](Tally& t) { LM::fetchListsWithTag("vip", 1, 0, t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"List", [](Tally& t) { LM::fetchListWithId("L1", t.success(), t.failure()); },
     kAny2xxSucceeds},
    // A 2xx answer to the post is followed by the read of the new list, faulted the same way.
    {"CreateList",
     [](Tally& t) {
         LM::createListWithExternalId("ext-1", "Name", "About", {"t"}, nullptr, t.success(),
                                      t.failure());
     },
     kAny2xxSucceeds},

    {"AnalyticsStart",
     [](Tally& t) { AM::postStartSession(KXSession::currentSession(), t.success(), t.failure()); },
     kAny2xxSucceeds},
    {"AnalyticsUpdate",
     [](Tally& t) {
         AM::postUpdateOrEndSession(KXSession::currentSession(), t.success(), t.failure());
     },
     kAny2xxSucceeds},
    {"AnalyticsPost",
     [](Tally& t) {
         AM::post({{"k", 1}}, KXSessionManager::kxBaseURI() + "/sessions", t.success(),
                  t.failure());
     },
     kAny2xxSucceeds},

    {"Authenticate", [](Tally& t) { tokens().authenticateWithSuccess(t.success(), t.failure()); },
     kTokenAnswer},
    {"FetchAndStoreToken",
     [](Tally& t) {
         tokens().fetchAndStoreBearerTokenWithParameters(
             KXOAuth2Client::grantParameters("client-7", "secret-7"), t.success(), t.failure());
     },
     kTokenAnswer},
    {"RefreshToken",
     [](Tally& t) { tokens().refreshBearerTokenWithSuccess(t.success(), t.failure()); },
     kTokenAnswer},
    // The first requests succeed, the next one meets the fault.
    {"RegisterGuestThenFetch",
     [](Tally& t) { M::registerGuestWithId("g9", t.success(), t.failure()); }, kAny2xxSucceeds, 1,
     [](KXLoopbackService& service) { service.script("POST", base("/guests"), created("g9")); }},
    {"CreateListThenFetch",
     [](Tally& t) {
         LM::createListWithExternalId(std::nullopt, "Name", std::nullopt, nullptr, nullptr,
                                      t.success(), t.failure());
     },
     kAny2xxSucceeds, 1,
     [](KXLoopbackService& service) { service.script("POST", base("/lists/"), created("L9")); }},
    {"FetchGuestThenAddPushProfile",
     [](Tally& t) { M::fetchGuestWithId("g1", t.success(), t.failure()); }, kNeedsNewRecord, 1,
     [](KXLoopbackService& service) {
         haveGuest(guestWithoutPushProfile());
         service.script("GET", base("/guests/g1"),
                        KXScriptedAnswer::json(200, guestWithoutPushProfile()));
     }},
    {"FetchGuestThenRepointTokens",
     [](Tally& t) { M::fetchGuestWithId("g1", t.success(), t.failure()); }, kLateFailure, 1,
     [](KXLoopbackService& service) {
         haveTokens({"bb"});
         service.script("GET", base("/guests/g1"), KXScriptedAnswer::json(200, standardGuest()));
     }},
    {"InboxDeleteArrayThroughTokenGate",
     [](Tally& t) {
         inbox().deleteMessageDetailsArray({message("m1"), message("m2")}, std::nullopt,
                                           t.success(), t.failure());
     },
     kTokenAnswer, 2, expireToken},
    // The request in the gate waits for the authentication under way.
    {"AuthenticateWithARequestInTheGate",
     [](Tally& t) {
         tokens().authenticateWithSuccess(t.success(), t.failure());
         M::fetchGuestWithId("g1", t.success(), t.failure());
     },
     kTokenAnswer, 2, expireToken},
    {"FetchGuestThroughTokenGate",
     [](Tally& t) { M::fetchGuestWithId("g1", t.success(), t.failure()); }, kTokenAnswer, 1,
     expireToken},
};

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

class KXFaultMatrixTest : public KXGuestServiceTest, public testing::WithParamInterface<Row> {
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

TEST_P(KXFaultMatrixTest, EachFaultIsReportedOnceOnTheMainThreadAndKeepsTheSharedState) {
    const Row& row = GetParam();
    ASSERT_EQ(std::strlen(row.outcomes), kFaults.size());
    if (row.setUp) {
        row.setUp(service);
    }
    std::array<Tally, kFaults.size()> tallies;
    for (std::size_t column = 0; column < kFaults.size(); ++column) {
        const Fault& fault = kFaults[column];
        const char outcome = row.outcomes[column];
        SCOPED_TRACE(fault.name);
        useTimeout(fault.timesOut ? 0.3 : 10.0);
        service.scriptEveryRoute(fault.answer());
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
