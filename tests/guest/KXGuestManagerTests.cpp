// Every single-request guest operation against the loopback service (method, URL, body, what
// success receives), every refusal (error, log line, nothing sent) and the channels that have no
// switch.
#include "KXGuestServiceFixture.h"

#include <KXClientFramework/KXConfig.h>

#include <functional>
#include <string>

namespace {

using M = KXGuestManager;

struct RequestCase {
    const char* name;
    std::function<void(KXGuestLog&)> operation;
    std::string result;     // what the log holds afterwards
    const char* request;    // "METHOD suffix", query included
    KXJSON body = nullptr;  // none sent
};

// A refusal: the ERROR line it writes (its reason after "error: "), or only the reason when it
// writes none.
struct RefusalCase {
    const char* name;
    std::function<void(KXGuestLog&)> operation;
    std::string text;
    std::function<void()> setUp = [] {};  // changes to the guest, device and configuration below
};

void PrintTo(const RequestCase& c, std::ostream* os) {
    *os << c.name;
}
void PrintTo(const RefusalCase& c, std::ostream* os) {
    *os << c.name;
}

// The current guest, on a device whose token is "aa" and with inbox domain "Dom".
class KXGuestOperationTest : public KXGuestServiceTest {
protected:
    KXGuestOperationTest() {
        KXConfig::defaultConfig().setInboxDomainId("Dom");
        haveGuest({{"externalId", "g1"},
                   {"externalIdType", "QRID"},
                   {"languagePref", ""},
                   {"buCreativeLabel", "gold"},
                   {"buProperties", {{"tier", 2}}},
                   {"tags", {"t"}},
                   {"deliveryProfiles",
                    {apnsProfileJSON("AP-1", "aa"),
                     profileJSON("IN-1", "inbox", {{"inboxDomainId", "Dom"}}),
                     profileJSON("EM-1", "email"), profileJSON("SM-1", "sms")}}});
        haveTokens({"aa"});
    }
};

const KXJSON kMembership = {{"externalId", "g1"}, {"enabled", 1}};

KXJSON inboxAddress(const std::string& guest) {
    return {
        {"address",
         {{"channel", "INBOX"}, {"attributes", {{"guestId", guest}, {"inboxDomainId", "Dom2"}}}}}};
}

const RequestCase kRequestCases[] = {
    // Tags and profiles stay out of the saved body; an empty language goes in.
    {"SaveSendsTheScalarsAndProperties", KX_GUEST_CALL(M::saveGuest, *KXGuest::currentGuest()),
     "true", "POST /guests/g1",
     KXJSON::parse(
         R"({"externalId":"g1","externalIdType":"QRID","languagePref":"",
                       "buCreativeLabel":"gold","buProperties":{"tier":2}})")},
    {"Delete", KX_GUEST_CALL(M::deleteGuest, "g1"), "true", "DELETE /guests/g1"},
    {"AddAPNSProfile", KX_GUEST_CALL(M::addAPNSDeliveryProfileForGuestWithId, "g2"), "id:NEW-7",
     "POST /guests/g2/profiles", apnsAddress("aa")},
    {"UpdateAPNSProfile", KX_GUEST_CALL(M::updateAPNSGuestWithId, "g2", "P-3"), "true",
     "POST /guests/g2/profiles/P-3", apnsAddress("aa")},
    {"SubscribeByProfile", KX_GUEST_CALL(M::subscribeToList, "L1", "P-3"), "true",
     "PUT /guests/g1/profiles/P-3/memberships/L1?createList=true", kMembership},
    {"UnsubscribeByProfile", KX_GUEST_CALL(M::unsubscribeToList, "L1", "P-3"), "true",
     "DELETE /guests/g1/profiles/P-3/memberships/L1"},
    {"SubscribeByPushChannelUsesThisDevicesProfile",
     KX_GUEST_CALL(M::subscribeToList, "L1", KXChannelTypeAPNS), "true",
     "PUT /guests/g1/profiles/AP-1/memberships/L1?createList=true", kMembership},
    {"SubscribeByInboxChannelUsesTheConfiguredDomain",
     KX_GUEST_CALL(M::subscribeToList, "L1", KXChannelTypeInbox), "true",
     "PUT /guests/g1/profiles/IN-1/memberships/L1?createList=true", kMembership},
    {"UnsubscribeBySMSChannel", KX_GUEST_CALL(M::unsubscribeToList, "L2", KXChannelTypeSMS), "true",
     "DELETE /guests/g1/profiles/SM-1/memberships/L2"},
    {"UnsubscribeByEmailChannel", KX_GUEST_CALL(M::unsubscribeToList, "L2", KXChannelTypeEmail),
     "true", "DELETE /guests/g1/profiles/EM-1/memberships/L2"},
    {"EnablePushProfile", KX_GUEST_CALL(M::APNSDeliveryProfileEnable, true), "true",
     "POST /guests/g1/profiles/AP-1/enable"},
    {"DisablePushChannel", KX_GUEST_CALL(M::disableDeliveryProfileForChannel, KXChannelTypeAPNS),
     "true", "POST /guests/g1/profiles/AP-1/disable"},
    {"EnableInboxChannel", KX_GUEST_CALL(M::enableDeliveryProfileForChannel, KXChannelTypeInbox),
     "true", "POST /guests/g1/profiles/IN-1/enable"},
    {"DisableInboxProfile", KX_GUEST_CALL(M::inboxDeliveryProfileEnable, false), "true",
     "POST /guests/g1/profiles/IN-1/disable"},
    {"AddInboxProfileForAGuest",
     KX_GUEST_CALL(M::addInboxDeliveryProfileForGuestWithId, "g2", "Dom2"), "id:NEW-7",
     "POST /guests/g2/profiles", inboxAddress("g2")},
    {"AddInboxProfileForTheCurrentGuest",
     KX_GUEST_CALL(M::addInboxDeliveryProfileWithInboxId, "Dom2"), "id:NEW-7",
     "POST /guests/g1/profiles", inboxAddress("g1")},
    {"AddEmailProfile",
     KX_GUEST_CALL(M::addEmailDeliveryProfileForGuestWithId, "g2", "a@b.c"),
     "id:NEW-7",
     "POST /guests/g2/profiles",
     {{"address", {{"channel", "EMAIL"}, {"attributes", {{"emailAddress", "a@b.c"}}}}}}},
    {"AddSMSProfile",
     KX_GUEST_CALL(M::addSMSDeliveryProfileForGuestWithId, "g2", "555"),
     "id:NEW-7",
     "POST /guests/g2/profiles",
     {{"address", {{"channel", "SMS"}, {"attributes", {{"mdn", "555"}}}}}}},
};

void forgetGuestId() {
    KXGuest::currentGuest()->setExternalId(std::nullopt);
}

const RefusalCase kRefusalCases[] = {
    {"SubscribeChannelEmptyList", KX_GUEST_CALL(M::subscribeToList, "", KXChannelTypeAPNS),
     "subscribeToList listId:, channel:1 error: Invalid List Id"},
    {"SubscribeChannelListWithBlank",
     KX_GUEST_CALL(M::subscribeToList, "two words", KXChannelTypeAPNS),
     "subscribeToList listId:two words, channel:1 error: Invalid List Id, please remove spaces"},
    {"SubscribeChannelListWithTab", KX_GUEST_CALL(M::subscribeToList, "a\tb", KXChannelTypeSMS),
     "subscribeToList listId:a\tb, channel:2 error: Invalid List Id, please remove spaces"},
    {"SubscribeChannelWithoutGuest", KX_GUEST_CALL(M::subscribeToList, "L1", KXChannelTypeAPNS),
     "subscribeToList listId:L1, channel:1 error: invalid guest", forgetGuestId},
    {"SubscribeChannelTokenWithoutProfile",
     KX_GUEST_CALL(M::subscribeToList, "L1", KXChannelTypeAPNS),
     "subscribeToList listId:L1, channel:1 error: no current delivery profile exists for that "
     "channel",
     [] { haveTokens({"zz"}); }},
    {"SubscribeChannelZero", KX_GUEST_CALL(M::subscribeToList, "L1", KXChannelType(0)),
     "subscribeToList listId:L1, channel:0 error: channel is invalid"},
    {"UnsubscribeChannelZero", KX_GUEST_CALL(M::unsubscribeToList, "L1", KXChannelType(0)),
     "UnsubscribeToList listId:L1, channel:0 error: Invalid Channel"},
    {"UnsubscribeChannelFive", KX_GUEST_CALL(M::unsubscribeToList, "L1", KXChannelType(5)),
     "UnsubscribeToList listId:L1, channel:5 error: channel is invalid"},
    {"UnsubscribeChannelWithoutProfile",
     KX_GUEST_CALL(M::unsubscribeToList, "L1", KXChannelTypeInbox),
     "UnsubscribeToList listId:L1, channel:3 error: no current delivery profile exists for that "
     "channel",
     [] { KXConfig::defaultConfig().setInboxDomainId("Other"); }},
    {"UnsubscribeChannelListWithBlank",
     KX_GUEST_CALL(M::unsubscribeToList, "L 1", KXChannelTypeSMS),
     "UnsubscribeToList listId:L 1, channel:2 error: Invalid List Id, please remove spaces"},
    {"SubscribeProfileAbsentList", KX_GUEST_CALL(M::subscribeToList, std::nullopt, "P1"),
     "subscribeToList listId:(null), deliveryProfileId:P1 error: Invalid List Id"},
    {"SubscribeProfileEmptyProfile", KX_GUEST_CALL(M::subscribeToList, "L1", std::string()),
     "subscribeToList listId:L1, deliveryProfileId: error: Invalid Delivery Profile Id"},
    {"UnsubscribeProfileListWithBlank", KX_GUEST_CALL(M::unsubscribeToList, "L 1", "P1"),
     "unsubscribeToList listId:L 1, deliveryProfileId:P1 error: Invalid List Id, please remove "
     "spaces"},
    {"UnsubscribeProfileAbsentProfile", KX_GUEST_CALL(M::unsubscribeToList, "L1", std::nullopt),
     "unsubscribeToList listId:L1, deliveryProfileId:(null) error: Invalid Delivery Profile Id"},
    {"EnablePushWithoutGuest", KX_GUEST_CALL(M::APNSDeliveryProfileEnable, true),
     "APNSDeliveryProfileEnable error: invalid guest", forgetGuestId},
    {"EnablePushWithoutToken", KX_GUEST_CALL(M::APNSDeliveryProfileEnable, true),
     "APNSDeliveryProfileEnable error: invalid guest delivery profile",
     [] { KXDevice::currentDevice().deleteDeviceToken(); }},
    {"EnableInboxWithoutProfile", KX_GUEST_CALL(M::inboxDeliveryProfileEnable, true),
     "inboxDeliveryProfileEnable error: Inbox delivery profile is nil or empty",
     [] { KXConfig::defaultConfig().setInboxDomainId("dom"); }},
    {"EnableInboxWithoutGuest", KX_GUEST_CALL(M::inboxDeliveryProfileEnable, true),
     "inboxDeliveryProfileEnable error: invalid guest", forgetGuestId},
    {"EnableChannelNine", KX_GUEST_CALL(M::enableDeliveryProfileForChannel, KXChannelType(9)),
     "Invalid Channel"},
    {"AddEmailWithoutGuestId", KX_GUEST_CALL(M::addEmailDeliveryProfileForGuestWithId, "", "a@b.c"),
     "addEmailDeliveryProfileForGuestWithId: , email: a@b.c, error: invalid guest externalId"},
    {"AddEmailWithoutAddress", KX_GUEST_CALL(M::addEmailDeliveryProfileForGuestWithId, "g1", ""),
     "addEmailDeliveryProfileForGuestWithId: g1, email: , error: invalid emailAddress"},
    {"AddSMSWithoutNumber", KX_GUEST_CALL(M::addSMSDeliveryProfileForGuestWithId, "g1", ""),
     "addSMSDeliveryProfileForGuestWithId: g1, mdn: ,  error: invalid mdn"},
    {"AddSMSWithoutGuestId",
     KX_GUEST_CALL(M::addSMSDeliveryProfileForGuestWithId, std::nullopt, "555"),
     "addSMSDeliveryProfileForGuestWithId: (null), mdn: 555,  error: invalid guest externalId"},
    {"UpdateWithoutGuestId", KX_GUEST_CALL(M::updateAPNSGuestWithId, "", "P1"),
     "updateAPNSGuestWithId: , profileId: P1,  error: invalid guest externalId"},
    {"UpdateWithoutProfileId", KX_GUEST_CALL(M::updateAPNSGuestWithId, "g1", std::nullopt),
     "updateAPNSGuestWithId: g1, profileId: (null),  error: invalid deliveryProfileId"},
    {"UpdateWithoutApplicationId", KX_GUEST_CALL(M::updateAPNSGuestWithId, "g1", "P1"),
     "updateAPNSGuestWithId: g1, profileId: P1,  error: no applicationId",
     [] { KXSettings::shared().setApplicationId(std::nullopt); }},
    {"DeleteWithoutId", KX_GUEST_CALL(M::deleteGuest, ""), "Invalid guestId"},
    {"RegisterWithoutId", KX_GUEST_CALL(M::registerGuestWithId, ""), "invalid guest"},
    {"RegisterWithParametersWithoutId",
     KX_GUEST_CALL(M::registerGuestWithId, std::nullopt, {{"externalId", "g9"}}), "invalid guest"},
    {"RegisterQRIDWithoutId", KX_GUEST_CALL(M::registerGuestWithQRID, ""), "invalid guest"},
};

class KXGuestRequestTest : public KXGuestOperationTest,
                           public testing::WithParamInterface<RequestCase> {};

// The created answer names the new record in whatever case the service likes.
TEST_P(KXGuestRequestTest, SendsOneRequestAndReportsItsResult) {
    const RequestCase& c = GetParam();
    answer(c.request, createdAs("NEW-7", "NewRecordID"));
    KXGuestLog log;
    c.operation(log);
    waitForEvents(log, 1);
    ASSERT_EQ(sentRequests(), Lines{c.request});
    const std::string body = service.requests().front().body;
    EXPECT_EQ(body.empty() ? KXJSON() : KXJSON::parse(body), c.body);
    EXPECT_EQ(log.seen, Lines{c.result});
}

class KXGuestRefusalTest : public KXGuestOperationTest,
                           public testing::WithParamInterface<RefusalCase> {};

TEST_P(KXGuestRefusalTest, FailsBeforeReturningWithItsErrorLineAndSendsNothing) {
    const RefusalCase& c = GetParam();
    c.setUp();
    kxLogLevel = 4;
    auto sink = KXCapturingSink::install();
    const auto reason = c.text.rfind("error: ");
    const bool logs = reason != std::string::npos;

    KXGuestLog log;
    c.operation(log);
    EXPECT_EQ(log.seen, Lines{refused(logs ? c.text.substr(reason + 7) : c.text)});
    EXPECT_EQ(sink->linesContaining("[ERROR]").size(), logs ? 1u : 0u);
    EXPECT_EQ(sink->linesContaining(c.text).size(), logs ? 1u : 0u);
    drain();
    EXPECT_EQ(log.count(), 1u);
    EXPECT_TRUE(service.requests().empty());
}

const auto caseName = [](const auto& info) { return std::string(info.param.name); };
INSTANTIATE_TEST_SUITE_P(Operations, KXGuestRequestTest, testing::ValuesIn(kRequestCases),
                         caseName);
INSTANTIATE_TEST_SUITE_P(Checks, KXGuestRefusalTest, testing::ValuesIn(kRefusalCases), caseName);

TEST_F(KXGuestOperationTest, TransportFailuresAreLoggedAndPassedOnUnchanged) {
    kxLogLevel = 4;
    auto sink = KXCapturingSink::install();
    answer("POST /guests/g1/profiles/AP-1/enable",
           KXScriptedAnswer::json(409, {{"reason", "busy"}}));
    answer("POST /guests/g2/profiles", KXScriptedAnswer::empty(201));

    KXGuestLog log;
    M::APNSDeliveryProfileEnable(true, log.onSuccess(), log.onFailure());
    waitForEvents(log, 1);
    // A created answer without "newRecordId" names no profile: a failure, not an empty id.
    M::addSMSDeliveryProfileForGuestWithId("g2", "555", log.onSuccess(), log.onFailure());
    waitForEvents(log, 2);
    const KXError busy(NSOSStatusErrorDomain, 409, {{"reason", "busy"}});
    EXPECT_EQ(log.seen, (Lines{failed(busy), refused("missing newRecordId")}));
    EXPECT_TRUE(logged(*sink.sink, "ERROR: " + busy.description()));
}

TEST_F(KXGuestOperationTest, SMSAndEmailChannelsHaveNoSwitchAndAnswerNothing) {
    KXGuestLog log;
    for (KXChannelType channel : {KXChannelTypeSMS, KXChannelTypeEmail}) {
        M::enableDeliveryProfileForChannel(channel, log.onSuccess(), log.onFailure());
        M::disableDeliveryProfileForChannel(channel, log.onSuccess(), log.onFailure());
    }
    drain();
    EXPECT_EQ(log.count(), 0u);
    EXPECT_TRUE(service.requests().empty());
}

}  // namespace
