#include <KXClientFramework/KXBearerToken.h>
#include <KXClientFramework/KXPlatform.h>

#include <utility>

KXBearerToken::KXBearerToken(std::optional<std::string> token, std::optional<Date> expirationDate)
    : token_(std::move(token)), expirationDate_(expirationDate) {}

bool KXBearerToken::isExpired() const {
    if (!expirationDate_) {
        return false;
    }
    return *expirationDate_ < KXPlatform::current().clock().now();
}
