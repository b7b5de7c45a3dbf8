#pragma once

// Command-line arguments that carry JSON.

#include "KXCtlOptions.h"

#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXJSONReader.h>

#include <optional>
#include <string>
#include <utility>

namespace kxctl {

/// `text` parsed as JSON within the library's limits (so nothing that prints or sends the value
/// later recurses without a bound); a UsageError naming `option` when it is not JSON or exceeds
/// a limit.
inline KXJSON parseJSONArgument(const std::string& option, const std::string& text) {
    KXJSONReadError problem;
    std::optional<KXJSON> parsed = KXJSONReader::parse(text, KXJSONLimits{}, &problem);
    if (!parsed) {
        throw UsageError{problem.kind == KXJSONReadError::Kind::Malformed
                             ? option + " is not JSON: " + text
                             : option + ": " + problem.message};
    }
    return std::move(*parsed);
}

}  // namespace kxctl
