#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxParser.h>
#include <KXClientFramework/KXListParser.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

std::string text(const std::optional<std::string>& value) {
    return value ? *value : "-";
}

/// A message's header fields as "id|title|contentType|sender|timestamp|read", "-" for absent.
std::string fieldsOf(const KXInboxMessage& m) {
    return text(m.messageId()) + "|" + text(m.title()) + "|" + text(m.contentType()) + "|" +
           text(m.sender()) + "|" + KXJSON(m.timestamp()).dump() + "|" + (m.read() ? "1" : "0");
}

/// A list's fields as "type|externalId|desc|name|tags|buProperties|channels", the channels as
/// the initials of push, email and sms, "-" for absent.
std::string fieldsOf(const KXList& l) {
    std::string channels = "-";
    if (l.channel()) {
        channels = std::string(l.channel()->isIos() ? "p" : "") +
                   (l.channel()->isEmail() ? "e" : "") + (l.channel()->isSMS() ? "s" : "");
    }
    return text(l.type()) + "|" + text(l.externalId()) + "|" + text(l.desc()) + "|" +
           text(l.name()) + "|" + l.tags().dump() + "|" + l.buProperties().dump() + "|" + channels;
}

const KXJSON kFullHeader = R"({"id": "m1", "subject": "Welcome", "contentType": "text/html",
    "sender": "Front desk", "dateReceived": 1500000000000, "flags": {"read": true}})"_json;

}  // namespace

TEST(KXInboxParser, HeadersFillEveryFieldAndOverwriteOldValues) {
    const std::pair<KXJSON, std::string> cases[] = {
        {kFullHeader, "m1|Welcome|text/html|Front desk|1500000000000.0|1"},
        {KXJSON::object(), "-|-|-|-|0.0|0"},
        {R"({"flags": true})"_json, "-|-|-|-|0.0|0"},
        {R"({"flags": {"read": "yes"}})"_json, "-|-|-|-|0.0|1"},
        {R"({"flags": {"read": 0}})"_json, "-|-|-|-|0.0|0"},
        {R"({"dateReceived": 1.5})"_json, "-|-|-|-|1.5|0"},
        {R"({"dateReceived": " 1500000000000"})"_json, "-|-|-|-|1500000000000.0|0"},
        {R"({"id": 42, "subject": -7, "sender": 2.5, "contentType": 18446744073709551615})"_json,
         "42|-7|18446744073709551615|2.5|0.0|0"},
        {R"({"id": true, "subject": ["a"], "sender": {"a": 1}, "contentType": null})"_json,
         "-|-|-|-|0.0|0"},
        {R"([1, 2])"_json, "-|-|-|-|0.0|0"},
    };
    for (const auto& [header, expected] : cases) {
        KXInboxMessage message;
        // Values from an earlier reply must not survive a header that lacks them.
        KXInboxParser::parseMessage(kFullHeader, message);
        KXInboxParser::parseMessage(header, message);
        EXPECT_EQ(fieldsOf(message), expected) << header;
    }
}

TEST(KXInboxParser, DetailsTakeTheGivenIdTheHeaderAndTheContent) {
    const struct {
        KXJSON reply;
        std::optional<std::string> givenId;
        std::string fields, content;
    } cases[] = {
        {R"({"header": {"id": "other", "subject": "Hi", "flags": {"read": true}},
             "content": "<p>Body</p>"})"_json,
         "m7", "m7|Hi|-|-|0.0|1", "<p>Body</p>"},
        {R"({"header": {"id": "other"}})"_json, std::nullopt, "-|-|-|-|0.0|0", "-"},
        {R"({"content": 12})"_json, "m7", "m7|-|-|-|0.0|0", "12"},
        {R"({"header": "x", "content": ""})"_json, "m7", "m7|-|-|-|0.0|0", ""},
        {nullptr, "m7", "m7|-|-|-|0.0|0", "-"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply.dump());
        KXInboxMessage message;
        message.setContent("old body");
        message.setSender("old sender");
        KXInboxParser::parseMessage(message, c.reply, c.givenId);
        EXPECT_EQ(fieldsOf(message), c.fields);
        EXPECT_EQ(text(message.content()), c.content);
        // A details fetch passes the message's own id, which the header overwrites first.
        KXInboxMessage own;
        own.setMessageId(c.givenId);
        KXInboxParser::parseMessage(own, c.reply, own.messageId());
        EXPECT_EQ(own.messageId(), c.givenId) << "own id";
    }
}

TEST(KXInboxParser, DomainRepliesFillTheOneSharedSummary) {
    const std::string nothing =
        "name: (null), desc: (null), _totalMessageCount: 0, "
        "_unreadMessageCount: 0, deleteByGuestForbidden: 0";
    const struct {
        KXJSON reply;
        std::optional<std::string> configuredDomain;
        std::string description;
    } cases[] = {
        {KXJSON::object(), std::nullopt, "inboxDomainId: (null), " + nothing},
        {R"({"name": 3, "description": [], "totalMessageCount": "17 messages",
             "unreadMessageCount": -4, "deleteByGuestForbidden": "true"})"_json,
         "d2",
         "inboxDomainId: d2, name: 3, desc: (null), _totalMessageCount: 17, "
         "_unreadMessageCount: 0, deleteByGuestForbidden: 1"},
        {R"({"totalMessageCount": 18446744073709551615, "unreadMessageCount": 2.9,
             "deleteByGuestForbidden": 1})"_json,
         "d3",
         "inboxDomainId: d3, name: (null), desc: (null), _totalMessageCount: "
         "18446744073709551615, _unreadMessageCount: 2, deleteByGuestForbidden: 1"},
    };
    const auto shared = KXInbox::shared().summary();
    for (const auto& c : cases) {
        KXConfig::defaultConfig().setInboxDomainId(c.configuredDomain);
        EXPECT_EQ(KXInboxParser::parseDomainWithJSON(c.reply), shared) << c.reply;
        EXPECT_EQ(shared->description(), c.description);
    }
}

