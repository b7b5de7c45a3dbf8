// The guest's lookups over its profiles, the body it sends, its business-unit properties and
// logging out.
#include "KXGuestTestSupport.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXException.h>
#include <KXClientFramework/KXGuest.h>

#include "guest/internal/KXGuestAnalytics.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using Lookup = std::function<std::shared_ptr<KXDeliveryProfile>(const KXGuest&)>;

struct LookupCase {
    const char* name;
    Lookup lookup;
    std::optional<std::string> expectedId;  // absent: no profile found
};

void PrintTo(const LookupCase& c, std::ostream* os) {
    *os << c.name;
}

class KXGuestLookupTest : public testing::TestWithParam<LookupCase> {
protected:
    void SetUp() override {
        platform = KXTestPlatform::install();
        KXConfig::defaultConfig().setInboxDomainId("Dom");
        guest->guestWithDictionary({{"deliveryProfiles",
                                     {apnsProfileJSON("AP-1", "aa"), apnsProfileJSON("AP-2", "bb"),
                                      profileJSON("IN-0", "inbox", "not an object"),
                                      profileJSON("IN-1", "Inbox", {{"inboxDomainId", "Dom"}}),
                                      profileJSON("EM-1", "email"), profileJSON("EM-2", "EMAIL"),
                                      profileJSON("SM-1", "sms"),
                                      profileJSON("XX-1", "fax", {{"applicationToken", "cc"}})}}});
    }

    std::shared_ptr<KXTestPlatform> platform;
    std::shared_ptr<KXGuest> guest = KXGuest::currentGuest();
};

std::optional<std::string> idOf(const std::shared_ptr<KXDeliveryProfile>& profile) {
    return profile ? profile->profileId() : std::nullopt;
}

const LookupCase kLookupCases[] = {
    {"IdIgnoresCase", [](auto& g) { return g.deliveryProfileForId("ap-2"); }, "AP-2"},
    {"IdEmpty", [](auto& g) { return g.deliveryProfileForId(""); }, std::nullopt},
    {"IdAbsent", [](auto& g) { return g.deliveryProfileForId(std::nullopt); }, std::nullopt},
    {"IdUnknown", [](auto& g) { return g.deliveryProfileForId("AP-3"); }, std::nullopt},
    {"InboxIdExact", [](auto& g) { return g.inboxDeliveryProfileWithInboxId("Dom"); }, "IN-1"},
    {"InboxIdCaseDiffers", [](auto& g) { return g.inboxDeliveryProfileWithInboxId("dom"); },
     std::nullopt},
    {"InboxIdEmpty", [](auto& g) { return g.inboxDeliveryProfileWithInboxId(""); }, std::nullopt},
    {"TokenOfCapitalisedChannel",
     [](auto& g) { return g.APNSDeliveryProfileWithApplicationToken("bb"); }, "AP-2"},
    {"TokenCaseDiffers", [](auto& g) { return g.APNSDeliveryProfileWithApplicationToken("AA"); },
     std::nullopt},
    {"TokenOnOtherChannel", [](auto& g) { return g.APNSDeliveryProfileWithApplicationToken("cc"); },
     std::nullopt},
    {"TokenEmpty", [](auto& g) { return g.APNSDeliveryProfileWithApplicationToken(""); },
     std::nullopt},
    {"CurrentDeviceWithoutToken", [](auto& g) { return g.APNSDeliveryProfileForCurrentDevice(); },
     std::nullopt},
    {"CurrentDeviceWithToken",
     [](auto& g) {
         KXDevice::currentDevice().saveDeviceToken("bb");
         return g.APNSDeliveryProfileForCurrentDevice();
     },
     "AP-2"},
    {"ChannelAPNSWithoutToken",
     [](auto& g) { return g.currentDeliveryProfileForChannel(KXChannelTypeAPNS); }, std::nullopt},
    {"ChannelAPNSWithToken",
     [](auto& g) {
         KXDevice::currentDevice().saveDeviceToken("aa");
         return g.currentDeliveryProfileForChannel(KXChannelTypeAPNS);
     },
     "AP-1"},
    {"ChannelSMSFirst",
     [](auto& g) { return g.currentDeliveryProfileForChannel(KXChannelTypeSMS); }, "SM-1"},
    {"ChannelEmailFirst",
     [](auto& g) { return g.currentDeliveryProfileForChannel(KXChannelTypeEmail); }, "EM-1"},
    {"ChannelInboxOfConfiguredDomain",
     [](auto& g) { return g.currentDeliveryProfileForChannel(KXChannelTypeInbox); }, "IN-1"},
    {"ChannelInboxWithoutConfiguredDomain",
     [](auto& g) {
         KXConfig::defaultConfig().setInboxDomainId(std::nullopt);
         return g.currentDeliveryProfileForChannel(KXChannelTypeInbox);
     },
     std::nullopt},
};

