#pragma once

#include <optional>
#include <string>

namespace kx {

/// `value` made safe to stand as one path segment or query value of a service URL: every
/// reserved character ("/", "?", "#", "&", "=", "%", ...) and everything outside the URL
/// character set is percent-encoded, so an identifier can neither reach another resource nor
/// break the query; "." and ".." are escaped too, so that they are not resolved as dot
/// segments. Absent gives the empty string.
std::string pathSegment(const std::optional<std::string>& value);

}  // namespace kx
