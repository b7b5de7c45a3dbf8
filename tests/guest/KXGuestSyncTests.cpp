#include "KXGuestServiceFixture.h"

#include <KXClientFramework/KXConfig.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace {

using M = KXGuestManager;
using Operation = std::function<void(KXGuestLog&)>;
using Answers = std::vector<std::pair<std::string, KXScriptedAnswer>>;

KXScriptedAnswer ok(const KXJSON& body) {
    return KXScriptedAnswer::json(200, body);
}

// Alternating "METHOD suffix" and its answer; a route given twice answers in that order. (Calls
// rather than nested braces keep each table row on a line or two.)
Answers answers() {
    return {};
}
template <typename... Rest>
Answers answers(const char* request, KXScriptedAnswer answer, Rest... rest) {
    Answers list = answers(rest...);
    list.emplace(list.begin(), request, std::move(answer));
    return list;
}
template <typename... Items>
std::vector<KXJSON> bodies(Items... items) {
    return {KXJSON(items)...};
}

// One operation that reports once.
struct Scenario {
    const char* name;
    Operation operation;
    Answers answers;
    Lines requests;               // "METHOD suffix", in order
    std::string result;           // the one report
    const char* token = nullptr;  // the one token saved
    int analyticsPosts = 0;
    int inboxSummaryFetches = 0;
    const char* inboxDomainId = nullptr;  // none configured
    std::vector<KXJSON> bodies = {};      // of the first requests, null for none
};

void PrintTo(const Scenario& c, std::ostream* os) {
    *os << c.name;
}

const Operation kFetch = KX_GUEST_CALL(M::fetchGuestWithId, "g1");
const Operation kRegister = KX_GUEST_CALL(M::registerGuestWithId, "g5");
const Operation kRegisterFull =
    KX_GUEST_CALL(M::registerGuestWithId, "g5", {{"k", 1}}, "de", "c", {"a"});
const Operation kRegisterQRID = KX_GUEST_CALL(M::registerGuestWithQRID, "q1");
const KXJSON kHasAA = guestJSON("g1", KXJSON::array({apnsProfileJSON("P9", "aa")}));
const Lines kGet = {"GET /guests/g1"};
const Lines kAddAndFetchAgain = {"GET /guests/g1", "POST /guests/g1/profiles", "GET /guests/g1"};
// A registration: the post names the new guest, who is fetched (with a push profile for "aa").
const KXScriptedAnswer kN1 = ok(guestJSON("N1", KXJSON::array({apnsProfileJSON("P1", "aa")})));
const Answers kRegistered = answers("POST /guests", createdAs("N1"), "GET /guests/N1", kN1);
const Lines kRegistration = {"POST /guests", "GET /guests/N1"};

// `body` with this device's push address.
KXJSON withPush(const char* body) {
    KXJSON json = KXJSON::parse(body);
    json["deliveryProfiles"] = KXJSON::array({apnsAddress("aa")});
    return json;
}

const char* const kFullBody = R"({"externalId":"g5","languagePref":"de","tags":["a"],
    "buCreativeLabel":"c","buProperties":{"k":1}})";

const Scenario kScenarios[] = {
    // One token without a profile: the profile is added and the guest fetched again before
    // success, which then knows the new profile.
    {"OneTokenWithoutProfileAddsIt", kFetch,
     answers("GET /guests/g1", ok(guestJSON("g1")), "GET /guests/g1", ok(kHasAA),
             "POST /guests/g1/profiles", createdAs("P9")),
     kAddAndFetchAgain, "guest:g1 push:P9", "aa"},
    {"FetchingAgainFails", kFetch,
     answers("GET /guests/g1", ok(guestJSON("g1")), "GET /guests/g1", KXScriptedAnswer::empty(503),
             "POST /guests/g1/profiles", createdAs("P9")),
     kAddAndFetchAgain, failed(503), "aa"},
    // No token, or one whose profile the guest has: one request, then success. A guest other
    // than asked for ends the old session; a configured inbox, even an empty one, is summarised.
    {"OneTokenWithItsProfile", kFetch, answers("GET /guests/g1", ok(kHasAA)), kGet,
     "guest:g1 push:P9", "aa"},
    {"OtherGuest", kFetch, answers("GET /guests/g1", ok(guestJSON("G1"))), kGet, "guest:G1",
     nullptr, 1},
    {"EmptyInboxStillStarts", kFetch, answers("GET /guests/g1", ok(guestJSON("g1"))), kGet,
     "guest:g1", nullptr, 0, 1, ""},
    // A registration posts its body, fetches the new guest, posts the session and then adds the
    // configured inbox profile; this device's push address goes in the body when a token is
    // known, and a QRID's type only then.
    {"RegistrationAddsTheInboxProfile", KX_GUEST_CALL(M::registerGuestWithSuccess),
     answers("POST /guests", createdAs("N1"), "GET /guests/N1", kN1, "POST /guests/N1/profiles",
             createdAs("IN-9")),
     Lines{"POST /guests", "GET /guests/N1", "POST /guests/N1/profiles"}, "guest:N1 push:P1", "aa",
     1, 1, "Dom", bodies(withPush("{}"), nullptr, KXJSON::parse(R"({"address":{"channel":"INBOX",
                              "attributes":{"guestId":"N1","inboxDomainId":"Dom"}}})"))},
    {"RegisterIdWithToken", kRegister, kRegistered, kRegistration, "guest:N1 push:P1", "aa", 1, 0,
     nullptr, bodies(withPush(R"({"externalId":"g5"})"))},
    {"RegisterParametersOverrideAndNullsAreLeftOut",
     KX_GUEST_CALL(M::registerGuestWithId, "g5",
                   KXJSON::parse(R"({"externalId":"g9","deliveryProfiles":[],"skip":null,
                                     "extra":{"a":1}})")),
     kRegistered, kRegistration, "guest:N1 push:P1", "aa", 1, 0, nullptr,
     bodies(KXJSON::parse(R"({"externalId":"g9","deliveryProfiles":[],"extra":{"a":1}})"))},
    {"RegisterQRIDWithToken", kRegisterQRID, kRegistered, kRegistration, "guest:N1 push:P1", "aa",
     1, 0, nullptr, bodies(withPush(R"({"externalId":"q1","externalIdType":"QRID"})"))},
    {"RegisterFullWithToken", kRegisterFull, kRegistered, kRegistration, "guest:N1 push:P1", "aa",
     1, 0, nullptr, bodies(withPush(kFullBody))},
    // A failed registration posts no session.
    {"RegisteredGuestNotFound", kRegister,
     answers("POST /guests", createdAs("N1"), "GET /guests/N1", KXScriptedAnswer::empty(404)),
     kRegistration, failed(404)},
};

