#pragma once

#include <cstdint>
#include <string>

/// A window title that carries the application's badge: "Inbox (3)"; no count when the badge
/// is 0. A negative badge (0 lowered by an opened message) is shown as it is.
inline std::string kxBadgeWindowTitle(const std::string& title, std::int64_t badge) {
    return badge == 0 ? title : title + " (" + std::to_string(badge) + ")";
}
