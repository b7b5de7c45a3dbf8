// The guest parser: which keys it takes, which it keeps, and what it makes of wrong types.
#include "KXGuestServiceFixture.h"

#include <KXClientFramework/KXGuestParser.h>

#include <thread>

namespace {

struct ParseCase {
    const char* name;
    const char* before;  // parsed first, to give the guest earlier values
    const char* input;
    const char* expected;  // describeGuest() afterwards, where it differs from an
                           // empty parse
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
     R"({"externalId":42,"externalIdType":7.0,"languagePref":true,"buCreativeLabel":[1],
         "tags":"a","buProperties":["k"],"deliveryProfiles":{"id":"p"}})",
     R"({"externalId":"42","externalIdType":"7","languagePref":"fr"})"},
    {"NullIdLeavesTheGuestsId", R"({"externalId":"g1","externalIdType":"QRID"})",
     R"({"externalId":null,"externalIdType":"OTHER","buCreativeLabel":1.5})",
     R"({"externalId":"g1","externalIdType":"QRID","buCreativeLabel":"1.5"})"},
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

class KXGuestParseTest : public testing::TestWithParam<ParseCase> {
protected:
    std::shared_ptr<KXTestPlatform> platform = KXTestPlatform::install();
};

TEST_P(KXGuestParseTest, FillsTheCurrentGuest) {
    const ParseCase& c = GetParam();
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

INSTANTIATE_TEST_SUITE_P(Cases, KXGuestParseTest, testing::ValuesIn(kParseCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace

TEST(KXGuestParser, EachStepRefusesAMissingGuestOrDictionary) {
    using Step = bool (*)(const KXJSON&, const std::shared_ptr<KXGuest>&);
    const KXJSON dictionary = {{"externalId", "g"}, {"tags", {"t"}}};
    for (Step step : {&KXGuestParser::parseRoot, &KXGuestParser::parseTags,
                      &KXGuestParser::parseDeliveryProfiles, &KXGuestParser::parseBuProperties}) {
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
