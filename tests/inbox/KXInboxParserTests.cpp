// Message headers, message pages, message details and the domain summary read from the service's
// JSON, including values of the wrong type.
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxParser.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

using Text = std::optional<std::string>;

// The header fields of one message, as the parser filled them.
struct HeaderFields {
    Text messageId, title, contentType, sender;
    double timestamp = 0;
    bool read = false;

    bool operator==(const HeaderFields&) const = default;
};

HeaderFields fieldsOf(const KXInboxMessage& message) {
    return {message.messageId(), message.title(),     message.contentType(),
            message.sender(),    message.timestamp(), message.read()};
}

std::ostream& operator<<(std::ostream& out, const Text& text) {
    return out << (text ? "\"" + *text + "\"" : std::string("absent"));
}

std::ostream& operator<<(std::ostream& out, const HeaderFields& f) {
    return out << "{id " << f.messageId << ", title " << f.title << ", type " << f.contentType
               << ", sender " << f.sender << ", timestamp " << f.timestamp << ", read " << f.read
               << "}";
}

struct HeaderCase {
    const char* name;
    KXJSON header;
    HeaderFields expected;
};

const HeaderCase kHeaderCases[] = {
    {"all fields",
     {{"id", "m1"},
      {"subject", "Welcome"},
      {"contentType", "text/html"},
      {"sender", "Front desk"},
      {"dateReceived", 1500000000000},
      {"flags", {{"read", true}}}},
     {"m1", "Welcome", "text/html", "Front desk", 1500000000000.0, true}},
    {"missing keys", KXJSON::object(), HeaderFields()},
    {"flags without read",
     {{"id", "m2"}, {"flags", {{"deleted", true}}}},
     {"m2", {}, {}, {}, 0, false}},
    {"flags not an object", {{"flags", true}}, {}},
    {"read as a truthy string", {{"flags", {{"read", "yes"}}}}, {{}, {}, {}, {}, 0, true}},
    {"read as zero", {{"flags", {{"read", 0}}}}, {}},
    {"fractional milliseconds", {{"dateReceived", 1.5}}, {{}, {}, {}, {}, 1.5, false}},
    {"date as decimal text",
     {{"dateReceived", " 1500000000000"}},
     {{}, {}, {}, {}, 1500000000000.0, false}},
    {"date of another type", {{"dateReceived", {{"ms", 1}}}}, {}},
    {"numbers where strings belong",
     {{"id", 42}, {"subject", -7}, {"sender", 2.5}, {"contentType", 18446744073709551615ULL}},
     {"42", "-7", "18446744073709551615", "2.5", 0, false}},
    {"booleans, arrays and objects where strings belong",
     {{"id", true},
      {"subject", KXJSON::array({"a"})},
      {"sender", {{"a", 1}}},
      {"contentType", nullptr}},
     {}},
    {"header not an object", KXJSON::array({1, 2}), {}},
};

class KXInboxHeaderTest : public testing::TestWithParam<HeaderCase> {};

}  // namespace

