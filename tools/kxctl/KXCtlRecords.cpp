#include "KXCtlRecords.h"

#include <optional>
#include <string>

namespace kxctl {
namespace {

KXJSON text(const std::optional<std::string>& value) {
    return value ? KXJSON(*value) : KXJSON();
}

}  // namespace

KXJSON messageRecord(const KXInboxMessage& message, bool withContent) {
    KXJSON record = {
        {"messageId", text(message.messageId())}, {"title", text(message.title())},
        {"sender", text(message.sender())},       {"contentType", text(message.contentType())},
        {"timestamp", message.timestamp()},       {"read", message.read()}};
    if (withContent) {
        record["content"] = text(message.content());
    }
    return record;
}

KXJSON summaryRecord(const KXInboxSummary& summary) {
    return {{"inboxDomainId", text(summary.inboxDomainId())},
            {"name", text(summary.name())},
            {"desc", text(summary.desc())},
            {"totalMessageCount", summary.totalMessageCount()},
            {"unreadMessageCount", summary.unreadMessageCount()},
            {"deleteByGuestForbidden", summary.deleteByGuestForbidden()},
            {"description", summary.description()}};
}

KXJSON listRecord(const KXList& list) {
    KXJSON channel;
    if (const auto& c = list.channel()) {
        channel = {{"isIos", c->isIos()}, {"isEmail", c->isEmail()}, {"isSMS", c->isSMS()}};
    }
    return {{"type", text(list.type())},
            {"externalId", text(list.externalId())},
            {"desc", text(list.desc())},
            {"name", text(list.name())},
            {"channel", channel},
            {"tags", list.tags()},
            {"buProperties", list.buProperties()}};
}

}  // namespace kxctl
