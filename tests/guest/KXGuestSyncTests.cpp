// Fetching and registering the guest: the reconciliation of this device's push tokens with the
// guest's push profiles, in both of its branches, and the registration bodies and completion.
#include "KXGuestServiceFixture.h"

#include <KXClientFramework/KXConfig.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using M = KXGuestManager;
using Lines = std::vector<std::string>;

KXJSON guestJSON(const std::string& id, KXJSON profiles = KXJSON::array()) {
    return {{"externalId", id}, {"deliveryProfiles", std::move(profiles)}};
}

KXScriptedAnswer createdAs(const std::string& id) {
    KXScriptedAnswer answer = KXScriptedAnswer::empty(201);
    answer.headers = {{"newRecordId", id}};
    return answer;
}

class KXGuestFetchTest : public KXGuestServiceTest {
protected:
    // Fetches g1 and waits for `callbacks` reports.
    KXGuestOutcome fetch(int callbacks = 1) {
        KXGuestOutcome outcome;
        M::fetchGuestWithId("g1", outcome.onGuest(), outcome.onFailure());
        awaitCallbacks(outcome, callbacks);
        return outcome;
    }
};

TEST_F(KXGuestFetchTest, OneTokenWithoutProfileAddsItAndSucceedsAfterTheSecondFetch) {
    haveTokens({"aa"});
    service.script("GET", path("/guests/g1"), KXScriptedAnswer::json(200, guestJSON("g1")));
    service.script("GET", path("/guests/g1"),
                   KXScriptedAnswer::json(200, guestJSON("g1", {apnsProfileJSON("P9", "aa")})));
    service.script("POST", path("/guests/g1/profiles"), createdAs("P9"));

    KXGuestOutcome outcome;
    bool profileKnownAtSuccess = false;
    M::fetchGuestWithId(
        "g1",
        [&](const std::shared_ptr<KXGuest>& guest) {
            outcome.onGuest()(guest);
            profileKnownAtSuccess = guest->APNSDeliveryProfileForCurrentDevice() != nullptr;
        },
        outcome.onFailure());
    awaitCallbacks(outcome, 1);

    EXPECT_EQ(outcome.successes, std::vector<KXJSON>{"g1"});
    EXPECT_TRUE(profileKnownAtSuccess);
    EXPECT_EQ(requestLines(),
              (Lines{"GET " + path("/guests/g1"), "POST " + path("/guests/g1/profiles"),
                     "GET " + path("/guests/g1")}));
    EXPECT_EQ(KXJSON::parse(service.requests()[1].body), apnsAddress("aa"));
}

class KXGuestAddedProfileFailureTest : public KXGuestFetchTest,
                                       public testing::WithParamInterface<const char*> {};

TEST_P(KXGuestAddedProfileFailureTest, ReachesTheCaller) {
    const std::string failing = GetParam();
    haveTokens({"aa"});
    service.script("GET", path("/guests/g1"), KXScriptedAnswer::json(200, guestJSON("g1")));
    service.script("GET", path("/guests/g1"),
                   failing == "GET" ? KXScriptedAnswer::empty(503)
                                    : KXScriptedAnswer::json(200, guestJSON("g1")));
    service.script("POST", path("/guests/g1/profiles"),
                   failing == "POST" ? KXScriptedAnswer::empty(500) : createdAs("P9"));
    const auto outcome = fetch();
    EXPECT_TRUE(outcome.successes.empty());
    ASSERT_EQ(outcome.failures.size(), 1u);
    EXPECT_EQ(outcome.failures[0].code, failing == "GET" ? 503 : 500);
}

INSTANTIATE_TEST_SUITE_P(Requests, KXGuestAddedProfileFailureTest, testing::Values("POST", "GET"),
                         [](const auto& info) { return std::string(info.param); });

