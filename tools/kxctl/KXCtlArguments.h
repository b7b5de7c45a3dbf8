#pragma once

// Command-line arguments that carry JSON.

#include "KXCtlOptions.h"

#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXJSONReader.h>

#include <optional>
#include <string>
#include <utility>

namespace kxctl {

/// `text` read as JSON with the library's limits; a UsageError naming `option` when it is not
/// JSON or goes beyond the limits.
inline KXJSON parseJSONArgument(const std::string& option, const std::string& text) {
    KXJSONReadError problem;
    std::optional<KXJSON> value = KXJSONReader::parse(text, KXJSONLimits{}, &problem);
    if (!value) {
        throw UsageError{problem.kind == KXJSONReadError::Kind::Malformed
                             ? option + " is not JSON: " + text
                             : option + ": " + problem.message};
    }
    return std::move(*value);
}

/// A remote notification's payload: `text` read as a JSON object (see parseJSONArgument).
inline KXJSON parseNotificationArgument(const std::string& option, const std::string& text) {
    KXJSON payload = parseJSONArgument(option, text);
    if (!payload.is_object()) {
        throw UsageError{option + " takes a notification payload, a JSON object: " + text};
    }
    return payload;
}

}  // namespace kxctl