TEST_P(KXInboxHeaderTest, FillsEveryHeaderFieldAndOverwritesOldValues) {
    KXInboxMessage message;
    // Values from an earlier reply must not survive a header that lacks them.
    KXInboxParser::parseMessage(kHeaderCases[0].header, message);
    KXInboxParser::parseMessage(GetParam().header, message);
    EXPECT_EQ(fieldsOf(message), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Headers, KXInboxHeaderTest, testing::ValuesIn(kHeaderCases),
                         [](const auto& info) {
                             std::string name = info.param.name;
                             for (char& c : name) {
                                 c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             }
                             return name;
                         });

TEST(KXInboxParser, PageGivesOneMessagePerRecordInOrder) {
    const KXJSON reply = {{"hasMoreRecords", true},
                          {"records",
                           {{{"id", "a"}, {"flags", {{"read", true}}}},
                            "not a header",
                            {{"id", "c"}, {"subject", "Third"}}}}};
    const auto messages = KXInboxParser::parse(reply);
    ASSERT_TRUE(messages.has_value());
    ASSERT_EQ(messages->size(), 3U);
    EXPECT_EQ((*messages)[0]->messageId(), "a");
    EXPECT_TRUE((*messages)[0]->read());
    EXPECT_EQ(fieldsOf(*(*messages)[1]), HeaderFields{});
    EXPECT_EQ((*messages)[2]->title(), "Third");
}

TEST(KXInboxParser, PageRepliesWithoutRecordsGiveNoMessages) {
    struct Case {
        const char* name;
        KXJSON reply;
        bool absent;
    };
    const Case cases[] = {
        {"null reply", nullptr, true},
        {"no records", {{"hasMoreRecords", false}}, false},
        {"empty records", {{"records", KXJSON::array()}}, false},
        {"records not an array", {{"records", {{"id", "a"}}}}, false},
        {"reply is an array", KXJSON::array({{{"id", "a"}}}), false},
        {"reply is a string", "records", false},
    };
    for (const Case& c : cases) {
        const auto messages = KXInboxParser::parse(c.reply);
        EXPECT_EQ(messages.has_value(), !c.absent) << c.name;
        if (messages) {
            EXPECT_TRUE(messages->empty()) << c.name;
        }
    }
}

TEST(KXInboxParser, DetailsTakeTheGivenIdTheHeaderAndTheContent) {
    struct Case {
        const char* name;
        KXJSON reply;
        Text givenId;
        HeaderFields expected;
        Text content;
    };
    const Case cases[] = {
        {"header id overridden",
         {{"header", {{"id", "other"}, {"subject", "Hi"}, {"flags", {{"read", true}}}}},
          {"content", "<p>Body</p>"}},
         "m7",
         {"m7", "Hi", {}, {}, 0, true},
         "<p>Body</p>"},
        {"absent id stays absent", {{"header", {{"id", "other"}}}}, std::nullopt, {}, std::nullopt},
        {"content as a number", {{"content", 12}}, "m7", {"m7", {}, {}, {}, 0, false}, "12"},
        {"content as an object",
         {{"content", {{"html", "x"}}}},
         "m7",
         {"m7", {}, {}, {}, 0, false},
         {}},
        {"header not an object",
         {{"header", "x"}, {"content", ""}},
         "m7",
         {"m7", {}, {}, {}, 0, false},
         ""},
        {"null reply", nullptr, "m7", {"m7", {}, {}, {}, 0, false}, std::nullopt},
    };
    for (const Case& c : cases) {
        KXInboxMessage message;
        message.setContent("old body");
        message.setSender("old sender");
        KXInboxParser::parseMessage(message, c.reply, c.givenId);
        EXPECT_EQ(fieldsOf(message), c.expected) << c.name;
        EXPECT_EQ(message.content(), c.content) << c.name;

        // A details fetch passes the message's own id, which the header overwrites first.
        KXInboxMessage own;
        own.setMessageId(c.givenId);
        KXInboxParser::parseMessage(own, c.reply, own.messageId());
        EXPECT_EQ(own.messageId(), c.givenId) << c.name << ", own id";
    }
}

TEST(KXInboxParser, DomainRepliesFillTheOneSharedSummary) {
    struct Case {
        const char* name;
        KXJSON reply;
        Text configuredDomain;
        std::string description;
    };
    const Case cases[] = {
        {"all fields",
         {{"name", "Main"},
          {"description", "Inbox"},
          {"totalMessageCount", 5},
          {"unreadMessageCount", 2},
          {"deleteByGuestForbidden", false}},
         "d1",
         "inboxDomainId: d1, name: Main, desc: Inbox, _totalMessageCount: 5, "
         "_unreadMessageCount: 2, deleteByGuestForbidden: 0"},
        {"missing keys and no configured domain", KXJSON::object(), std::nullopt,
         "inboxDomainId: (null), name: (null), desc: (null), _totalMessageCount: 0, "
         "_unreadMessageCount: 0, deleteByGuestForbidden: 0"},
        {"counts and flag of other types",
         {{"name", 3},
          {"description", KXJSON::array()},
          {"totalMessageCount", "17 messages"},
          {"unreadMessageCount", -4},
          {"deleteByGuestForbidden", "true"}},
         "d2",
         "inboxDomainId: d2, name: 3, desc: (null), _totalMessageCount: 17, "
         "_unreadMessageCount: 0, deleteByGuestForbidden: 1"},
        {"huge and fractional counts",
         {{"totalMessageCount", 18446744073709551615ULL},
          {"unreadMessageCount", 2.9},
          {"deleteByGuestForbidden", 1}},
         "d3",
         "inboxDomainId: d3, name: (null), desc: (null), _totalMessageCount: "
         "18446744073709551615, _unreadMessageCount: 2, deleteByGuestForbidden: 1"},
        {"reply not an object", KXJSON::array({1}), "d4",
         "inboxDomainId: d4, name: (null), desc: (null), _totalMessageCount: 0, "
         "_unreadMessageCount: 0, deleteByGuestForbidden: 0"},
    };
    const auto shared = KXInbox::shared().summary();
    for (const Case& c : cases) {
        KXConfig::defaultConfig().setInboxDomainId(c.configuredDomain);
        const auto summary = KXInboxParser::parseDomainWithJSON(c.reply);
        EXPECT_EQ(summary, shared) << c.name;
        EXPECT_EQ(shared->description(), c.description) << c.name;
    }
}

TEST(KXInboxParser, NullDomainReplyLeavesTheSummaryAlone) {
    KXConfig::defaultConfig().setInboxDomainId("d1");
    KXInboxParser::parseDomainWithJSON({{"name", "Main"}});
    KXConfig::defaultConfig().setInboxDomainId("d9");
    EXPECT_EQ(KXInboxParser::parseDomainWithJSON(nullptr), nullptr);
    EXPECT_EQ(KXInbox::shared().summary()->name(), "Main");
    EXPECT_EQ(KXInbox::shared().summary()->inboxDomainId(), "d1");
}
