// Subscription lists read from the service's JSON: fields, channel flags and
// wrong types.
#include <KXClientFramework/KXListParser.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

using Text = std::optional<std::string>;

struct Channels {
    bool ios = false, email = false, sms = false;
    bool operator==(const Channels&) const = default;
};

Channels channelsOf(const KXList& list) {
    if (!list.channel()) {
        return {};
    }
    return {list.channel()->isIos(), list.channel()->isEmail(), list.channel()->isSMS()};
}

}  // namespace

TEST(KXListParser, ChannelFlagsComeFromTheKeysOfChannelCounts) {
    struct Case {
        const char* name;
        KXJSON record;
        Channels expected;
    };
    const Case cases[] = {
        {"push and sms", {{"channelCounts", {{"APNS_PUSH", 3}, {"SMS", 0}}}}, {true, false, true}},
        {"email only, value null", {{"channelCounts", {{"EMAIL", nullptr}}}}, {false, true, false}},
        {"all three",
         {{"channelCounts", {{"APNS_PUSH", 1}, {"EMAIL", 1}, {"SMS", 1}}}},
         {true, true, true}},
        {"names differ in case", {{"channelCounts", {{"apns_push", 1}, {"Email", 1}}}}, {}},
        {"inbox is not a list channel", {{"channelCounts", {{"INBOX", 9}}}}, {}},
        {"no channelCounts", KXJSON::object(), {}},
        {"channelCounts is an array", {{"channelCounts", {"APNS_PUSH", "SMS"}}}, {}},
    };
    for (const Case& c : cases) {
        KXList list;
        ASSERT_TRUE(KXListParser::parseChannelsWithList(&list, c.record)) << c.name;
        ASSERT_TRUE(list.channel()) << c.name;
        EXPECT_EQ(channelsOf(list), c.expected) << c.name;
    }
}

TEST(KXListParser, RecordFieldsAreTakenAsReceived) {
    struct Case {
        const char* name;
        KXJSON record;
        Text type, externalId, desc, name_;
        KXJSON tags, buProperties;
    };
    const Case cases[] = {
        {"every field",
         {{"type", "PUBLIC"},
          {"externalId", "news"},
          {"description", "Weekly news"},
          {"name", "News"},
          {"tags", {"a", "b", "a"}},
          {"buProperties", {{"region", "north"}}}},
         "PUBLIC",
         "news",
         "Weekly news",
         "News",
         {"a", "b", "a"},
         {{"region", "north"}}},
        {"missing keys", KXJSON::object(), {}, {}, {}, {}, nullptr, nullptr},
        {"numbers and other types",
         {{"type", 1},
          {"externalId", 12.5},
          {"description", true},
          {"name", {"x"}},
          {"tags", "not an array"},
          {"buProperties", 7}},
         "1",
         "12.5",
         {},
         {},
         "not an array",
         7},
    };
    for (const Case& c : cases) {
        KXList list;
        list.setName("old");
        list.setTags({"old"});
        ASSERT_TRUE(KXListParser::parseRootWithList(&list, c.record)) << c.name;
        EXPECT_EQ(list.type(), c.type) << c.name;
        EXPECT_EQ(list.externalId(), c.externalId) << c.name;
        EXPECT_EQ(list.desc(), c.desc) << c.name;
        EXPECT_EQ(list.name(), c.name_) << c.name;
        EXPECT_EQ(list.tags(), c.tags) << c.name;
        EXPECT_EQ(list.buProperties(), c.buProperties) << c.name;
        EXPECT_TRUE(list.channel()) << c.name << ": the channel is always made";
    }
}

TEST(KXListParser, MissingListOrRecordChangesNothing) {
    KXList list;
    list.setName("kept");
    for (const KXJSON& record : {KXJSON(), KXJSON("x"), KXJSON::array({{{"name", "n"}}})}) {
        EXPECT_FALSE(KXListParser::parseRootWithList(&list, record)) << record;
        EXPECT_FALSE(KXListParser::parseChannelsWithList(&list, record)) << record;
    }
    EXPECT_FALSE(KXListParser::parseRootWithList(nullptr, {{"name", "n"}}));
    EXPECT_FALSE(KXListParser::parseChannelsWithList(nullptr, {{"channelCounts", {}}}));
    EXPECT_EQ(list.name(), "kept");
    EXPECT_FALSE(list.channel());
}

TEST(KXListParser, RepliesGiveOneListPerRecordInOrder) {
    struct Case {
        const char* name;
        KXJSON reply;
        std::optional<std::vector<Text>> names;
    };
    const Case cases[] = {
        {"three records, one not an object",
         {{"records", {{{"name", "A"}}, 5, {{"name", "C"}}}}, {"hasMoreRecords", true}},
         std::vector<Text>{"A", std::nullopt, "C"}},
        {"null reply", nullptr, std::nullopt},
        {"no records", {{"hasMoreRecords", false}}, std::vector<Text>{}},
        {"records not an array", {{"records", {{"name", "A"}}}}, std::vector<Text>{}},
        {"reply is an array", KXJSON::array({{{"name", "A"}}}), std::vector<Text>{}},
    };
    for (const Case& c : cases) {
        const auto lists = KXListParser::parse(c.reply);
        ASSERT_EQ(lists.has_value(), c.names.has_value()) << c.name;
        if (!lists) {
            continue;
        }
        std::vector<Text> names;
        for (const auto& list : *lists) {
            names.push_back(list->name());
        }
        EXPECT_EQ(names, *c.names) << c.name;
    }
}