TEST_P(KXGuestLookupTest, FindsTheExpectedProfile) {
    EXPECT_EQ(idOf(GetParam().lookup(*guest)), GetParam().expectedId);
}

INSTANTIATE_TEST_SUITE_P(Lookups, KXGuestLookupTest, testing::ValuesIn(kLookupCases),
                         [](const auto& info) { return std::string(info.param.name); });

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

TEST(KXGuestData, HoldsOnlyTheScalarsAndBusinessUnitProperties) {
    KXGuest guest;
    EXPECT_EQ(guest.guestData(), KXJSON::object());
    guest.setBuProperties(KXJSON::object());
    EXPECT_EQ(guest.guestData(), KXJSON({{"buProperties", KXJSON::object()}}));

    guest.setExternalId("g1");
    guest.setExternalIdType("QRID");
    guest.setLanguagePref("");
    guest.setBuCreativeLabel("gold");
    guest.setTags({"a"});
    guest.setDeliveryProfiles(KXGuest::Profiles{std::make_shared<KXDeliveryProfile>()});
    guest.addBuProperties({{"tier", 2}});
    EXPECT_EQ(guest.guestData(), KXJSON::parse(R"({"externalId":"g1","externalIdType":"QRID",
        "languagePref":"","buCreativeLabel":"gold","buProperties":{"tier":2}})"));
}

TEST(KXGuestData, BusinessUnitPropertiesMergeAndRemove) {
    KXGuest guest;
    guest.removeBuPropertiesForKeys({"a"});
    EXPECT_TRUE(guest.buProperties().is_null());
    guest.addBuProperties("not an object");
    EXPECT_TRUE(guest.buProperties().is_null());

    guest.addBuProperties({{"a", 1}, {"b", 2}});
    guest.addBuProperties({{"b", {3}}, {"c", nullptr}});
    EXPECT_EQ(guest.buProperties(), KXJSON::parse(R"({"a":1,"b":[3],"c":null})"));
    guest.removeBuPropertiesForKeys({});
    EXPECT_EQ(guest.buProperties(), KXJSON::parse(R"({"a":1,"b":[3],"c":null})"));
    guest.removeBuPropertiesForKeys({"a", "c", "missing"});
    EXPECT_EQ(guest.buProperties(), KXJSON::parse(R"({"b":[3]})"));
}

// How the analytics post ends: it succeeds, fails, or no engine runs to post it.
enum class PostOutcome { Succeeds, Fails, NoEngine };

class KXGuestLogoutTest : public testing::TestWithParam<PostOutcome> {
protected:
    void TearDown() override { kxSetAnalyticsSessionPoster(nullptr); }
};

TEST_P(KXGuestLogoutTest, ClearsIdProfilesAndTagsOnlyOnceTheSessionIsPosted) {
    auto platform = KXTestPlatform::install();
    int posts = 0;
    const PostOutcome outcome = GetParam();
    if (outcome != PostOutcome::NoEngine) {
        kxSetAnalyticsSessionPoster([&posts, outcome](auto success, auto failure) {
            ++posts;
            if (outcome == PostOutcome::Succeeds && success) {
                success();
            } else if (outcome == PostOutcome::Fails && failure) {
                failure(KXError(NSOSStatusErrorDomain, 500));
            }
        });
    }
    const auto guest = KXGuest::currentGuest();
    guest->guestWithDictionary(KXJSON::parse(R"({"externalId":"g1","externalIdType":"QRID",
        "languagePref":"fr","buCreativeLabel":"gold","tags":["a"],"buProperties":{"k":1},
        "deliveryProfiles":[{"id":"p1"}]})"));
    const KXJSON before = describeGuest(*guest);

    guest->logout();

    KXJSON expected = before;
    if (GetParam() == PostOutcome::Succeeds) {
        expected["externalId"] = nullptr;
        expected["deliveryProfiles"] = nullptr;
        expected["tags"] = nullptr;
    }
    EXPECT_EQ(describeGuest(*guest), expected);
    EXPECT_EQ(posts, GetParam() == PostOutcome::NoEngine ? 0 : 1);
}

std::string outcomeName(const testing::TestParamInfo<PostOutcome>& info) {
    switch (info.param) {
        case PostOutcome::Succeeds:
            return "PostSucceeds";
        case PostOutcome::Fails:
            return "PostFails";
        case PostOutcome::NoEngine:
            break;
    }
    return "NoEngine";
}

INSTANTIATE_TEST_SUITE_P(Outcomes, KXGuestLogoutTest,
                         testing::Values(PostOutcome::Succeeds, PostOutcome::Fails,
                                         PostOutcome::NoEngine),
                         outcomeName);

}  // namespace
