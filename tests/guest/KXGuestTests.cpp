#include "KXGuestServiceFixture.h"

#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXException.h>
#include <KXClientFramework/KXGuestParser.h>

#include <functional>
#include <string>

namespace {

class KXGuestLookupTest : public testing::Test {
protected:
    KXGuestLookupTest() {
        guest->guestWithDictionary({{"deliveryProfiles",
                                     {apnsProfileJSON("AP-1", "aa"), apnsProfileJSON("AP-2", "bb"),
                                      profileJSON("IN-0", "inbox", "not an object"),
                                      profileJSON("IN-1", "Inbox", {{"inboxDomainId", "Dom"}}),
                                      profileJSON("EM-1", "email"), profileJSON("EM-2", "EMAIL"),
                                      profileJSON("SM-1", "sms"),
                                      profileJSON("XX-1", "fax", {{"applicationToken", "cc"}})}}});
    }

    std::shared_ptr<KXTestPlatform> platform = KXTestPlatform::install();
    std::shared_ptr<KXGuest> guest = KXGuest::currentGuest();
};

#define KX_LOOKUP(call) [](const KXGuest& g) { return g.call; }

TEST_F(KXGuestLookupTest, FindsTheProfileOfAnIdInboxTokenDeviceOrChannelAndRefusesOtherChannels) {
    struct Row {
        std::function<std::shared_ptr<KXDeliveryProfile>(const KXGuest&)> lookup;
        std::optional<std::string> expected;  // absent: none found
        const char* token = nullptr;          // this device's token
        const char* inboxDomainId = "Dom";
    };
    const Row rows[] = {
        // Ids ignore case; inbox ids and tokens do not. Tokens count on push profiles only,
        // whatever the case of the channel name.
        {KX_LOOKUP(deliveryProfileForId("ap-2")), "AP-2"},
        {KX_LOOKUP(deliveryProfileForId(std::nullopt)), std::nullopt},
        {KX_LOOKUP(deliveryProfileForId("AP-3")), std::nullopt},
        {KX_LOOKUP(inboxDeliveryProfileWithInboxId("Dom")), "IN-1"},
        {KX_LOOKUP(inboxDeliveryProfileWithInboxId("dom")), std::nullopt},
        {KX_LOOKUP(APNSDeliveryProfileWithApplicationToken("bb")), "AP-2"},
        {KX_LOOKUP(APNSDeliveryProfileWithApplicationToken("AA")), std::nullopt},
        {KX_LOOKUP(APNSDeliveryProfileWithApplicationToken("cc")), std::nullopt},
        {KX_LOOKUP(APNSDeliveryProfileForCurrentDevice()), "AP-2", "bb"},
        // By channel: this device's push profile, the first SMS or e-mail profile, the inbox
        // profile of the configured domain.
        {KX_LOOKUP(currentDeliveryProfileForChannel(KXChannelTypeAPNS)), std::nullopt},
        {KX_LOOKUP(currentDeliveryProfileForChannel(KXChannelTypeAPNS)), "AP-1", "aa"},
        {KX_LOOKUP(currentDeliveryProfileForChannel(KXChannelTypeSMS)), "SM-1"},
        {KX_LOOKUP(currentDeliveryProfileForChannel(KXChannelTypeEmail)), "EM-1"},
        {KX_LOOKUP(currentDeliveryProfileForChannel(KXChannelTypeInbox)), "IN-1"},
        {KX_LOOKUP(currentDeliveryProfileForChannel(KXChannelTypeInbox)), std::nullopt, nullptr,
         nullptr},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE("row " + std::to_string(i));
        const Row& row = rows[i];
        if (row.token) {
            KXDevice::currentDevice().saveDeviceToken(row.token);
        } else {
            KXDevice::currentDevice().deleteDeviceToken();
        }
        KXConfig::defaultConfig().setInboxDomainId(
            row.inboxDomainId ? std::optional<std::string>(row.inboxDomainId) : std::nullopt);
        const auto found = row.lookup(*guest);
        EXPECT_EQ(found ? found->profileId() : std::nullopt, row.expected);
    }
    // A channel outside 1 to 4 raises (the refusals show its reason).
    for (std::int64_t channel : {0, 5}) {
        EXPECT_THROW(guest->currentDeliveryProfileForChannel(static_cast<KXChannelType>(channel)),
                     KXException);
    }
}

TEST_F(KXGuestLookupTest, ChannelListsKeepProfileOrderWhateverTheCase) {
    const auto ids = [](const KXGuest::Profiles& profiles) {
        std::string found;
        for (const auto& profile : profiles) {
            found += profile->profileId().value_or("?") + " ";
        }
        return found;
    };
    EXPECT_EQ(ids(guest->APNSDeliveryProfiles()), "AP-1 AP-2 ");
    EXPECT_EQ(ids(guest->inboxDeliveryProfiles()), "IN-0 IN-1 ");
    EXPECT_EQ(ids(guest->emailDeliveryProfiles()), "EM-1 EM-2 ");
    EXPECT_EQ(ids(guest->smsDeliveryProfiles()), "SM-1 ");
}

TEST(KXGuestData, BusinessUnitPropertiesMergeAndRemoveAndAreSentOnceSet) {
    KXGuest guest;
    guest.removeBuPropertiesForKeys({"a"});
    EXPECT_TRUE(guest.buProperties().is_null());
    guest.addBuProperties("not an object");
    EXPECT_TRUE(guest.buProperties().is_null());
    EXPECT_EQ(guest.guestData(), KXJSON::object());

    guest.addBuProperties({{"a", 1}, {"b", 2}});
    guest.addBuProperties({{"b", {3}}, {"c", nullptr}});
    EXPECT_EQ(guest.buProperties(), KXJSON::parse(R"({"a":1,"b":[3],"c":null})"));
    guest.removeBuPropertiesForKeys({"a", "c", "missing"});
    EXPECT_EQ(guest.buProperties(), KXJSON::parse(R"({"b":[3]})"));
    EXPECT_EQ(guest.guestData(), KXJSON::parse(R"({"buProperties":{"b":[3]}})"));
}

TEST(KXGuestData, LogoutClearsIdProfilesAndTagsOnlyOnceTheSessionIsPosted) {
    auto platform = KXTestPlatform::install();
    for (const bool postSucceeds : {true, false}) {
        SCOPED_TRACE(postSucceeds ? "PostSucceeds" : "PostFails");
        int posts = 0;
        kxSetAnalyticsSessionPoster([&posts, postSucceeds](auto success, auto) {
            ++posts;
            if (postSucceeds) {
                success();
            }
        });
        const auto guest = KXGuest::currentGuest();
        guest->guestWithDictionary(KXJSON::parse(R"({"externalId":"g1","externalIdType":"QRID",
            "languagePref":"fr","buCreativeLabel":"gold","tags":["a"],"buProperties":{"k":1},
            "deliveryProfiles":[{"id":"p1"}]})"));
        KXJSON expected = describeGuest(*guest);
        if (postSucceeds) {
            expected.update(
                {{"externalId", nullptr}, {"deliveryProfiles", nullptr}, {"tags", nullptr}});
        }

        guest->logout();
        EXPECT_EQ(describeGuest(*guest), expected);
        EXPECT_EQ(posts, 1);
    }
    kxSetAnalyticsSessionPoster(nullptr);
}

struct ParseCase {
    const char* name;
    const char* before;  // parsed first, to give the guest earlier values
    const char* input;
    const char* expected;  // describeGuest() afterwards where it differs from an empty parse
};

const ParseCase kParseCases[] = {
    {"FullGuest", "{}",
     R"({"externalId":"g1","externalIdType":"QRID","buCreativeLabel":"gold","languagePref":"fr",
         "tags":["b","a","b"],"buProperties":{"tier":2,"vip":true},
         "deliveryProfiles":[{"id":"p1","enabled":true,"tags":["t"],
           "memberships":[{"recipientListId":"L1","languagePref":"en","enabled":true}],
           "address":{"channel":"APNS_PUSH","enabled":true,"attributes":{"applicationToken":"aa"}}}]})",
     R"({"externalId":"g1","externalIdType":"QRID","languagePref":"fr","buCreativeLabel":"gold",
         "tags":["b","a","b"],"buProperties":{"tier":2,"vip":true},
         "deliveryProfiles":[{"profileId":"p1","enabled":true,"tags":["t"],
           "memberships":[{"recipientListId":"L1","languagePref":"en","enabled":true}],
           "address":{"channel":"APNS_PUSH","attributes":{"applicationToken":"aa"},"enabled":true}}]})"},
    // The type travels with the identifier: without an identifier it is ignored...
    {"TypeWithoutIdKeepsTheOldType", R"({"externalId":"g1","externalIdType":"QRID"})",
     R"({"externalIdType":"OTHER"})", R"({"externalId":"g1","externalIdType":"QRID"})"},
    // ...and a new identifier without a type clears the old type.
    {"IdWithoutTypeClearsTheType", R"({"externalId":"g1","externalIdType":"QRID"})",
     R"({"externalId":"g2"})", R"({"externalId":"g2"})"},
    // Absent scalars keep their values; absent collections are emptied.
    {"AbsentKeys",
     R"({"externalId":"g1","languagePref":"fr","buCreativeLabel":"gold",
         "tags":["a"],"buProperties":{"k":1},"deliveryProfiles":[{"id":"p1"}]})",
     "{}", R"({"externalId":"g1","languagePref":"fr","buCreativeLabel":"gold"})"},
    // Numbers become their decimal text; other wrong types count as absent.
    {"WrongTypes", R"({"languagePref":"fr"})",
     R"({"externalId":42,"externalIdType":7.0,"languagePref":true,"buCreativeLabel":1.5,
         "tags":"a","buProperties":["k"],"deliveryProfiles":{"id":"p"}})",
     R"({"externalId":"42","externalIdType":"7","languagePref":"fr","buCreativeLabel":"1.5"})"},
    {"WrongTypesInsideProfiles", "{}",
     R"({"deliveryProfiles":[7,{"id":12,"enabled":"yes","tags":"x","memberships":[1,{"enabled":0}],
         "address":{"channel":["apns"],"enabled":"no","attributes":"flat"}},{"address":"x"}]})",
     R"({"deliveryProfiles":[
         {"profileId":null,"enabled":false,"tags":null,"memberships":[],
          "address":{"channel":null,"attributes":null,"enabled":false}},
         {"profileId":"12","enabled":true,"tags":"x",
          "memberships":[{"recipientListId":null,"languagePref":null,"enabled":false},
                         {"recipientListId":null,"languagePref":null,"enabled":false}],
          "address":{"channel":null,"attributes":"flat","enabled":false}},
         {"profileId":null,"enabled":false,"tags":null,"memberships":[],
          "address":{"channel":null,"attributes":null,"enabled":false}}]})"},
    // Anything but an object leaves the guest as it was.
    {"NotAnObject", R"({"externalId":"g1","tags":["a"]})", R"(["externalId","g2"])",
     R"({"externalId":"g1","tags":["a"]})"},
};

