#include "KXCtlGuestJSON.h"

#include <optional>
#include <string>

namespace kxctl {
namespace {

KXJSON orNull(const std::optional<std::string>& value) {
    return value ? KXJSON(*value) : KXJSON();
}

KXJSON membershipJSON(const KXDeliveryMembership& membership) {
    return {{"recipientListId", orNull(membership.recipientListId())},
            {"languagePref", orNull(membership.languagePref())},
            {"enabled", membership.enabled()}};
}

KXJSON profileJSON(const KXDeliveryProfile& profile) {
    KXJSON memberships = KXJSON::array();
    for (const auto& membership : profile.memberships()) {
        memberships.push_back(membership ? membershipJSON(*membership) : KXJSON());
    }
    KXJSON address;
    if (const auto& a = profile.address()) {
        address = {{"channel", orNull(a->channel())},
                   {"attributes", a->attributes()},
                   {"enabled", a->enabled()}};
    }
    return {{"profileId", orNull(profile.profileId())},
            {"enabled", profile.enabled()},
            {"tags", profile.tags()},
            {"memberships", memberships},
            {"address", address}};
}

}  // namespace

KXJSON guestJSON(const KXGuest& guest) {
    KXJSON profiles;
    if (guest.deliveryProfiles()) {
        profiles = KXJSON::array();
        for (const auto& profile : *guest.deliveryProfiles()) {
            profiles.push_back(profile ? profileJSON(*profile) : KXJSON());
        }
    }
    return {{"externalId", orNull(guest.externalId())},
            {"externalIdType", orNull(guest.externalIdType())},
            {"languagePref", orNull(guest.languagePref())},
            {"buCreativeLabel", orNull(guest.buCreativeLabel())},
            {"tags", guest.tags()},
            {"buProperties", guest.buProperties()},
            {"deliveryProfiles", profiles}};
}

KXJSON guestLine(const std::shared_ptr<KXGuest>& guest) {
    return {{"guest", guest ? guestJSON(*guest) : KXJSON()}};
}

}  // namespace kxctl
