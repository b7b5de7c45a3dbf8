#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// What a JSON text from outside the process may build.
struct KX_EXPORT KXJSONLimits {
    /// Objects and arrays nested deeper than this are refused, so that nothing that later walks
    /// the value (printing, comparing, copying, converting to a property list) recurses without
    /// a bound.
    std::size_t maximumDepth = 512;
    /// Values (containers, keys' values and scalars) beyond this count are refused, so that a
    /// body of a few megabytes cannot expand into gigabytes of parsed values.
    std::size_t maximumValues = 1'000'000;
    /// Refuse an object that names the same key twice instead of keeping the last value.
    bool rejectDuplicateKeys = false;
};

/// Why a text was refused.
struct KX_EXPORT KXJSONReadError {
    enum class Kind {
        /// Not JSON: syntax, text after the value, ill-formed UTF-8.
        Malformed,
        /// Deeper than KXJSONLimits::maximumDepth.
        TooDeep,
        /// More than KXJSONLimits::maximumValues values.
        TooManyValues,
        /// A key named twice in one object (only when duplicates are refused).
        DuplicateKey,
    };
    Kind kind = Kind::Malformed;
    /// One line saying what is wrong, for a person.
    std::string message;
};

/// The one way the library and its tools read JSON from outside the process.
///
/// Parsing is iterative (no recursion on the input's nesting) and stops at the first problem:
/// malformed JSON, text after the value, ill-formed UTF-8, nesting deeper than
/// KXJSONLimits::maximumDepth, more than KXJSONLimits::maximumValues values or, when asked, a
/// duplicate key.
class KX_EXPORT KXJSONReader {
public:
    /// The parsed value, or std::nullopt with the reason in `error` (when given).
    static std::optional<KXJSON> parse(std::string_view text, const KXJSONLimits& limits = {},
                                       KXJSONReadError* error = nullptr);

    /// How deeply `value` nests containers (0 for a scalar, 1 for a flat array), counted
    /// without recursion.
    static std::size_t depth(const KXJSON& value);

    /// Compact (indent -1) or indented JSON text with ill-formed UTF-8 replaced by U+FFFD. A
    /// value nested deeper than KXJSONLimits::maximumDepth is not walked: the text is then the
    /// JSON string "<JSON nested deeper than 512 levels>".
    static std::string dump(const KXJSON& value, int indent = -1);
};
