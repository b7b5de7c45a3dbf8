#pragma once

// Command-line arguments that carry JSON.

#include "KXCtlOptions.h"

#include <KXClientFramework/KXJSON.h>

#include <string>

namespace kxctl {

/// `text` parsed as JSON; a UsageError naming `option` when it is not JSON.
inline KXJSON parseJSONArgument(const std::string& option, const std::string& text) {
    KXJSON value = KXJSON::parse(text, nullptr, false);
    if (value.is_discarded()) {
        throw UsageError{option + " is not JSON: " + text};
    }
    return value;
}

}  // namespace kxctl
