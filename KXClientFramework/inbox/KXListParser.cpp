#include <KXClientFramework/KXListParser.h>

#include "inbox/internal/KXReceivedValue.h"

namespace received = kx::received;

std::optional<KXLists> KXListParser::parse(const KXJSON& reply) {
    if (reply.is_null()) {
        return std::nullopt;
    }
    KXLists lists;
    const KXJSON& records = received::member(reply, "records");
    if (!records.is_array()) {
        return lists;
    }
    lists.reserve(records.size());
    for (const KXJSON& record : records) {
        auto list = std::make_shared<KXList>();
        parseRootWithList(list.get(), record);
        lists.push_back(std::move(list));
    }
    return lists;
}

bool KXListParser::parseRootWithList(KXList* list, const KXJSON& record) {
    if (list == nullptr || !record.is_object()) {
        return false;
    }
    list->setType(received::string(received::member(record, "type")));
    list->setExternalId(received::string(received::member(record, "externalId")));
    list->setDesc(received::string(received::member(record, "description")));
    list->setName(received::string(received::member(record, "name")));
    list->setTags(received::member(record, "tags"));
    list->setBuProperties(received::member(record, "buProperties"));
    parseChannelsWithList(list, record);
    return true;
}

bool KXListParser::parseChannelsWithList(KXList* list, const KXJSON& record) {
    if (list == nullptr || !record.is_object()) {
        return false;
    }
    const KXJSON& counts = received::member(record, "channelCounts");
    auto channel = std::make_shared<KXChannel>();
    channel->setIsIos(counts.is_object() && counts.contains("APNS_PUSH"));
    channel->setIsEmail(counts.is_object() && counts.contains("EMAIL"));
    channel->setIsSMS(counts.is_object() && counts.contains("SMS"));
    list->setChannel(std::move(channel));
    return true;
}
