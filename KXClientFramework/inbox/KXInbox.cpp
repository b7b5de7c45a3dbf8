#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXProcessWide.h>

#include "inbox/internal/KXPaging.h"

#include <algorithm>

KXInbox& KXInbox::shared() {
    return kxProcessWide<KXInbox>();
}

KXInbox::KXInbox() : summary_(std::make_shared<KXInboxSummary>()) {}

void KXInbox::fetchInboxSummaryWithId(const std::optional<std::string>& inboxDomainId,
                                      SummarySuccessBlock success, FailureBlock failure) {
    KXInboxManager::fetchInboxSummaryWithId(
        inboxDomainId,
        [this, success = std::move(success)](const std::shared_ptr<KXInboxSummary>& summary) {
            if (summary) {
                if (summary != summary_) {
                    setSummary(*summary);
                }
            }
            if (success) {
                success(summary_);
            }
        },
        [failure = std::move(failure)](const KXError& error) {
            KX_LOG_ERROR("Error fetching inbox domain. {}", error.description());
            if (failure) {
                failure(error);
            }
        });
}

void KXInbox::fetchMessagesWithId(const std::optional<std::string>& inboxDomainId,
                                  MessagesSuccessBlock success, FailureBlock failure) {
    KXInboxManager::fetchMessagesWithId(
        inboxDomainId,
        [this, success = std::move(success)](const std::optional<KXInboxMessages>& messages) {
            if (messages) {
                messages_ = *messages;
            }
            if (success) {
                success(messages);
            }
        },
        [failure = std::move(failure)](const KXError& error) {
            KX_LOG_ERROR("Error fetching inbox messages. {}", error.description());
            if (failure) {
                failure(error);
            }
        });
}

void KXInbox::fetchWithPageNumber(std::int64_t pageNumber, std::int64_t limit,
                                  const std::optional<std::string>& inboxDomainId,
                                  PageSuccessBlock success, FailureBlock failure) {
    // The offset comes from the limit as given, before 0 becomes the default limit.
    const std::int64_t offset = kx::paging::offsetForPage(pageNumber, limit);
    KXInboxManager::fetchMessagesForPage(
        offset, kx::paging::limitToSend(limit, kDefaultPageLimit), inboxDomainId,
        [this, success = std::move(success)](const std::optional<KXInboxMessages>& page,
                                             bool hasMoreRecords) {
            if (page) {
                messages_.insert(messages_.end(), page->begin(), page->end());
            }
            if (success) {
                success(page, hasMoreRecords);
            }
        },
        std::move(failure));
}

void KXInbox::fetchMessageDetails(std::shared_ptr<KXInboxMessage> message,
                                  const std::optional<std::string>& inboxDomainId,
                                  MessageSuccessBlock success, FailureBlock failure) {
    KXInboxManager::fetchMessageDetailsWithMessage(std::move(message), inboxDomainId,
                                                   std::move(success), std::move(failure));
}

void KXInbox::deleteMessageDetails(const KXInboxMessage& message,
                                   const std::optional<std::string>& inboxDomainId,
                                   DoneBlock success, FailureBlock failure) {
    KXInboxManager::deleteMessageDetailsWithMessage(message, inboxDomainId, std::move(success),
                                                    std::move(failure));
}

void KXInbox::deleteMessageDetailsArray(const KXInboxMessages& messages,
                                        const std::optional<std::string>& inboxDomainId,
                                        const DoneBlock& success, const FailureBlock& failure) {
    for (const auto& message : messages) {
        if (message) {
            KXInboxManager::deleteMessageDetailsWithMessage(*message, inboxDomainId, success,
                                                            failure);
        }
    }
}

std::shared_ptr<KXInboxMessage> KXInbox::messageAtIndex(std::size_t index) const {
    return index < messages_.size() ? messages_[index] : nullptr;
}

std::shared_ptr<KXInboxMessage> KXInbox::messageForId(
    const std::optional<std::string>& messageId) const {
    if (!messageId) {
        return nullptr;
    }
    const auto it = std::find_if(messages_.begin(), messages_.end(), [&](const auto& message) {
        return message && message->messageId() == messageId;
    });
    return it == messages_.end() ? nullptr : *it;
}

std::int64_t KXInbox::indexOfMessage(const KXInboxMessage& message) const {
    if (!message.messageId()) {
        return NSNotFound;
    }
    const auto it = std::find_if(messages_.begin(), messages_.end(), [&](const auto& loaded) {
        return loaded && loaded->messageId() == message.messageId();
    });
    return it == messages_.end() ? NSNotFound : static_cast<std::int64_t>(it - messages_.begin());
}

std::size_t KXInbox::unreadCount() const {
    return static_cast<std::size_t>(std::count_if(messages_.begin(), messages_.end(),
                                                  [](const auto& m) { return m && !m->read(); }));
}
