// The guest's lookups over its profiles, its business-unit properties and logging out.
#include "KXGuestServiceFixture.h"

#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXException.h>

#include <functional>
#include <string>

namespace {

class KXGuestLookupTest : public testing::Test {
protected:
    KXGuestLookupTest() {
        KXConfig::defaultConfig().setInboxDomainId("Dom");
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

using Lookup = std::function<std::shared_ptr<KXDeliveryProfile>(const KXGuest&)>;

Lookup byId(std::optional<std::string> id) {
    return [id](const KXGuest& g) { return g.deliveryProfileForId(id); };
}
Lookup byInboxId(std::string id) {
    return [id](const KXGuest& g) { return g.inboxDeliveryProfileWithInboxId(id); };
}
Lookup byToken(std::string token) {
    return [token](const KXGuest& g) { return g.APNSDeliveryProfileWithApplicationToken(token); };
}
Lookup byChannel(KXChannelType channel) {
    return [channel](const KXGuest& g) { return g.currentDeliveryProfileForChannel(channel); };
}
const Lookup forThisDevice = [](const KXGuest& g) {
    return g.APNSDeliveryProfileForCurrentDevice();
};

TEST_F(KXGuestLookupTest, FindsTheProfileOfAnIdInboxTokenDeviceOrChannel) {
    struct Row {
        Lookup lookup;
        std::optional<std::string> expected;  // absent: none found
        const char* token = nullptr;          // this device's token
        const char* inboxDomainId = "Dom";
    };
    const Row rows[] = {
        // Ids ignore case; inbox ids and tokens do not. Tokens count on push profiles only,
        // whatever the case of the channel name.
        {byId("ap-2"), "AP-2"},
        {byId(""), std::nullopt},
        {byId(std::nullopt), std::nullopt},
        {byId("AP-3"), std::nullopt},
        {byInboxId("Dom"), "IN-1"},
        {byInboxId("dom"), std::nullopt},
        {byInboxId(""), std::nullopt},
        {byToken("bb"), "AP-2"},
        {byToken("AA"), std::nullopt},
        {byToken("cc"), std::nullopt},
        {byToken(""), std::nullopt},
        {forThisDevice, std::nullopt},
        {forThisDevice, "AP-2", "bb"},
        // By channel: this device's push profile, the first SMS or e-mail profile, the inbox
        // profile of the configured domain.
        {byChannel(KXChannelTypeAPNS), std::nullopt},
        {byChannel(KXChannelTypeAPNS), "AP-1", "aa"},
        {byChannel(KXChannelTypeSMS), "SM-1"},
        {byChannel(KXChannelTypeEmail), "EM-1"},
        {byChannel(KXChannelTypeInbox), "IN-1"},
        {byChannel(KXChannelTypeInbox), std::nullopt, nullptr, nullptr},
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
}

TEST_F(KXGuestLookupTest, ChannelListsKeepProfileOrderWhateverTheCase) {
    const auto ids = [](const KXGuest::Profiles& profiles) {
        std::vector<std::optional<std::string>> found;
        for (const auto& profile : profiles) {
            found.push_back(profile->profileId());
        }
        return found;
    };
    using Ids = std::vector<std::optional<std::string>>;
    EXPECT_EQ(ids(guest->APNSDeliveryProfiles()), (Ids{"AP-1", "AP-2"}));
    EXPECT_EQ(ids(guest->inboxDeliveryProfiles()), (Ids{"IN-0", "IN-1"}));
    EXPECT_EQ(ids(guest->emailDeliveryProfiles()), (Ids{"EM-1", "EM-2"}));
    EXPECT_EQ(ids(guest->smsDeliveryProfiles()), (Ids{"SM-1"}));
    EXPECT_TRUE(guest->hasAPNSDeliveryProfile());
    EXPECT_TRUE(guest->hasInboxDeliveryProfile());
    EXPECT_FALSE(KXGuest().hasAPNSDeliveryProfile());
}

TEST_F(KXGuestLookupTest, ChannelOutsideOneToFourRaises) {
    for (std::int64_t channel : {0, 5, -1, 1000}) {
        try {
            guest->currentDeliveryProfileForChannel(static_cast<KXChannelType>(channel));
            ADD_FAILURE() << "channel " << channel << " did not raise";
        } catch (const KXException& exception) {
            EXPECT_EQ(exception.name(), "Invalid KXChannelType value");
            EXPECT_EQ(exception.reason(), "channel is invalid");
        }
    }
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
    guest.removeBuPropertiesForKeys({});
    EXPECT_EQ(guest.buProperties(), KXJSON::parse(R"({"a":1,"b":[3],"c":null})"));
    guest.removeBuPropertiesForKeys({"a", "c", "missing"});
    EXPECT_EQ(guest.buProperties(), KXJSON::parse(R"({"b":[3]})"));
    EXPECT_EQ(guest.guestData(), KXJSON::parse(R"({"buProperties":{"b":[3]}})"));
}

// How the analytics post ends: it succeeds, fails, or no engine runs to post it.
const char* const kPostOutcomes[] = {"PostSucceeds", "PostFails", "NoEngine"};

class KXGuestLogoutTest : public testing::TestWithParam<const char*> {
protected:
    void TearDown() override { kxSetAnalyticsSessionPoster(nullptr); }
};

TEST_P(KXGuestLogoutTest, ClearsIdProfilesAndTagsOnlyOnceTheSessionIsPosted) {
    auto platform = KXTestPlatform::install();
    const std::string outcome = GetParam();
    int posts = 0;
    if (outcome != "NoEngine") {
        kxSetAnalyticsSessionPoster([&posts, outcome](auto success, auto failure) {
            ++posts;
            if (outcome == "PostSucceeds" && success) {
                success();
            } else if (outcome == "PostFails" && failure) {
                failure(KXError(NSOSStatusErrorDomain, 500));
            }
        });
    }
    const auto guest = KXGuest::currentGuest();
    guest->guestWithDictionary(KXJSON::parse(R"({"externalId":"g1","externalIdType":"QRID",
        "languagePref":"fr","buCreativeLabel":"gold","tags":["a"],"buProperties":{"k":1},
        "deliveryProfiles":[{"id":"p1"}]})"));
    KXJSON expected = describeGuest(*guest);
    if (outcome == "PostSucceeds") {
        expected.update(
            {{"externalId", nullptr}, {"deliveryProfiles", nullptr}, {"tags", nullptr}});
    }

    guest->logout();
    EXPECT_EQ(describeGuest(*guest), expected);
    EXPECT_EQ(posts, outcome == "NoEngine" ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(Outcomes, KXGuestLogoutTest, testing::ValuesIn(kPostOutcomes),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
