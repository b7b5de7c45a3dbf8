#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXInboxMessage.h>
#include <KXClientFramework/KXInboxSummary.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

/// The inbox endpoints of the service for the current guest, one request per operation.
///
/// Every URL is "<kxBaseURI>/guests/<guest>/inboxes/<domain>..." where <guest> is the
/// externalId of KXGuest::currentGuest() (empty when it has none) and <domain> the
/// `inboxDomainId` argument, or the configured KXConfig inboxDomainId when the argument is
/// absent or empty. The requests go through KXHTTPSessionManager::sharedManager(); callbacks
/// run on the main queue, at most one per request, and an empty callback is skipped. Failures
/// receive the transport's error unchanged.
class KX_EXPORT KXInboxManager {
public:
    using FailureBlock = std::function<void(const KXError& error)>;
    /// The request succeeded and there is nothing to hand over.
    using DoneBlock = std::function<void()>;
    using SummarySuccessBlock = std::function<void(std::shared_ptr<KXInboxSummary> summary)>;
    /// Absent messages mean the reply had no JSON body.
    using MessagesSuccessBlock =
        std::function<void(const std::optional<KXInboxMessages>& messages)>;
    /// One page and the reply's "hasMoreRecords" (false when missing).
    using PageSuccessBlock =
        std::function<void(const std::optional<KXInboxMessages>& messages, bool hasMoreRecords)>;
    using MessageSuccessBlock = std::function<void(std::shared_ptr<KXInboxMessage> message)>;

    /// GET <domain>: the domain summary, KXInbox::shared().summary() updated in place (null when
    /// the reply had no JSON body).
    ///
    /// When the current guest has no externalId (absent or empty), `failure` is first called at
    /// once with code 99 and the message "invalid guest"; the request is sent all the same with
    /// an empty guest segment, and its own outcome is reported as well.
    static void fetchInboxSummaryWithId(const std::optional<std::string>& inboxDomainId,
                                        SummarySuccessBlock success, FailureBlock failure);

    /// GET <domain>/messages in the configured inbox domain: every message, no paging.
    static void fetchInboxesWithSuccess(MessagesSuccessBlock success, FailureBlock failure);

    /// GET <domain>/messages: every message of the domain, no paging.
    static void fetchMessagesWithId(const std::optional<std::string>& inboxDomainId,
                                    MessagesSuccessBlock success, FailureBlock failure);

    /// GET <domain>/messages?offset=<offset>&limit=<limit>, both numbers sent exactly as given
    /// (KXInbox::fetchWithPageNumber turns page numbers into offsets).
    static void fetchMessagesForPage(std::int64_t offset, std::int64_t limit,
                                     const std::optional<std::string>& inboxDomainId,
                                     PageSuccessBlock success, FailureBlock failure);

    /// GET <domain>/messages/<messageId>: fills `message` itself with the reply's header and
    /// content (keeping its own messageId) and hands it to `success`. A null message is asked
    /// for with an empty id and handed back null.
    static void fetchMessageDetailsWithMessage(std::shared_ptr<KXInboxMessage> message,
                                               const std::optional<std::string>& inboxDomainId,
                                               MessageSuccessBlock success, FailureBlock failure);

    /// DELETE <domain>/messages/<messageId>. The message's id is read at the call.
    static void deleteMessageDetailsWithMessage(const KXInboxMessage& message,
                                                const std::optional<std::string>& inboxDomainId,
                                                DoneBlock success, FailureBlock failure);

    /// POST <domain>/messages/<messageId>/read, or .../unread when `asRead` is false. The
    /// message's own read() flag is left alone (KXInboxMessage::markAsRead sets it).
    static void markMessage(const KXInboxMessage& message,
                            const std::optional<std::string>& inboxDomainId, bool asRead,
                            DoneBlock success, FailureBlock failure);

    /// "<kxBaseURI>/guests/<guest>/inboxes/<domain>", the path every operation starts from.
    static std::string inboxPath(const std::optional<std::string>& inboxDomainId);
};
