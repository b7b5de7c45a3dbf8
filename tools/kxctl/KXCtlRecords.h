#pragma once

// The JSON shapes in which kxctl prints the library's records. Scripts rely on them: absent
// values are null, and keys are only ever added.

#include <KXClientFramework/KXInboxMessage.h>
#include <KXClientFramework/KXInboxSummary.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXList.h>

namespace kxctl {

/// {"messageId", "title", "sender", "contentType", "timestamp", "read"}, and "content" when
/// `withContent`.
KXJSON messageRecord(const KXInboxMessage& message, bool withContent);

/// {"inboxDomainId", "name", "desc", "totalMessageCount", "unreadMessageCount",
/// "deleteByGuestForbidden", "description"}; "description" is the summary's description().
KXJSON summaryRecord(const KXInboxSummary& summary);

/// {"type", "externalId", "desc", "name", "channel": {"isIos", "isEmail", "isSMS"}, "tags",
/// "buProperties"}; "channel" is null when the list has none.
KXJSON listRecord(const KXList& list);

}  // namespace kxctl
