#include "guest/internal/KXGuestRequests.h"

#include <KXClientFramework/KXGuestManager.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXSessionManager.h>

namespace kxguest {

std::string guestURL(std::initializer_list<std::string_view> pieces) {
    std::string url = KXSessionManager::kxBaseURI();
    for (std::string_view piece : pieces) {
        url += piece;
    }
    return url;
}

void failWithMessage(const Failure& failure, const std::string& message) {
    if (failure) {
        failure(KXGuestManager::errorWithMessage(message));
    }
}

KXHTTPSessionManager::FailureBlock loggedFailure(Failure failure) {
    return [failure = std::move(failure)](std::shared_ptr<const KXHTTPResponse>,
                                          const KXError& error) {
        KX_LOG_ERROR("ERROR: {}", error.description());
        if (failure) {
            failure(error);
        }
    };
}

std::optional<std::string> newRecordId(const KXHTTPResponse* response) {
    if (!response) {
        return std::nullopt;
    }
    std::string id = response->valueForHTTPHeaderField("newRecordId");
    if (id.empty()) {
        return std::nullopt;
    }
    return id;
}

}  // namespace kxguest
