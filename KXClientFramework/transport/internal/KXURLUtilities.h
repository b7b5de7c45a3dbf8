#pragma once

#include <string>
#include <string_view>

namespace kx::url {

/// Percent-escapes (UTF-8) every byte that may not appear in a URL, leaving the unreserved and
/// reserved characters alone: letters, digits, "-._~" and ":/?#@!$&'()*+,;=", and a "%"
/// followed by two hexadecimal digits (a percent-escape the caller made, such as a reserved
/// character escaped inside a query value). Everything else, the blank, any other "%",
/// brackets and every byte above 0x7F included, becomes %XX.
std::string escapeIllegalCharacters(std::string_view text);

/// `reference` resolved against `base` (RFC 3986): an absolute URL stays as it is, a path that
/// begins with "/" replaces the base's path. Returns `base` + `reference` if either cannot be
/// parsed, which then fails as a malformed URL when it is sent.
std::string resolve(const std::string& base, const std::string& reference);

/// The host of `URL`, or the empty string.
std::string host(const std::string& URL);

}  // namespace kx::url
