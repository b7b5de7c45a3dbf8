#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXInboxMessage.h>
#include <KXClientFramework/KXInboxSummary.h>
#include <KXClientFramework/KXJSON.h>

#include <memory>
#include <optional>
#include <string>

/// Turns the inbox service's decoded JSON into messages and the domain summary.
///
/// The parser never fails: a missing key leaves its property absent, zero or false; a string
/// property given a number takes its decimal text and any other type reads as absent; a reply
/// of the wrong shape yields no messages.
class KX_EXPORT KXInboxParser {
public:
    /// One message per element of the page reply's "records" array, in the same order (an
    /// element that is not an object gives a message without fields). Absent for a null reply;
    /// empty when "records" is missing, is not an array or the reply is not an object.
    static std::optional<KXInboxMessages> parse(const KXJSON& reply);

    /// Fills `message` from one message header: "id" into messageId, "subject" into title,
    /// "contentType", "sender", "dateReceived" (a number; 0 when missing) into timestamp and the
    /// "read" flag of "flags" (false when missing) into read.
    static void parseMessage(const KXJSON& header, KXInboxMessage& message);

    /// Fills `message` from a message-details reply: the header fields from its "header"
    /// object, then messageId from `messageId` (whatever the header's "id" said) and content from
    /// its "content".
    static void parseMessage(KXInboxMessage& message, const KXJSON& reply,
                             const std::optional<std::string>& messageId);

    /// Writes the domain reply ("name", "description", "totalMessageCount",
    /// "unreadMessageCount", "deleteByGuestForbidden") and the configured inbox domain id into
    /// the one shared summary, KXInbox::shared().summary(), and returns it. Null for a null
    /// reply, which leaves the summary as it was.
    static std::shared_ptr<KXInboxSummary> parseDomainWithJSON(const KXJSON& reply);
};
