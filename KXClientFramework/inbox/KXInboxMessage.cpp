#include <KXClientFramework/KXInboxManager.h>
#include <KXClientFramework/KXInboxMessage.h>
#include <KXClientFramework/KXPlatform.h>

void KXInboxMessage::markAsRead() {
    markAsReadWithSuccess({}, {});
}

void KXInboxMessage::markAsReadWithSuccess(SuccessBlock success, FailureBlock failure) {
    read_ = true;
    KXInboxManager::markMessage(*this, std::nullopt, true, std::move(success), std::move(failure));
}

bool KXInboxMessage::isExpired() const {
    return messageExpiration_ && *messageExpiration_ <= KXPlatform::current().clock().now();
}
