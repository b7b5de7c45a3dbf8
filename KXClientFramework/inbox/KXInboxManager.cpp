#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXInboxManager.h>
#include <KXClientFramework/KXInboxParser.h>

#include "inbox/internal/KXInboxGuest.h"
#include "inbox/internal/KXPathSegment.h"
#include "inbox/internal/KXReceivedValue.h"

#include <fmt/format.h>

namespace {

using Response = std::shared_ptr<const KXHTTPResponse>;

KXHTTPSessionManager::FailureBlock passFailure(KXInboxManager::FailureBlock failure) {
    if (!failure) {
        return {};
    }
    return
        [failure = std::move(failure)](const Response&, const KXError& error) { failure(error); };
}

KXHTTPSessionManager::SuccessBlock passDone(KXInboxManager::DoneBlock success) {
    if (!success) {
        return {};
    }
    return [success = std::move(success)](const Response&, const KXJSON&) { success(); };
}

std::string messagePath(const KXInboxMessage& message,
                        const std::optional<std::string>& inboxDomainId) {
    return fmt::format("{}/messages/{}", KXInboxManager::inboxPath(inboxDomainId),
                       kx::pathSegment(message.messageId()));
}

}  // namespace

std::string KXInboxManager::inboxPath(const std::optional<std::string>& inboxDomainId) {
    const std::optional<std::string>& domain = inboxDomainId && !inboxDomainId->empty()
                                                   ? inboxDomainId
                                                   : KXConfig::defaultConfig().inboxDomainId();
    return fmt::format("{}/guests/{}/inboxes/{}", KXSessionManager::kxBaseURI(),
                       kx::pathSegment(kx::inbox::currentGuestExternalId()),
                       kx::pathSegment(domain));
}

void KXInboxManager::fetchInboxSummaryWithId(const std::optional<std::string>& inboxDomainId,
                                             SummarySuccessBlock success, FailureBlock failure) {
    const std::optional<std::string> externalId = kx::inbox::currentGuestExternalId();
    if (failure && (!externalId || externalId->empty())) {
        // Reported at once, and the request still goes out: its own outcome follows.
        failure(KXError::withMessage("invalid guest"));
    }
    KXHTTPSessionManager::sharedManager().GET(
        inboxPath(inboxDomainId), nullptr,
        [success = std::move(success)](const Response&, const KXJSON& reply) {
            auto summary = KXInboxParser::parseDomainWithJSON(reply);
            if (success) {
                success(std::move(summary));
            }
        },
        passFailure(std::move(failure)));
}

void KXInboxManager::fetchInboxesWithSuccess(MessagesSuccessBlock success, FailureBlock failure) {
    fetchMessagesWithId(std::nullopt, std::move(success), std::move(failure));
}

void KXInboxManager::fetchMessagesWithId(const std::optional<std::string>& inboxDomainId,
                                         MessagesSuccessBlock success, FailureBlock failure) {
    KXHTTPSessionManager::sharedManager().GET(
        inboxPath(inboxDomainId) + "/messages", nullptr,
        [success = std::move(success)](const Response&, const KXJSON& reply) {
            if (success) {
                success(KXInboxParser::parse(reply));
            }
        },
        passFailure(std::move(failure)));
}

void KXInboxManager::fetchMessagesForPage(std::int64_t offset, std::int64_t limit,
                                          const std::optional<std::string>& inboxDomainId,
                                          PageSuccessBlock success, FailureBlock failure) {
    KXHTTPSessionManager::sharedManager().GET(
        fmt::format("{}/messages?offset={}&limit={}", inboxPath(inboxDomainId), offset, limit),
        nullptr,
        [success = std::move(success)](const Response&, const KXJSON& reply) {
            if (success) {
                success(KXInboxParser::parse(reply),
                        kx::received::boolean(kx::received::member(reply, "hasMoreRecords")));
            }
        },
        passFailure(std::move(failure)));
}

void KXInboxManager::fetchMessageDetailsWithMessage(std::shared_ptr<KXInboxMessage> message,
                                                    const std::optional<std::string>& inboxDomainId,
                                                    MessageSuccessBlock success,
                                                    FailureBlock failure) {
    const std::string path =
        message ? messagePath(*message, inboxDomainId) : inboxPath(inboxDomainId) + "/messages/";
    KXHTTPSessionManager::sharedManager().GET(
        path, nullptr,
        [message = std::move(message), success = std::move(success)](const Response&,
                                                                     const KXJSON& reply) {
            if (message) {
                const std::optional<std::string> messageId = message->messageId();
                KXInboxParser::parseMessage(*message, reply, messageId);
            }
            if (success) {
                success(message);
            }
        },
        passFailure(std::move(failure)));
}

void KXInboxManager::deleteMessageDetailsWithMessage(
    const KXInboxMessage& message, const std::optional<std::string>& inboxDomainId,
    DoneBlock success, FailureBlock failure) {
    KXHTTPSessionManager::sharedManager().DELETE(messagePath(message, inboxDomainId), nullptr,
                                                 passDone(std::move(success)),
                                                 passFailure(std::move(failure)));
}

void KXInboxManager::markMessage(const KXInboxMessage& message,
                                 const std::optional<std::string>& inboxDomainId, bool asRead,
                                 DoneBlock success, FailureBlock failure) {
    KXHTTPSessionManager::sharedManager().POST(
        messagePath(message, inboxDomainId) + (asRead ? "/read" : "/unread"), nullptr,
        passDone(std::move(success)), passFailure(std::move(failure)));
}
