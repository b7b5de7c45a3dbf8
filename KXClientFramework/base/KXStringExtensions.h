#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <optional>
#include <string>

/// String helpers shared by the library's components.
struct KX_EXPORT KXStringExtensions {
    /// True when `value` is null, not a string, or the empty string. Blanks are not empty.
    static bool stringIsNilOrEmpty(const KXJSON& value);

    /// Percent-encodes `value` as UTF-8, escaping everything outside the URL character set and
    /// also each of !*'();:@&=+$,/?%#[] and the blank (a blank becomes %20, never +).
    /// Absent when stringIsNilOrEmpty(value).
    static std::optional<std::string> urlEncode(const KXJSON& value);
};
