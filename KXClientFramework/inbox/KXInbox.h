#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXInboxManager.h>
#include <KXClientFramework/KXInboxMessage.h>
#include <KXClientFramework/KXInboxSummary.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>

/// "Not found" of KXInbox::indexOfMessage: the largest signed 64-bit value.
inline constexpr std::int64_t NSNotFound = std::numeric_limits<std::int64_t>::max();

/// The guest's inbox as the screens see it: the domain summary and the loaded messages, with
/// paging on top of KXInboxManager.
///
/// One per process, shared(). It holds no lock: use it on the main queue, where the library
/// delivers every callback. An absent or empty `inboxDomainId` argument means the configured
/// inbox domain.
///
/// messages() is replaced by a full fetch, extended by each page fetch (pages are appended as
/// they come, without removing duplicates: loading page 1 twice holds it twice) and never
/// shrunk by deletes.
class KX_EXPORT KXInbox {
public:
    using FailureBlock = KXInboxManager::FailureBlock;
    using DoneBlock = KXInboxManager::DoneBlock;
    using SummarySuccessBlock = KXInboxManager::SummarySuccessBlock;
    using MessagesSuccessBlock = KXInboxManager::MessagesSuccessBlock;
    using PageSuccessBlock = KXInboxManager::PageSuccessBlock;
    using MessageSuccessBlock = KXInboxManager::MessageSuccessBlock;

    /// Limit sent for a page when the caller passes 0.
    static constexpr std::int64_t kDefaultPageLimit = 20;

    /// The process's inbox, created on first use (thread-safe) and kept until the process ends.
    static KXInbox& shared();

    KXInbox(const KXInbox&) = delete;
    KXInbox& operator=(const KXInbox&) = delete;

    /// The loaded messages, in the service's order; empty at first.
    const KXInboxMessages& messages() const { return messages_; }
    void setMessages(KXInboxMessages messages) { messages_ = std::move(messages); }

    /// The domain summary: never null, and the same object for the life of the inbox (an empty
    /// summary until the first fetch).
    const std::shared_ptr<KXInboxSummary>& summary() const { return summary_; }
    /// Copies the values of `summary` into the held summary object.
    void setSummary(const KXInboxSummary& summary) { *summary_ = summary; }

    /// The domain summary (KXInboxManager::fetchInboxSummaryWithId). On failure logs at ERROR
    /// "Error fetching inbox domain. <error>" before calling `failure`.
    void fetchInboxSummaryWithId(const std::optional<std::string>& inboxDomainId,
                                 SummarySuccessBlock success, FailureBlock failure);

    /// Every message of the domain; a reply with messages replaces messages(). On failure logs
    /// at ERROR "Error fetching inbox messages. <error>" before calling `failure`.
    void fetchMessagesWithId(const std::optional<std::string>& inboxDomainId,
                             MessagesSuccessBlock success, FailureBlock failure);

    /// One page. Pages count from 1 (0 means 1): the offset is (page - 1) * limit, computed
    /// from the limit as given, then a limit of 0 is sent as kDefaultPageLimit (so a limit of 0
    /// asks for offset 0 on every page). The page's messages are appended to messages() and
    /// handed to `success` with the reply's "hasMoreRecords"; a failure changes nothing.
    /// Offsets beyond the 64-bit range are held at its limit.
    void fetchWithPageNumber(std::int64_t pageNumber, std::int64_t limit,
                             const std::optional<std::string>& inboxDomainId,
                             PageSuccessBlock success, FailureBlock failure);

    /// The message's header and body (KXInboxManager::fetchMessageDetailsWithMessage).
    void fetchMessageDetails(std::shared_ptr<KXInboxMessage> message,
                             const std::optional<std::string>& inboxDomainId,
                             MessageSuccessBlock success, FailureBlock failure);

    /// Deletes the message at the service; messages() keeps it.
    void deleteMessageDetails(const KXInboxMessage& message,
                              const std::optional<std::string>& inboxDomainId, DoneBlock success,
                              FailureBlock failure);

    /// Deletes every message of `messages` (null entries skipped): the requests start at once,
    /// in order, and run side by side; `success` is called once per deleted message and
    /// `failure` once per failed one, as the answers arrive. messages() keeps them.
    void deleteMessageDetailsArray(const KXInboxMessages& messages,
                                   const std::optional<std::string>& inboxDomainId,
                                   const DoneBlock& success, const FailureBlock& failure);

    /// The number of loaded messages.
    std::size_t messageCount() const { return messages_.size(); }
    /// The loaded message at `index`; null when out of range.
    std::shared_ptr<KXInboxMessage> messageAtIndex(std::size_t index) const;
    /// The first loaded message whose messageId equals `messageId`; null when none does or
    /// `messageId` is absent.
    std::shared_ptr<KXInboxMessage> messageForId(const std::optional<std::string>& messageId) const;
    /// The index of the first loaded message with `message`'s messageId, or NSNotFound (also
    /// when that id is absent).
    std::int64_t indexOfMessage(const KXInboxMessage& message) const;
    /// The number of loaded messages not yet read.
    std::size_t unreadCount() const;

private:
    template <typename T, typename... Args>
    friend T& kxProcessWide(Args&&... args);
    KXInbox();

    KXInboxMessages messages_;
    std::shared_ptr<KXInboxSummary> summary_;
};
