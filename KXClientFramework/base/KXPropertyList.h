#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// Conversion between property lists (XML and binary "bplist00") and KXJSON.
///
/// | property list | KXJSON                                               |
/// |---------------|------------------------------------------------------|
/// | dict          | object                                               |
/// | array         | array                                                |
/// | string        | string (UTF-8)                                       |
/// | integer       | signed integer; unsigned when above INT64_MAX        |
/// | real          | floating-point number                                |
/// | true / false  | boolean                                              |
/// | data          | binary (KXJSON::binary_t)                            |
/// | date          | read only: "YYYY-MM-DDTHH:MM:SSZ" in UTC, with       |
/// |               | fractional seconds when the date has them            |
/// | uid           | read only: {"CF$UID": n}                             |
///
/// parse() never throws and never trusts its input: anything that is not a well-formed
/// property list (garbage, truncated or damaged binary plists, impossible lengths or offsets,
/// cycles, nesting deeper than kMaximumDepth, expansion beyond kMaximumObjects, strings that
/// are not UTF-8) gives std::nullopt.
///
/// When writing, null values inside objects and arrays are skipped (a property list has no
/// null), and in strings and keys every byte that is not valid UTF-8, and every U+0000, is
/// replaced by U+FFFD, so the result always parses again. A null root is written as an empty
/// dictionary. A value nested deeper than kMaximumDepth cannot be written: toXML() then returns an
/// empty string and toBinary() an empty vector.
class KX_EXPORT KXPropertyList {
public:
    /// Containers nested deeper than this are rejected.
    static constexpr std::size_t kMaximumDepth = 512;
    /// Binary property lists may share objects; a file whose objects would expand to more
    /// than this many values is rejected.
    static constexpr std::uint64_t kMaximumObjects = 4'000'000;

    /// Reads an XML or binary property list; std::nullopt when `bytes` is not one.
    static std::optional<KXJSON> parse(std::span<const std::uint8_t> bytes);
    static std::optional<KXJSON> parse(std::string_view bytes);

    /// Writes `value` as an XML property list (UTF-8, with the usual header and DOCTYPE).
    static std::string toXML(const KXJSON& value);
    /// Writes `value` as a binary property list ("bplist00").
    static std::vector<std::uint8_t> toBinary(const KXJSON& value);

    /// True when `bytes` starts like a binary property list.
    static bool isBinary(std::span<const std::uint8_t> bytes);
};
