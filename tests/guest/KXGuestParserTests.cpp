// The guest parser: which keys it takes, which it keeps, and what it makes of wrong types.
#include "KXGuestTestSupport.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXGuestParser.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

struct ParseCase {
    const char* name;
    const char* before;  // parsed first, to give the guest earlier values
    const char* input;
    const char* expected;  // describeGuest() afterwards
};

void PrintTo(const ParseCase& c, std::ostream* os) {
    *os << c.name;
}

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
     R"({"externalIdType":"OTHER"})",
     R"({"externalId":"g1","externalIdType":"QRID","languagePref":null,"buCreativeLabel":null,
         "tags":[],"buProperties":{},"deliveryProfiles":[]})"},
    // ...and a new identifier without a type clears the old type.
    {"IdWithoutTypeClearsTheType", R"({"externalId":"g1","externalIdType":"QRID"})",
     R"({"externalId":"g2"})",
     R"({"externalId":"g2","externalIdType":null,"languagePref":null,"buCreativeLabel":null,
         "tags":[],"buProperties":{},"deliveryProfiles":[]})"},
    // Absent scalars keep their values; absent collections are emptied.
    {"AbsentKeys", R"({"externalId":"g1","languagePref":"fr","buCreativeLabel":"gold",
         "tags":["a"],"buProperties":{"k":1},"deliveryProfiles":[{"id":"p1"}]})",
     "{}",
     R"({"externalId":"g1","externalIdType":null,"languagePref":"fr","buCreativeLabel":"gold",
         "tags":[],"buProperties":{},"deliveryProfiles":[]})"},
    // Numbers become their decimal text; other wrong types count as absent.
    {"WrongTypes", R"({"languagePref":"fr"})",
     R"({"externalId":42,"externalIdType":7.0,"languagePref":true,"buCreativeLabel":[1],
         "tags":"a","buProperties":["k"],"deliveryProfiles":{"id":"p"}})",
     R"({"externalId":"42","externalIdType":"7","languagePref":"fr","buCreativeLabel":null,
         "tags":[],"buProperties":{},"deliveryProfiles":[]})"},
    {"NullIdLeavesTheGuestsId", R"({"externalId":"g1","externalIdType":"QRID"})",
     R"({"externalId":null,"externalIdType":"OTHER","buCreativeLabel":1.5})",
     R"({"externalId":"g1","externalIdType":"QRID","languagePref":null,"buCreativeLabel":"1.5",
         "tags":[],"buProperties":{},"deliveryProfiles":[]})"},
    {"WrongTypesInsideProfiles", "{}",
     R"({"deliveryProfiles":[7,{"id":12,"enabled":"yes","tags":"x","memberships":[1,{"enabled":0}],
         "address":{"channel":["apns"],"enabled":"no","attributes":"flat"}},{"address":"x"}]})",
     R"({"externalId":null,"externalIdType":null,"languagePref":null,"buCreativeLabel":null,
         "tags":[],"buProperties":{},"deliveryProfiles":[
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
     R"({"externalId":"g1","externalIdType":null,"languagePref":null,"buCreativeLabel":null,
         "tags":["a"],"buProperties":{},"deliveryProfiles":[]})"},
};

class KXGuestParseTest : public testing::TestWithParam<ParseCase> {
protected:
    void SetUp() override { platform = KXTestPlatform::install(); }
    std::shared_ptr<KXTestPlatform> platform;
};

TEST_P(KXGuestParseTest, FillsTheCurrentGuest) {
    const ParseCase& c = GetParam();
    KXGuestParser::parse(KXJSON::parse(c.before));
    // Whichever guest receives the call, the current guest is filled.
    KXGuest other;
    other.guestWithDictionary(KXJSON::parse(c.input));
    EXPECT_EQ(describeGuest(*KXGuest::currentGuest()), KXJSON::parse(c.expected));
    EXPECT_EQ(other.externalId(), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Cases, KXGuestParseTest, testing::ValuesIn(kParseCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace

TEST(KXGuestParser, EachStepRefusesAMissingGuestOrDictionary) {
    using Step = bool (*)(const KXJSON&, const std::shared_ptr<KXGuest>&);
    const Step steps[] = {&KXGuestParser::parseRoot, &KXGuestParser::parseTags,
                          &KXGuestParser::parseDeliveryProfiles, &KXGuestParser::parseBuProperties};
    const KXJSON dictionary = {{"externalId", "g"}, {"tags", {"t"}}};
    for (Step step : steps) {
        auto guest = std::make_shared<KXGuest>();
        EXPECT_FALSE(step(dictionary, nullptr));
        EXPECT_FALSE(step(KXJSON(), guest));
        EXPECT_FALSE(step(KXJSON::array(), guest));
        EXPECT_EQ(describeGuest(*guest), describeGuest(KXGuest()));
        EXPECT_TRUE(step(dictionary, guest));
        EXPECT_NE(describeGuest(*guest), describeGuest(KXGuest()));
    }
}

TEST(KXGuest, CurrentGuestIsCreatedOnceUnderConcurrentFirstCalls) {
    std::vector<KXGuest*> seen(8);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, i] { seen[i] = KXGuest::currentGuest().get(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (KXGuest* guest : seen) {
        EXPECT_EQ(guest, seen.front());
    }
    EXPECT_EQ(describeGuest(*KXGuest::currentGuest()), describeGuest(KXGuest()));
}
