#pragma once

#include <KXClientFramework/KXExport.h>

#include <chrono>
#include <optional>
#include <string>

/// A bearer token of the service and the moment it runs out. Immutable.
class KX_EXPORT KXBearerToken {
public:
    using Date = std::chrono::system_clock::time_point;

    KXBearerToken(std::optional<std::string> token, std::optional<Date> expirationDate);

    const std::optional<std::string>& token() const { return token_; }
    const std::optional<Date>& expirationDate() const { return expirationDate_; }

    /// True when the expiration date lies strictly before the platform clock's current time.
    /// A token without an expiration date never expires.
    bool isExpired() const;

    /// The date that stands for "never": the latest representable instant.
    static Date distantFuture() { return Date::max(); }

private:
    const std::optional<std::string> token_;
    const std::optional<Date> expirationDate_;
};