TEST(KXListParser, RecordFieldsAndChannelsAreTakenAsReceivedAndNeedAListAndAnObject) {
    const std::pair<KXJSON, std::string> cases[] = {
        {R"({"type": "PUBLIC", "externalId": "news", "description": "Weekly news", "name": "News",
             "tags": ["a", "b", "a"], "buProperties": {"region": "north"}})"_json,
         R"(PUBLIC|news|Weekly news|News|["a","b","a"]|{"region":"north"}|)"},
        {KXJSON::object(), "-|-|-|-|null|null|"},
        {R"({"type": 1, "externalId": 12.5, "description": true, "name": ["x"],
             "tags": "not an array", "buProperties": 7})"_json,
         R"(1|12.5|-|-|"not an array"|7|)"},
        // Channel flags come from the keys of channelCounts, whatever the counts.
        {R"({"channelCounts": {"APNS_PUSH": 3, "SMS": 0}})"_json, "-|-|-|-|null|null|ps"},
        {R"({"channelCounts": {"EMAIL": null}})"_json, "-|-|-|-|null|null|e"},
        {R"({"channelCounts": {"apns_push": 1, "Email": 1, "INBOX": 9}})"_json,
         "-|-|-|-|null|null|"},
        {R"({"channelCounts": ["APNS_PUSH", "SMS"]})"_json, "-|-|-|-|null|null|"},
    };
    for (const auto& [record, expected] : cases) {
        KXList list;
        list.setName("old");
        list.setTags({"old"});
        ASSERT_TRUE(KXListParser::parseRootWithList(&list, record)) << record;
        EXPECT_TRUE(list.channel()) << "the channel is always made";
        ASSERT_TRUE(KXListParser::parseChannelsWithList(&list, record)) << record;
        EXPECT_EQ(fieldsOf(list), expected) << record;
    }
    // Without a list or an object nothing changes.
    KXList list;
    list.setName("kept");
    for (const KXJSON& record : {KXJSON(), KXJSON("x"), KXJSON::array({{{"name", "n"}}})}) {
        EXPECT_FALSE(KXListParser::parseRootWithList(&list, record)) << record;
        EXPECT_FALSE(KXListParser::parseChannelsWithList(&list, record)) << record;
    }
    EXPECT_FALSE(KXListParser::parseRootWithList(nullptr, {{"name", "n"}}));
    EXPECT_FALSE(KXListParser::parseChannelsWithList(nullptr, {{"channelCounts", {}}}));
    EXPECT_EQ(fieldsOf(list), "-|-|-|kept|null|null|-");
}

TEST(KXInboxParser, RepliesGiveOneItemPerRecordInOrderAndNoneWithoutRecords) {
    const auto count = [](const auto& items) {
        return items ? static_cast<int>(items->size()) : -1;
    };
    const auto messages = KXInboxParser::parse(R"({"hasMoreRecords": true, "records": [
        {"id": "a", "flags": {"read": true}}, "not a header", {"id": "c", "subject": "Third"}]})"_json);
    ASSERT_EQ(count(messages), 3);
    EXPECT_EQ(fieldsOf(*(*messages)[0]), "a|-|-|-|0.0|1");
    EXPECT_EQ(fieldsOf(*(*messages)[1]), "-|-|-|-|0.0|0");
    EXPECT_EQ(fieldsOf(*(*messages)[2]), "c|Third|-|-|0.0|0");
    const auto lists = KXListParser::parse(
        R"({"records": [{"name": "A"}, 5, {"channelCounts": {"SMS": 1}}]})"_json);
    ASSERT_EQ(count(lists), 3);
    EXPECT_EQ(fieldsOf(*(*lists)[0]), "-|-|-|A|null|null|");
    EXPECT_EQ(fieldsOf(*(*lists)[1]), "-|-|-|-|null|null|-");
    EXPECT_EQ(fieldsOf(*(*lists)[2]), "-|-|-|-|null|null|s");
    EXPECT_EQ(count(KXInboxParser::parse(nullptr)), -1);
    EXPECT_EQ(count(KXListParser::parse(nullptr)), -1);
    for (const char* reply : {R"({"hasMoreRecords": false})", R"({"records": []})",
                              R"({"records": {"id": "a"}})", R"([{"id": "a"}])", R"("records")"}) {
        EXPECT_EQ(count(KXInboxParser::parse(KXJSON::parse(reply))), 0) << reply;
        EXPECT_EQ(count(KXListParser::parse(KXJSON::parse(reply))), 0) << reply;
    }
}
