// Every single-request guest operation against the loopback service (method, URL, body, what
// success receives), every validation (error, log line, nothing sent) and the channels that
// have no switch.
#include "KXGuestServiceFixture.h"

#include <KXClientFramework/KXConfig.h>

#include <functional>
#include <string>

namespace {

using Operation = std::function<void(KXGuestOutcome&)>;
using M = KXGuestManager;

// The current guest of these cases, on a device whose token is "aa".
const KXJSON& standardGuest() {
    static const KXJSON guest = {
        {"externalId", "g1"},
        {"languagePref", "fr"},
        {"buProperties", {{"tier", 2}}},
        {"tags", {"t"}},
        {"deliveryProfiles",
         {apnsProfileJSON("AP-1", "aa"), profileJSON("IN-1", "inbox", {{"inboxDomainId", "Dom"}}),
          profileJSON("EM-1", "email"), profileJSON("SM-1", "sms")}}};
    return guest;
}

class KXGuestOperationTest : public KXGuestServiceTest {
protected:
    KXGuestOperationTest() {
        KXConfig::defaultConfig().setInboxDomainId("Dom");
        haveGuest(standardGuest());
        haveTokens({"aa"});
    }
};

struct RequestCase {
    const char* name;
    Operation operation;
    const char* method;
    std::string suffix;  // after the base URI, query included
    const char* body;    // JSON, or nullptr for no body
    KXJSON expected;     // what success receives
};

void PrintTo(const RequestCase& c, std::ostream* os) {
    *os << c.name;
}

KXScriptedAnswer createdAnswer(const char* headerName) {
    KXScriptedAnswer answer = KXScriptedAnswer::empty(201);
    answer.headers = {{headerName, "NEW-7"}};
    return answer;
}

const char* const kApnsBody =
    R"({"address":{"channel":"APNS_PUSH","attributes":{"applicationToken":"aa","applicationId":"com.example.frontdesk"}}})";

const RequestCase kRequestCases[] = {
    {"SaveIsAPostOfTheScalarsAndProperties",
     [](auto& o) { M::saveGuest(*KXGuest::currentGuest(), o.onBool(), o.onFailure()); }, "POST",
     "/guests/g1", R"({"externalId":"g1","languagePref":"fr","buProperties":{"tier":2}})", true},
    {"Delete", [](auto& o) { M::deleteGuest("g1", o.onBool(), o.onFailure()); }, "DELETE",
     "/guests/g1", nullptr, true},
    {"AddAPNSProfile",
     [](auto& o) { M::addAPNSDeliveryProfileForGuestWithId("g2", o.onId(), o.onFailure()); },
     "POST", "/guests/g2/profiles", kApnsBody, "NEW-7"},
    {"UpdateAPNSProfile",
     [](auto& o) { M::updateAPNSGuestWithId("g2", "P-3", o.onBool(), o.onFailure()); }, "POST",
     "/guests/g2/profiles/P-3", kApnsBody, true},
    {"SubscribeByProfile",
     [](auto& o) { M::subscribeToList("L1", "P-3", o.onBool(), o.onFailure()); }, "PUT",
     "/guests/g1/profiles/P-3/memberships/L1?createList=true", R"({"externalId":"g1","enabled":1})",
     true},
    {"UnsubscribeByProfile",
     [](auto& o) { M::unsubscribeToList("L1", "P-3", o.onBool(), o.onFailure()); }, "DELETE",
     "/guests/g1/profiles/P-3/memberships/L1", nullptr, true},
    {"SubscribeByPushChannelUsesThisDevicesProfile",
     [](auto& o) { M::subscribeToList("L1", KXChannelTypeAPNS, o.onBool(), o.onFailure()); }, "PUT",
     "/guests/g1/profiles/AP-1/memberships/L1?createList=true",
     R"({"externalId":"g1","enabled":1})", true},
    {"SubscribeByInboxChannelUsesTheConfiguredDomain",
     [](auto& o) { M::subscribeToList("L1", KXChannelTypeInbox, o.onBool(), o.onFailure()); },
     "PUT", "/guests/g1/profiles/IN-1/memberships/L1?createList=true",
     R"({"externalId":"g1","enabled":1})", true},
    {"UnsubscribeBySMSChannel",
     [](auto& o) { M::unsubscribeToList("L2", KXChannelTypeSMS, o.onBool(), o.onFailure()); },
     "DELETE", "/guests/g1/profiles/SM-1/memberships/L2", nullptr, true},
    {"UnsubscribeByEmailChannel",
     [](auto& o) { M::unsubscribeToList("L2", KXChannelTypeEmail, o.onBool(), o.onFailure()); },
     "DELETE", "/guests/g1/profiles/EM-1/memberships/L2", nullptr, true},
    {"EnablePushProfile",
     [](auto& o) { M::APNSDeliveryProfileEnable(true, o.onBool(), o.onFailure()); }, "POST",
     "/guests/g1/profiles/AP-1/enable", nullptr, true},
    {"DisablePushChannel",
     [](auto& o) {
         M::disableDeliveryProfileForChannel(KXChannelTypeAPNS, o.onBool(), o.onFailure());
     },
     "POST", "/guests/g1/profiles/AP-1/disable", nullptr, true},
    {"EnableInboxChannel",
     [](auto& o) {
         M::enableDeliveryProfileForChannel(KXChannelTypeInbox, o.onBool(), o.onFailure());
     },
     "POST", "/guests/g1/profiles/IN-1/enable", nullptr, true},
    {"DisableInboxProfile",
     [](auto& o) { M::inboxDeliveryProfileEnable(false, o.onBool(), o.onFailure()); }, "POST",
     "/guests/g1/profiles/IN-1/disable", nullptr, true},
    {"AddInboxProfileForAGuest",
     [](auto& o) {
         M::addInboxDeliveryProfileForGuestWithId("g2", "Dom2", o.onId(), o.onFailure());
     },
     "POST", "/guests/g2/profiles",
     R"({"address":{"channel":"INBOX","attributes":{"guestId":"g2","inboxDomainId":"Dom2"}}})",
     "NEW-7"},
    {"AddInboxProfileForTheCurrentGuest",
     [](auto& o) { M::addInboxDeliveryProfileWithInboxId("Dom2", o.onId(), o.onFailure()); },
     "POST", "/guests/g1/profiles",
     R"({"address":{"channel":"INBOX","attributes":{"guestId":"g1","inboxDomainId":"Dom2"}}})",
     "NEW-7"},
    {"AddEmailProfile",
     [](auto& o) {
         M::addEmailDeliveryProfileForGuestWithId("g2", "a@b.c", o.onId(), o.onFailure());
     },
     "POST", "/guests/g2/profiles",
     R"({"address":{"channel":"EMAIL","attributes":{"emailAddress":"a@b.c"}}})", "NEW-7"},
    {"AddSMSProfile",
     [](auto& o) { M::addSMSDeliveryProfileForGuestWithId("g2", "555", o.onId(), o.onFailure()); },
     "POST", "/guests/g2/profiles", R"({"address":{"channel":"SMS","attributes":{"mdn":"555"}}})",
     "NEW-7"},
};

class KXGuestRequestTest : public KXGuestOperationTest,
                           public testing::WithParamInterface<RequestCase> {};

TEST_P(KXGuestRequestTest, SendsOneRequestAndReportsItsResult) {
    const RequestCase& c = GetParam();
    const std::string route = path(c.suffix.substr(0, c.suffix.find('?')));
    // The service names the new record in whatever case it likes.
    service.script(c.method, route, createdAnswer("NewRecordID"));

    KXGuestOutcome outcome;
    c.operation(outcome);
    awaitCallbacks(outcome, 1);

    ASSERT_EQ(requestLines(),
              std::vector<std::string>{std::string(c.method) + " " + path(c.suffix)});
    const std::string body = service.requests().front().body;
    EXPECT_EQ(body.empty() ? KXJSON() : KXJSON::parse(body),
              c.body ? KXJSON::parse(c.body) : KXJSON());
    EXPECT_EQ(outcome.successes, std::vector<KXJSON>{c.expected});
    EXPECT_TRUE(outcome.failures.empty());
}

INSTANTIATE_TEST_SUITE_P(Operations, KXGuestRequestTest, testing::ValuesIn(kRequestCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(KXGuestOperationTest, TransportFailuresAreLoggedAndPassedOnUnchanged) {
    kxLogLevel = 4;
    auto sink = KXCapturingSink::install();
    service.script("POST", path("/guests/g1/profiles/AP-1/enable"),
                   KXScriptedAnswer::json(409, {{"reason", "busy"}}));
    service.script("POST", path("/guests/g2/profiles"), KXScriptedAnswer::empty(201));

    KXGuestOutcome enable;
    M::APNSDeliveryProfileEnable(true, enable.onBool(), enable.onFailure());
    awaitCallbacks(enable, 1);
    ASSERT_EQ(enable.failures.size(), 1u);
    EXPECT_EQ(enable.failures[0], KXError(NSOSStatusErrorDomain, 409, {{"reason", "busy"}}));
    EXPECT_TRUE(logged(*sink.sink, "ERROR: " + enable.failures[0].description()));

    // A created answer without "newRecordId" names no profile: a failure, not an empty id.
    KXGuestOutcome add;
    M::addSMSDeliveryProfileForGuestWithId("g2", "555", add.onId(), add.onFailure());
    awaitCallbacks(add, 1);
    ASSERT_EQ(add.failures.size(), 1u);
    EXPECT_EQ(add.failures[0], M::errorWithMessage("missing newRecordId"));
}

struct ValidationCase {
    const char* name;
    std::function<void()> setUp;  // changes to the standard guest, device and configuration
    Operation operation;
    const char* reason;
    const char* logLine;  // the ERROR line after its prefix, or nullptr when none is written
};

void PrintTo(const ValidationCase& c, std::ostream* os) {
    *os << c.name;
}

void noChange() {}

void forgetGuestId() {
    KXGuest::currentGuest()->setExternalId(std::nullopt);
}

const ValidationCase kValidationCases[] = {
    {"SubscribeChannelEmptyList", noChange,
     [](auto& o) { M::subscribeToList("", KXChannelTypeAPNS, o.onBool(), o.onFailure()); },
     "Invalid List Id", "subscribeToList listId:, channel:1 error: Invalid List Id"},
    {"SubscribeChannelListWithBlank", noChange,
     [](auto& o) { M::subscribeToList("two words", KXChannelTypeAPNS, o.onBool(), o.onFailure()); },
     "Invalid List Id, please remove spaces",
     "subscribeToList listId:two words, channel:1 error: Invalid List Id, please remove spaces"},
    {"SubscribeChannelListWithTab", noChange,
     [](auto& o) { M::subscribeToList("a\tb", KXChannelTypeSMS, o.onBool(), o.onFailure()); },
     "Invalid List Id, please remove spaces", nullptr},
    {"SubscribeChannelWithoutGuest", forgetGuestId,
     [](auto& o) { M::subscribeToList("L1", KXChannelTypeAPNS, o.onBool(), o.onFailure()); },
     "invalid guest", "subscribeToList listId:L1, channel:1 error: invalid guest"},
    {"SubscribeChannelTokenWithoutProfile", [] { haveTokens({"zz"}); },
     [](auto& o) { M::subscribeToList("L1", KXChannelTypeAPNS, o.onBool(), o.onFailure()); },
     "no current delivery profile exists for that channel", nullptr},
    {"SubscribeChannelZero", noChange,
     [](auto& o) { M::subscribeToList("L1", KXChannelType(0), o.onBool(), o.onFailure()); },
     "channel is invalid", "subscribeToList listId:L1, channel:0 error: channel is invalid"},
    {"UnsubscribeChannelZero", noChange,
     [](auto& o) { M::unsubscribeToList("L1", KXChannelType(0), o.onBool(), o.onFailure()); },
     "Invalid Channel", "UnsubscribeToList listId:L1, channel:0 error: Invalid Channel"},
    {"UnsubscribeChannelFive", noChange,
     [](auto& o) { M::unsubscribeToList("L1", KXChannelType(5), o.onBool(), o.onFailure()); },
     "channel is invalid", nullptr},
    {"UnsubscribeChannelWithoutProfile",
     [] { KXConfig::defaultConfig().setInboxDomainId("Other"); },
     [](auto& o) { M::unsubscribeToList("L1", KXChannelTypeInbox, o.onBool(), o.onFailure()); },
     "no current delivery profile exists for that channel", nullptr},
    {"UnsubscribeChannelListWithBlank", noChange,
     [](auto& o) { M::unsubscribeToList("L 1", KXChannelTypeSMS, o.onBool(), o.onFailure()); },
     "Invalid List Id, please remove spaces", nullptr},
    {"SubscribeProfileAbsentList", noChange,
     [](auto& o) { M::subscribeToList(std::nullopt, "P1", o.onBool(), o.onFailure()); },
     "Invalid List Id",
     "subscribeToList listId:(null), deliveryProfileId:P1 error: Invalid List Id"},
    {"SubscribeProfileEmptyProfile", noChange,
     [](auto& o) { M::subscribeToList("L1", std::string(), o.onBool(), o.onFailure()); },
     "Invalid Delivery Profile Id", nullptr},
    {"UnsubscribeProfileListWithBlank", noChange,
     [](auto& o) { M::unsubscribeToList("L 1", "P1", o.onBool(), o.onFailure()); },
     "Invalid List Id, please remove spaces",
     "unsubscribeToList listId:L 1, deliveryProfileId:P1 error: Invalid List Id, please remove "
     "spaces"},
    {"UnsubscribeProfileAbsentProfile", noChange,
     [](auto& o) { M::unsubscribeToList("L1", std::nullopt, o.onBool(), o.onFailure()); },
     "Invalid Delivery Profile Id", nullptr},
    {"EnablePushWithoutGuest", forgetGuestId,
     [](auto& o) { M::APNSDeliveryProfileEnable(true, o.onBool(), o.onFailure()); },
     "invalid guest", "APNSDeliveryProfileEnable error: invalid guest"},
    {"EnablePushWithoutToken", [] { KXDevice::currentDevice().deleteDeviceToken(); },
     [](auto& o) { M::APNSDeliveryProfileEnable(true, o.onBool(), o.onFailure()); },
     "invalid guest delivery profile", nullptr},
    {"EnableInboxWithoutProfile", [] { KXConfig::defaultConfig().setInboxDomainId("dom"); },
     [](auto& o) { M::inboxDeliveryProfileEnable(true, o.onBool(), o.onFailure()); },
     "Inbox delivery profile is nil or empty",
     "inboxDeliveryProfileEnable error: Inbox delivery profile is nil or empty"},
    {"EnableInboxWithoutGuest", forgetGuestId,
     [](auto& o) { M::inboxDeliveryProfileEnable(true, o.onBool(), o.onFailure()); },
     "invalid guest", nullptr},
    {"EnableChannelNine", noChange,
     [](auto& o) {
         M::enableDeliveryProfileForChannel(KXChannelType(9), o.onBool(), o.onFailure());
     },
     "Invalid Channel", nullptr},
    {"AddEmailWithoutGuestId", noChange,
     [](auto& o) {
         M::addEmailDeliveryProfileForGuestWithId("", "a@b.c", o.onId(), o.onFailure());
     },
     "invalid guest externalId",
     "addEmailDeliveryProfileForGuestWithId: , email: a@b.c, error: invalid guest externalId"},
    {"AddEmailWithoutAddress", noChange,
     [](auto& o) { M::addEmailDeliveryProfileForGuestWithId("g1", "", o.onId(), o.onFailure()); },
     "invalid emailAddress", nullptr},
    {"AddSMSWithoutNumber", noChange,
     [](auto& o) { M::addSMSDeliveryProfileForGuestWithId("g1", "", o.onId(), o.onFailure()); },
     "invalid mdn", "addSMSDeliveryProfileForGuestWithId: g1, mdn: ,  error: invalid mdn"},
    {"AddSMSWithoutGuestId", noChange,
     [](auto& o) {
         M::addSMSDeliveryProfileForGuestWithId(std::nullopt, "555", o.onId(), o.onFailure());
     },
     "invalid guest externalId", nullptr},
    {"UpdateWithoutGuestId", noChange,
     [](auto& o) { M::updateAPNSGuestWithId("", "P1", o.onBool(), o.onFailure()); },
     "invalid guest externalId",
     "updateAPNSGuestWithId: , profileId: P1,  error: invalid guest externalId"},
    {"UpdateWithoutProfileId", noChange,
     [](auto& o) { M::updateAPNSGuestWithId("g1", std::nullopt, o.onBool(), o.onFailure()); },
     "invalid deliveryProfileId", nullptr},
    {"UpdateWithoutApplicationId", [] { KXSettings::shared().setApplicationId(std::nullopt); },
     [](auto& o) { M::updateAPNSGuestWithId("g1", "P1", o.onBool(), o.onFailure()); },
     "no applicationId", "updateAPNSGuestWithId: g1, profileId: P1,  error: no applicationId"},
    {"DeleteWithoutId", noChange, [](auto& o) { M::deleteGuest("", o.onBool(), o.onFailure()); },
     "Invalid guestId", nullptr},
    {"RegisterWithoutId", noChange,
     [](auto& o) { M::registerGuestWithId("", o.onGuest(), o.onFailure()); }, "invalid guest",
     nullptr},
    {"RegisterWithParametersWithoutId", noChange,
     [](auto& o) {
         M::registerGuestWithId(std::nullopt, {{"externalId", "g9"}}, o.onGuest(), o.onFailure());
     },
     "invalid guest", nullptr},
    {"RegisterQRIDWithoutId", noChange,
     [](auto& o) { M::registerGuestWithQRID("", o.onGuest(), o.onFailure()); }, "invalid guest",
     nullptr},
};

class KXGuestValidationTest : public KXGuestOperationTest,
                              public testing::WithParamInterface<ValidationCase> {};

TEST_P(KXGuestValidationTest, FailsAtOnceWithCode99AndSendsNothing) {
    const ValidationCase& c = GetParam();
    c.setUp();
    kxLogLevel = 4;
    auto sink = KXCapturingSink::install();

    KXGuestOutcome outcome;
    c.operation(outcome);
    // Reported before the operation returned, on the calling thread.
    ASSERT_EQ(outcome.failures.size(), 1u);
    EXPECT_EQ(outcome.failures[0], KXError(NSOSStatusErrorDomain, 99, {{"message", c.reason}}));
    if (c.logLine) {
        EXPECT_EQ(sink->linesContaining(c.logLine).size(), 1u) << c.logLine;
        EXPECT_EQ(sink->linesContaining("[ERROR]").size(), 1u);
    }
    drain();
    EXPECT_EQ(outcome.callbacks(), 1);
    EXPECT_TRUE(service.requests().empty());
}

INSTANTIATE_TEST_SUITE_P(Checks, KXGuestValidationTest, testing::ValuesIn(kValidationCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(KXGuestOperationTest, SMSAndEmailChannelsHaveNoSwitchAndAnswerNothing) {
    KXGuestOutcome outcome;
    for (KXChannelType channel : {KXChannelTypeSMS, KXChannelTypeEmail}) {
        M::enableDeliveryProfileForChannel(channel, outcome.onBool(), outcome.onFailure());
        M::disableDeliveryProfileForChannel(channel, outcome.onBool(), outcome.onFailure());
    }
    drain();
    EXPECT_EQ(outcome.callbacks(), 0);
    EXPECT_TRUE(service.requests().empty());
}

}  // namespace
