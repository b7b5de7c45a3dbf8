#pragma once

// How kxctl prints a guest: every property under the library's own name, absent values as null.

#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXJSON.h>

#include <memory>

namespace kxctl {

/// {"externalId", "externalIdType", "languagePref", "buCreativeLabel", "tags", "buProperties",
///  "deliveryProfiles": [{"profileId", "enabled", "tags", "memberships": [{"recipientListId",
///  "languagePref", "enabled"}], "address": {"channel", "attributes", "enabled"}}]}
KXJSON guestJSON(const KXGuest& guest);

/// {"guest": guestJSON(guest)}, or {"guest": null} for no guest.
KXJSON guestLine(const std::shared_ptr<KXGuest>& guest);

}  // namespace kxctl
