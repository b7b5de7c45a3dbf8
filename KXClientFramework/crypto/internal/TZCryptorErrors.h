#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/TZCryptorSettings.h>

#include <cstdint>
#include <string>

// Errors of kTZCryptorErrorDomain. Cipher failures carry only their status; the cryptors' own
// errors carry their text under NSLocalizedDescription, as KXError::localizedDescription reads it.

inline KXError TZStatusError(std::int64_t status) {
    return KXError(kTZCryptorErrorDomain, status, nullptr);
}

inline KXError TZDescribedError(std::int64_t code, const std::string& description) {
    return KXError(kTZCryptorErrorDomain, code, KXJSON{{"NSLocalizedDescription", description}});
}

inline KXError TZUnknownHeaderError() {
    return TZDescribedError(TZCryptorErrorUnknownHeader, "Unknown header");
}

inline KXError TZHMACMismatchError() {
    return TZDescribedError(TZCryptorErrorHMACMismatch, "HMAC Mismatch");
}

/// Stores `value` in `*error` when the caller asked for errors.
inline void TZReportError(KXError* error, const KXError& value) {
    if (error != nullptr) {
        *error = value;
    }
}
