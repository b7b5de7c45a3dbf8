#pragma once

#include <KXClientFramework/KXJSON.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kx::archive {

/// The archive of a value: an XML property list. Strings, numbers, booleans, arrays and
/// dictionaries are kept; null values inside containers are left out (property lists have none).
std::vector<std::uint8_t> archive(const KXJSON& value);

/// A value read back from an archive (XML or binary property list). Absent, with the reason in
/// `why`, when the data is not a property list.
std::optional<KXJSON> unarchive(const std::vector<std::uint8_t>& data, std::string* why = nullptr);

}  // namespace kx::archive