class KXGuestScenarioTest : public KXGuestServiceTest,
                            public testing::WithParamInterface<Scenario> {};

TEST_P(KXGuestScenarioTest, SendsTheseRequestsAndReportsOnce) {
    const Scenario& c = GetParam();
    if (c.inboxDomainId) {
        KXConfig::defaultConfig().setInboxDomainId(c.inboxDomainId);
    }
    if (c.token) {
        haveTokens({c.token});
    }
    for (const auto& [request, scripted] : c.answers) {
        answer(request, scripted);
    }

    KXGuestLog log;
    c.operation(log);
    waitForEvents(log, 1);
    EXPECT_TRUE(waitFor([&] { return service.requests().size() >= c.requests.size(); }));
    drain();

    EXPECT_EQ(log.seen, Lines{c.result});
    ASSERT_EQ(sentRequests(), c.requests);
    for (std::size_t i = 0; i < c.bodies.size(); ++i) {
        const std::string body = service.requests()[i].body;
        EXPECT_EQ(body.empty() ? KXJSON() : KXJSON::parse(body), c.bodies[i]) << c.requests[i];
    }
    EXPECT_EQ(analyticsPosts, c.analyticsPosts);
    EXPECT_EQ(inboxSummaryFetches, c.inboxSummaryFetches);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, KXGuestScenarioTest, testing::ValuesIn(kScenarios),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(KXGuestServiceTest, SeveralTokensRepointTheirProfilesWithoutWaiting) {
    kxLogLevel = 4;
    auto sink = KXCapturingSink::install();
    const char* const updated = "Update APNS Delivery Profile";
    // The current token t3 has no profile: none is added for it.
    haveTokens({"t1", "t2", "t3"});
    answer("GET /guests/g1",
           ok(guestJSON("g1", {apnsProfileJSON("P2", "t2"), apnsProfileJSON("P1", "t1")})));
    KXScriptedAnswer slow = KXScriptedAnswer::empty(200);
    slow.delay = std::chrono::milliseconds(300);
    answer("POST /guests/g1/profiles/P1", slow);
    slow.status = 500;
    answer("POST /guests/g1/profiles/P2", slow);

    KXGuestLog log;
    std::size_t updatesAtSuccess = 99;
    M::fetchGuestWithId(
        "g1",
        [&](const std::shared_ptr<KXGuest>& guest) {
            updatesAtSuccess = sink->linesContaining(updated).size();
            log.seen.push_back("guest:" + guest->externalId().value_or(""));
        },
        log.onFailure());
    ASSERT_TRUE(waitFor([&] { return log.count() == 2 && logged(*sink.sink, updated); }));
    drain();

    // Success came first; the failed update follows it.
    EXPECT_EQ(log.seen, (Lines{"guest:g1", failed(500)}));
    EXPECT_EQ(updatesAtSuccess, 0u);
    // Both updates are in flight at once, so they may arrive in either order; each sends the
    // current token.
    Lines lines = sentRequests();
    std::sort(lines.begin() + 1, lines.end());
    EXPECT_EQ(lines, (Lines{"GET /guests/g1", "POST /guests/g1/profiles/P1",
                            "POST /guests/g1/profiles/P2"}));
    for (std::size_t i = 1; i < 3; ++i) {
        EXPECT_EQ(KXJSON::parse(service.requests()[i].body), apnsAddress("t3"));
    }
    // The stored list is kept as it is.
    EXPECT_EQ(KXDevice::currentDevice().retrieveDeviceTokenListFromUserDefaults(),
              (Lines{"t1", "t2", "t3"}));
}

}  // namespace
