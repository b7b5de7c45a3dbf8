#include "KXGuestServiceFixture.h"

#include <KXClientFramework/KXConfig.h>

#include <functional>
#include <iterator>
#include <string>

namespace {

using M = KXGuestManager;

struct RequestCase {
    std::function<void(KXGuestLog&)> operation;
    std::string result;     // what the log holds afterwards
    const char* request;    // "METHOD suffix", query included
    KXJSON body = nullptr;  // none sent
    // The created answer names the new record in whatever case the service likes.
    KXScriptedAnswer answer = createdAs("NEW-7", "NewRecordID");
    std::string errorLine = {};  // the one ERROR line a failure writes
};

// A refusal: the ERROR line it writes (its reason after "error: "), or only the reason when it
// writes none.
struct RefusalCase {
    std::function<void(KXGuestLog&)> operation;
    std::string text;
    std::function<void()> setUp = [] {};  // changes to the guest, device and configuration below
};

// The current guest, on a device whose token is "aa", with inbox domain "Dom".
class KXGuestOperationTest : public KXGuestServiceTest {
protected:
    KXGuestOperationTest() { reset(); }

    void reset() {
        KXConfig::defaultConfig().setInboxDomainId("Dom");
        KXSettings::shared().setApplicationId(kTestApplicationId);
        haveGuest(KXJSON::parse(R"({"externalId":"g1","externalIdType":"QRID","languagePref":"",
            "buCreativeLabel":"gold","buProperties":{"tier":2},"tags":["t"],"deliveryProfiles":[
            {"id":"AP-1","address":{"channel":"APNS_PUSH","attributes":{"applicationToken":"aa"}}},
            {"id":"IN-1","address":{"channel":"inbox","attributes":{"inboxDomainId":"Dom"}}},
            {"id":"EM-1","address":{"channel":"email"}},{"id":"SM-1","address":{"channel":"sms"}}]})"));
        haveTokens({"aa"});
    }
};

const KXError kBusy(NSOSStatusErrorDomain, 409, {{"reason", "busy"}});
const KXJSON kSMSAddress =
    KXJSON::parse(R"({"address":{"channel":"SMS","attributes":{"mdn":"555"}}})");

const RequestCase kRequestCases[] = {
    // Tags and profiles stay out of the saved body; an empty language goes in.
    {KX_GUEST_CALL(M::saveGuest, *KXGuest::currentGuest()), "true", "POST /guests/g1",
     KXJSON::parse(R"({"externalId":"g1","externalIdType":"QRID","languagePref":"",
                       "buCreativeLabel":"gold","buProperties":{"tier":2}})")},
    {KX_GUEST_CALL(M::addAPNSDeliveryProfileForGuestWithId, "g2"), "id:NEW-7",
     "POST /guests/g2/profiles", apnsAddress("aa")},
    {KX_GUEST_CALL(M::updateAPNSGuestWithId, "g2", "P-3"), "true", "POST /guests/g2/profiles/P-3",
     apnsAddress("aa")},
    {KX_GUEST_CALL(M::unsubscribeToList, "L2", KXChannelTypeSMS), "true",
     "DELETE /guests/g1/profiles/SM-1/memberships/L2"},
    {KX_GUEST_CALL(M::disableDeliveryProfileForChannel, KXChannelTypeAPNS), "true",
     "POST /guests/g1/profiles/AP-1/disable"},
    {KX_GUEST_CALL(M::enableDeliveryProfileForChannel, KXChannelTypeInbox), "true",
     "POST /guests/g1/profiles/IN-1/enable"},
    {KX_GUEST_CALL(M::addSMSDeliveryProfileForGuestWithId, "g2", "555"), "id:NEW-7",
     "POST /guests/g2/profiles", kSMSAddress},
    // Transport failures are logged and passed on unchanged; a created answer without
    // "newRecordId" names no profile: a failure, not an empty id.
    {KX_GUEST_CALL(M::APNSDeliveryProfileEnable, true), failed(kBusy),
     "POST /guests/g1/profiles/AP-1/enable", nullptr, KXScriptedAnswer::json(409, kBusy.userInfo),
     "ERROR: " + kBusy.description()},
    {KX_GUEST_CALL(M::addSMSDeliveryProfileForGuestWithId, "g2", "555"),
     refused("missing newRecordId"), "POST /guests/g2/profiles", kSMSAddress,
     KXScriptedAnswer::empty(201), "ERROR: missing newRecordId"},
};

const auto forgetGuestId = [] { KXGuest::currentGuest()->setExternalId(std::nullopt); };

const RefusalCase kRefusalCases[] = {
    {KX_GUEST_CALL(M::subscribeToList, "L1", KXChannelTypeAPNS),
     "subscribeToList listId:L1, channel:1 error: invalid guest", forgetGuestId},
    {KX_GUEST_CALL(M::subscribeToList, "L1", KXChannelTypeAPNS),
     "subscribeToList listId:L1, channel:1 error: no current delivery profile exists for that "
     "channel",
     [] { haveTokens({"zz"}); }},
    {KX_GUEST_CALL(M::subscribeToList, "L1", KXChannelType(0)),
     "subscribeToList listId:L1, channel:0 error: channel is invalid"},
    {KX_GUEST_CALL(M::unsubscribeToList, "L1", KXChannelType(0)),
     "UnsubscribeToList listId:L1, channel:0 error: Invalid Channel"},
    {KX_GUEST_CALL(M::unsubscribeToList, "L1", KXChannelTypeInbox),
     "UnsubscribeToList listId:L1, channel:3 error: no current delivery profile exists for that "
     "channel",
     [] { KXConfig::defaultConfig().setInboxDomainId("Other"); }},
    {KX_GUEST_CALL(M::unsubscribeToList, "L\t1", KXChannelTypeSMS),
     "UnsubscribeToList listId:L\t1, channel:2 error: Invalid List Id, please remove spaces"},
    {KX_GUEST_CALL(M::subscribeToList, std::nullopt, "P1"),
     "subscribeToList listId:(null), deliveryProfileId:P1 error: Invalid List Id"},
    {KX_GUEST_CALL(M::subscribeToList, "L1", std::string()),
     "subscribeToList listId:L1, deliveryProfileId: error: Invalid Delivery Profile Id"},
    {KX_GUEST_CALL(M::unsubscribeToList, "L1", std::nullopt),
     "unsubscribeToList listId:L1, deliveryProfileId:(null) error: Invalid Delivery Profile Id"},
    {KX_GUEST_CALL(M::APNSDeliveryProfileEnable, true),
     "APNSDeliveryProfileEnable error: invalid guest", forgetGuestId},
    {KX_GUEST_CALL(M::APNSDeliveryProfileEnable, true),
     "APNSDeliveryProfileEnable error: invalid guest delivery profile",
     [] {
         haveGuest(guestJSON("g1", {{{"address", apnsAddress("aa")["address"]}}}));
     }},
    {KX_GUEST_CALL(M::inboxDeliveryProfileEnable, true),
     "inboxDeliveryProfileEnable error: Inbox delivery profile is nil or empty",
     [] { KXConfig::defaultConfig().setInboxDomainId("dom"); }},
    {KX_GUEST_CALL(M::inboxDeliveryProfileEnable, true),
     "inboxDeliveryProfileEnable error: invalid guest", forgetGuestId},
    {KX_GUEST_CALL(M::enableDeliveryProfileForChannel, KXChannelType(9)), "Invalid Channel"},
    {KX_GUEST_CALL(M::addEmailDeliveryProfileForGuestWithId, "", "a@b.c"),
     "addEmailDeliveryProfileForGuestWithId: , email: a@b.c, error: invalid guest externalId"},
    {KX_GUEST_CALL(M::addEmailDeliveryProfileForGuestWithId, "g1", ""),
     "addEmailDeliveryProfileForGuestWithId: g1, email: , error: invalid emailAddress"},
    {KX_GUEST_CALL(M::addSMSDeliveryProfileForGuestWithId, "g1", ""),
     "addSMSDeliveryProfileForGuestWithId: g1, mdn: ,  error: invalid mdn"},
    {KX_GUEST_CALL(M::addSMSDeliveryProfileForGuestWithId, std::nullopt, "555"),
     "addSMSDeliveryProfileForGuestWithId: (null), mdn: 555,  error: invalid guest externalId"},
    {KX_GUEST_CALL(M::updateAPNSGuestWithId, "", "P1"),
     "updateAPNSGuestWithId: , profileId: P1,  error: invalid guest externalId"},
    {KX_GUEST_CALL(M::updateAPNSGuestWithId, "g1", std::nullopt),
     "updateAPNSGuestWithId: g1, profileId: (null),  error: invalid deliveryProfileId"},
    {KX_GUEST_CALL(M::updateAPNSGuestWithId, "g1", "P1"),
     "updateAPNSGuestWithId: g1, profileId: P1,  error: no applicationId",
     [] { KXSettings::shared().setApplicationId(std::nullopt); }},
    {KX_GUEST_CALL(M::deleteGuest, ""), "Invalid guestId"},
    {KX_GUEST_CALL(M::registerGuestWithId, ""), "invalid guest"},
    {KX_GUEST_CALL(M::registerGuestWithQRID, ""), "invalid guest"},
};

TEST_F(KXGuestOperationTest, EachOperationSendsOneRequestAndReportsItsResult) {
    kxLogLevel = 1;
    auto sink = KXCapturingSink::install();
    for (const RequestCase& c : kRequestCases) {
        SCOPED_TRACE(c.request);
        const std::size_t before = service.requests().size();
        answer(c.request, c.answer);
        sink->clear();
        KXGuestLog log;
        c.operation(log);
        waitForEvents(log, 1);
        const Lines sent = sentRequests();
        ASSERT_EQ(Lines(sent.begin() + before, sent.end()), Lines{c.request});
        const std::string body = service.requests()[before].body;
        EXPECT_EQ(body.empty() ? KXJSON() : KXJSON::parse(body), c.body);
        EXPECT_EQ(log.seen, Lines{c.result});
        const std::size_t errors = c.errorLine.empty() ? 0 : 1;
        EXPECT_EQ(sink->lines().size(), errors);
        EXPECT_EQ(sink->linesContaining(c.errorLine).size(), errors);
    }
}

TEST_F(KXGuestOperationTest, EachRefusalFailsBeforeReturningWithItsErrorLineAndSendsNothing) {
    kxLogLevel = 4;
    auto sink = KXCapturingSink::install();
    KXGuestLog log;
    for (const RefusalCase& c : kRefusalCases) {
        SCOPED_TRACE(c.text);
        reset();
        c.setUp();
        sink->clear();
        const auto reason = c.text.rfind("error: ");
        const bool logs = reason != std::string::npos;
        const std::size_t before = log.count();
        c.operation(log);
        EXPECT_EQ(Lines(log.seen.begin() + before, log.seen.end()),
                  Lines{refused(logs ? c.text.substr(reason + 7) : c.text)});
        EXPECT_EQ(sink->linesContaining("[ERROR]").size(), logs ? 1u : 0u);
        EXPECT_EQ(sink->linesContaining(c.text).size(), logs ? 1u : 0u);
    }
    // SMS and e-mail profiles have no switch: enabling or disabling them answers nothing.
    for (KXChannelType channel : {KXChannelTypeSMS, KXChannelTypeEmail}) {
        M::enableDeliveryProfileForChannel(channel, log.onSuccess(), log.onFailure());
        M::disableDeliveryProfileForChannel(channel, log.onSuccess(), log.onFailure());
    }
    drain();
    EXPECT_EQ(log.count(), std::size(kRefusalCases));
    EXPECT_TRUE(service.requests().empty());
}

}  // namespace
