#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <cstdint>
#include <string>

/// The domain of errors made from HTTP answers and of errors the library makes itself.
inline constexpr const char* NSOSStatusErrorDomain = "NSOSStatusErrorDomain";
/// The domain of transport failures (no connection, time-out, malformed answer).
inline constexpr const char* NSURLErrorDomain = "NSURLErrorDomain";

/// An error delivered to a failure callback: a domain, a code and free-form user info.
struct KX_EXPORT KXError {
    std::string domain;
    std::int64_t code = 0;
    KXJSON userInfo;  // null when there is none

    KXError() = default;
    KXError(std::string domain, std::int64_t code, KXJSON userInfo = nullptr);

    /// The error made by the library itself: code 99 with the text under "message".
    static KXError withMessage(const std::string& message, std::int64_t code = 99);

    /// "Error Domain=<domain> Code=<code> "<message>" UserInfo=<user info>", as logged.
    std::string description() const;

    /// The user info's "message" or "NSLocalizedDescription" text, if there is one.
    std::string localizedDescription() const;

    bool operator==(const KXError&) const = default;
};