TEST(KXGuestParser, FillsTheCurrentGuest) {
    auto platform = KXTestPlatform::install();
    for (const ParseCase& c : kParseCases) {
        SCOPED_TRACE(c.name);
        *KXGuest::currentGuest() = KXGuest();  // nothing set
        KXGuestParser::parse(KXJSON::parse(c.before));
        // Whichever guest receives the call, the current guest is filled.
        KXGuest other;
        other.guestWithDictionary(KXJSON::parse(c.input));
        KXJSON expected = KXJSON::parse(R"({"externalId":null,"externalIdType":null,
            "languagePref":null,"buCreativeLabel":null,"tags":[],"buProperties":{},
            "deliveryProfiles":[]})");
        expected.update(KXJSON::parse(c.expected));
        EXPECT_EQ(describeGuest(*KXGuest::currentGuest()), expected);
        EXPECT_EQ(other.externalId(), std::nullopt);
    }
}

}  // namespace

TEST(KXGuestParser, EachStepRefusesAMissingGuestOrDictionary) {
    using Step = bool (*)(const KXJSON&, const std::shared_ptr<KXGuest>&);
    for (Step step : {&KXGuestParser::parseRoot, &KXGuestParser::parseTags,
                      &KXGuestParser::parseDeliveryProfiles, &KXGuestParser::parseBuProperties}) {
        const auto guest = std::make_shared<KXGuest>();
        EXPECT_FALSE(step(KXJSON::object(), nullptr));
        EXPECT_FALSE(step(KXJSON::array(), guest));
        EXPECT_EQ(describeGuest(*guest), describeGuest(KXGuest()));
        EXPECT_TRUE(step(KXJSON::object(), guest));
    }
}
