#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxParser.h>

#include "inbox/internal/KXReceivedValue.h"

namespace received = kx::received;

std::optional<KXInboxMessages> KXInboxParser::parse(const KXJSON& reply) {
    if (reply.is_null()) {
        return std::nullopt;
    }
    KXInboxMessages messages;
    const KXJSON& records = received::member(reply, "records");
    if (!records.is_array()) {
        return messages;
    }
    messages.reserve(records.size());
    for (const KXJSON& header : records) {
        auto message = std::make_shared<KXInboxMessage>();
        parseMessage(header, *message);
        messages.push_back(std::move(message));
    }
    return messages;
}

void KXInboxParser::parseMessage(const KXJSON& header, KXInboxMessage& message) {
    message.setMessageId(received::string(received::member(header, "id")));
    message.setTitle(received::string(received::member(header, "subject")));
    message.setContentType(received::string(received::member(header, "contentType")));
    message.setTimestamp(received::number(received::member(header, "dateReceived")));
    message.setRead(received::boolean(received::member(received::member(header, "flags"), "read")));
    message.setSender(received::string(received::member(header, "sender")));
}

void KXInboxParser::parseMessage(KXInboxMessage& message, const KXJSON& reply,
                                 const std::optional<std::string>& messageId) {
    // Copied first: the caller may pass the message's own id, which the header overwrites.
    const std::optional<std::string> id = messageId;
    parseMessage(received::member(reply, "header"), message);
    message.setMessageId(id);
    message.setContent(received::string(received::member(reply, "content")));
}

std::shared_ptr<KXInboxSummary> KXInboxParser::parseDomainWithJSON(const KXJSON& reply) {
    if (reply.is_null()) {
        return nullptr;
    }
    std::shared_ptr<KXInboxSummary> summary = KXInbox::shared().summary();
    summary->setInboxDomainId(KXConfig::defaultConfig().inboxDomainId());
    summary->setName(received::string(received::member(reply, "name")));
    summary->setDesc(received::string(received::member(reply, "description")));
    summary->setTotalMessageCount(received::count(received::member(reply, "totalMessageCount")));
    summary->setUnreadMessageCount(received::count(received::member(reply, "unreadMessageCount")));
    summary->setDeleteByGuestForbidden(
        received::boolean(received::member(reply, "deleteByGuestForbidden")));
    return summary;
}