TEST_F(KXGuestFetchTest, SeveralTokensRepointTheirProfilesWithoutWaiting) {
    kxLogLevel = 4;
    auto sink = KXCapturingSink::install();
    haveTokens({"t1", "t2", "t3"});
    service.script("GET", path("/guests/g1"),
                   KXScriptedAnswer::json(200, guestJSON("g1", {apnsProfileJSON("P2", "t2"),
                                                                apnsProfileJSON("P1", "t1")})));
    for (const char* profile : {"P1", "P2"}) {
        KXScriptedAnswer slow = KXScriptedAnswer::empty(200);
        slow.delay = std::chrono::milliseconds(300);
        service.script("POST", path(std::string("/guests/g1/profiles/") + profile), slow);
    }

    KXGuestOutcome outcome;
    std::size_t updatesDoneAtSuccess = 99;
    M::fetchGuestWithId(
        "g1",
        [&](const std::shared_ptr<KXGuest>& guest) {
            outcome.onGuest()(guest);
            updatesDoneAtSuccess = sink->linesContaining("Update APNS Delivery Profile").size();
        },
        outcome.onFailure());
    ASSERT_TRUE(
        waitFor([&] { return sink->linesContaining("Update APNS Delivery Profile").size() == 2; }));
    drain();

    EXPECT_EQ(outcome.successes, std::vector<KXJSON>{"g1"});
    EXPECT_EQ(updatesDoneAtSuccess, 0u);
    // Both updates are in flight at once, so they may arrive in either order; each sends the
    // current token.
    Lines lines = requestLines();
    std::sort(lines.begin() + 1, lines.end());
    EXPECT_EQ(lines, (Lines{"GET " + path("/guests/g1"), "POST " + path("/guests/g1/profiles/P1"),
                            "POST " + path("/guests/g1/profiles/P2")}));
    for (std::size_t i = 1; i < 3; ++i) {
        EXPECT_EQ(KXJSON::parse(service.requests()[i].body), apnsAddress("t3"));
    }
    EXPECT_EQ(
        sink->linesContaining("Delivery profile exists with storedApplicationToken: t3").size(),
        1u);
    // The stored list is kept as it is.
    EXPECT_EQ(KXDevice::currentDevice().retrieveDeviceTokenListFromUserDefaults(),
              (std::vector<std::string>{"t1", "t2", "t3"}));
}

TEST_F(KXGuestFetchTest, SeveralTokensWithoutMatchAddNothingAndFailedUpdatesFollowSuccess) {
    haveTokens({"t1", "t2"});
    service.script("GET", path("/guests/g1"),
                   KXScriptedAnswer::json(200, guestJSON("g1", {apnsProfileJSON("P1", "t1")})));
    service.script("POST", path("/guests/g1/profiles/P1"), KXScriptedAnswer::empty(500));

    const auto outcome = fetch(2);
    EXPECT_EQ(outcome.order, (Lines{"success", "failure"}));
    EXPECT_EQ(requestLines(),
              (Lines{"GET " + path("/guests/g1"), "POST " + path("/guests/g1/profiles/P1")}));
}

struct FetchedGuestCase {
    const char* name;
    const char* inboxDomainId;  // nullptr: none configured
    std::vector<std::string> tokens;
    KXJSON answer;
    int analyticsPosts;
    int inboxSummaryFetches;
};

void PrintTo(const FetchedGuestCase& c, std::ostream* os) {
    *os << c.name;
}

class KXFetchedGuestTest : public KXGuestFetchTest,
                           public testing::WithParamInterface<FetchedGuestCase> {};

