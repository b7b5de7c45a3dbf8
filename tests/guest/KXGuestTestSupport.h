#pragma once

// Helpers the guest tests share: the guest and its profiles as one JSON value, and profile
// objects as the service sends them.

#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXJSON.h>

#include <optional>
#include <string>

inline KXJSON optionalJSON(const std::optional<std::string>& value) {
    return value ? KXJSON(*value) : KXJSON();
}

/// Every property of `guest` under its own name; absent values are null.
inline KXJSON describeGuest(const KXGuest& guest) {
    KXJSON profiles;
    if (guest.deliveryProfiles()) {
        profiles = KXJSON::array();
        for (const auto& profile : *guest.deliveryProfiles()) {
            KXJSON memberships = KXJSON::array();
            for (const auto& membership : profile->memberships()) {
                memberships.push_back(
                    {{"recipientListId", optionalJSON(membership->recipientListId())},
                     {"languagePref", optionalJSON(membership->languagePref())},
                     {"enabled", membership->enabled()}});
            }
            KXJSON address;
            if (profile->address()) {
                address = {{"channel", optionalJSON(profile->address()->channel())},
                           {"attributes", profile->address()->attributes()},
                           {"enabled", profile->address()->enabled()}};
            }
            profiles.push_back({{"profileId", optionalJSON(profile->profileId())},
                                {"enabled", profile->enabled()},
                                {"tags", profile->tags()},
                                {"memberships", memberships},
                                {"address", address}});
        }
    }
    return {{"externalId", optionalJSON(guest.externalId())},
            {"externalIdType", optionalJSON(guest.externalIdType())},
            {"languagePref", optionalJSON(guest.languagePref())},
            {"buCreativeLabel", optionalJSON(guest.buCreativeLabel())},
            {"tags", guest.tags()},
            {"buProperties", guest.buProperties()},
            {"deliveryProfiles", profiles}};
}

/// A profile object as the service sends it.
inline KXJSON profileJSON(const std::string& id, const std::string& channel,
                          KXJSON attributes = KXJSON::object()) {
    return {{"id", id},
            {"enabled", true},
            {"address", {{"channel", channel}, {"enabled", true}, {"attributes", attributes}}}};
}

inline KXJSON apnsProfileJSON(const std::string& id, const std::string& token) {
    return profileJSON(id, "APNS_PUSH", {{"applicationToken", token}, {"applicationId", "app"}});
}