// No token, or one whose profile the guest has: one request, then success.
TEST_P(KXFetchedGuestTest, PostsTheSessionForAnotherGuestAndStartsTheInboxSummary) {
    const FetchedGuestCase& c = GetParam();
    if (c.inboxDomainId) {
        KXConfig::defaultConfig().setInboxDomainId(c.inboxDomainId);
    }
    haveTokens(c.tokens);
    service.script("GET", path("/guests/g1"), KXScriptedAnswer::json(200, c.answer));
    const auto outcome = fetch();
    EXPECT_EQ(
        outcome.successes,
        std::vector<KXJSON>{c.answer.contains("externalId") ? c.answer["externalId"] : KXJSON()});
    EXPECT_EQ(requestLines(), Lines{"GET " + path("/guests/g1")});
    EXPECT_EQ(analyticsPosts, c.analyticsPosts);
    EXPECT_EQ(inboxSummaryFetches, c.inboxSummaryFetches);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, KXFetchedGuestTest,
    testing::Values(FetchedGuestCase{"SameGuest", nullptr, {}, guestJSON("g1"), 0, 0},
                    FetchedGuestCase{"OneTokenWithItsProfile",
                                     nullptr,
                                     {"aa"},
                                     guestJSON("g1", {apnsProfileJSON("P1", "aa")}),
                                     0,
                                     0},
                    FetchedGuestCase{"OtherGuest", nullptr, {}, guestJSON("G1"), 1, 0},
                    FetchedGuestCase{"NoIdInAnswer", nullptr, {}, KXJSON::object(), 1, 0},
                    FetchedGuestCase{"InboxConfigured", "Dom", {}, guestJSON("g1"), 0, 1},
                    FetchedGuestCase{"EmptyInboxStillStarts", "", {}, guestJSON("g1"), 0, 1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(KXGuestFetchTest, AFailedFetchLeavesTheGuestAsItWas) {
    kxLogLevel = 1;
    auto sink = KXCapturingSink::install();
    haveGuest(guestJSON("g0", {apnsProfileJSON("P1", "aa")}));
    const KXJSON before = describeGuest(*KXGuest::currentGuest());
    service.script("GET", path("/guests/g1"), KXScriptedAnswer::json(404, {{"error", "none"}}));

    const auto outcome = fetch();
    ASSERT_EQ(outcome.failures.size(), 1u);
    EXPECT_EQ(outcome.failures[0], KXError(NSOSStatusErrorDomain, 404, {{"error", "none"}}));
    EXPECT_EQ(describeGuest(*KXGuest::currentGuest()), before);
    EXPECT_EQ(sink->linesContaining("ERROR: " + outcome.failures[0].description()).size(), 1u);
}

struct RegistrationCase {
    const char* name;
    bool withToken;
    std::function<void(KXGuestOutcome&)> operation;
    KXJSON body;
};

void PrintTo(const RegistrationCase& c, std::ostream* os) {
    *os << c.name;
}

KXJSON withPush(KXJSON body) {
    body["deliveryProfiles"] = {apnsAddress("aa")};
    return body;
}

const KXJSON kFullBody = {{"externalId", "g5"},
                          {"languagePref", "de"},
                          {"tags", {"a"}},
                          {"buCreativeLabel", "c"},
                          {"buProperties", {{"k", 1}}}};

void registerFull(KXGuestOutcome& o) {
    M::registerGuestWithId("g5", {{"k", 1}}, "de", "c", {"a"}, o.onGuest(), o.onFailure());
}

const RegistrationCase kRegistrationCases[] = {
    {"ServiceChosenIdWithoutToken", false,
     [](auto& o) { M::registerGuestWithSuccess(o.onGuest(), o.onFailure()); }, KXJSON::object()},
    {"ServiceChosenIdWithToken", true,
     [](auto& o) { M::registerGuestWithSuccess(o.onGuest(), o.onFailure()); },
     withPush(KXJSON::object())},
    {"IdWithoutToken",
     false,
     [](auto& o) { M::registerGuestWithId("g5", o.onGuest(), o.onFailure()); },
     {{"externalId", "g5"}}},
    {"IdWithToken", true, [](auto& o) { M::registerGuestWithId("g5", o.onGuest(), o.onFailure()); },
     withPush({{"externalId", "g5"}})},
    {"ParametersOverrideAndNullsAreLeftOut",
     true,
     [](auto& o) {
         M::registerGuestWithId("g5",
                                {{"externalId", "g9"},
                                 {"deliveryProfiles", KXJSON::array()},
                                 {"skip", nullptr},
                                 {"extra", {{"a", 1}}}},
                                o.onGuest(), o.onFailure());
     },
     {{"externalId", "g9"}, {"deliveryProfiles", KXJSON::array()}, {"extra", {{"a", 1}}}}},
    {"QRIDWithoutTokenSendsNoType",
     false,
     [](auto& o) { M::registerGuestWithQRID("q1", o.onGuest(), o.onFailure()); },
     {{"externalId", "q1"}}},
    {"QRIDWithToken", true,
     [](auto& o) { M::registerGuestWithQRID("q1", o.onGuest(), o.onFailure()); },
     withPush({{"externalId", "q1"}, {"externalIdType", "QRID"}})},
    {"FullWithoutToken", false, registerFull, kFullBody},
    {"FullWithToken", true, registerFull, withPush(kFullBody)},
};

class KXGuestRegistrationTest : public KXGuestServiceTest,
                                public testing::WithParamInterface<RegistrationCase> {};

TEST_P(KXGuestRegistrationTest, PostsTheBodyThenFetchesTheNewGuestAndPostsTheSession) {
    const RegistrationCase& c = GetParam();
    if (c.withToken) {
        haveTokens({"aa"});
    }
    service.script("POST", path("/guests"), createdAs("N1"));
    service.script("GET", path("/guests/N1"),
                   KXScriptedAnswer::json(200, guestJSON("N1", {apnsProfileJSON("P1", "aa")})));

    KXGuestOutcome outcome;
    c.operation(outcome);
    awaitCallbacks(outcome, 1);

    EXPECT_EQ(outcome.successes, std::vector<KXJSON>{"N1"});
    EXPECT_EQ(requestLines(), (Lines{"POST " + path("/guests"), "GET " + path("/guests/N1")}));
    EXPECT_EQ(KXJSON::parse(service.requests()[0].body), c.body);
    EXPECT_EQ(analyticsPosts, 1);
}

INSTANTIATE_TEST_SUITE_P(Bodies, KXGuestRegistrationTest, testing::ValuesIn(kRegistrationCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(KXGuestServiceTest, RegistrationAddsTheConfiguredInboxProfileAfterSuccess) {
    kxLogLevel = 4;
    auto sink = KXCapturingSink::install();
    KXConfig::defaultConfig().setInboxDomainId("Dom");
    service.script("POST", path("/guests"), createdAs("N1"));
    service.script("GET", path("/guests/N1"), KXScriptedAnswer::json(200, guestJSON("N1")));
    service.script("POST", path("/guests/N1/profiles"), createdAs("IN-9"));

    KXGuestOutcome outcome;
    M::registerGuestWithSuccess(outcome.onGuest(), outcome.onFailure());
    awaitCallbacks(outcome, 1);
    ASSERT_TRUE(waitFor([&] { return logged(*sink.sink, "Add inbox delivery profile: IN-9"); }));

    EXPECT_EQ(requestLines(), (Lines{"POST " + path("/guests"), "GET " + path("/guests/N1"),
                                     "POST " + path("/guests/N1/profiles")}));
    EXPECT_EQ(KXJSON::parse(service.requests()[2].body),
              M::inboxDeliveryAddressWithId("N1", "Dom"));
    EXPECT_EQ(inboxSummaryFetches, 1);
}

struct RegistrationFailureCase {
    const char* name;
    KXScriptedAnswer post;
    KXScriptedAnswer get;
    KXError expected;
};

void PrintTo(const RegistrationFailureCase& c, std::ostream* os) {
    *os << c.name;
}

class KXGuestRegistrationFailureTest : public KXGuestServiceTest,
                                       public testing::WithParamInterface<RegistrationFailureCase> {
};

TEST_P(KXGuestRegistrationFailureTest, ReachesTheCallerWithoutPostingTheSession) {
    const RegistrationFailureCase& c = GetParam();
    service.script("POST", path("/guests"), c.post);
    service.script("GET", path("/guests/N1"), c.get);
    KXGuestOutcome outcome;
    M::registerGuestWithId("g5", outcome.onGuest(), outcome.onFailure());
    awaitCallbacks(outcome, 1);
    EXPECT_EQ(outcome.failures, std::vector<KXError>{c.expected});
    EXPECT_TRUE(outcome.successes.empty());
    EXPECT_EQ(analyticsPosts, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, KXGuestRegistrationFailureTest,
    testing::Values(RegistrationFailureCase{"PostRefused", KXScriptedAnswer::empty(400),
                                            KXScriptedAnswer::empty(200),
                                            KXError(NSOSStatusErrorDomain, 400)},
                    RegistrationFailureCase{"NoNewRecordId", KXScriptedAnswer::empty(201),
                                            KXScriptedAnswer::empty(200),
                                            M::errorWithMessage("missing newRecordId")},
                    RegistrationFailureCase{"FetchRefused", createdAs("N1"),
                                            KXScriptedAnswer::empty(404),
                                            KXError(NSOSStatusErrorDomain, 404)}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
