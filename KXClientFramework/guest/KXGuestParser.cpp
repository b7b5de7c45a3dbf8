#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXGuestParser.h>

#include "guest/internal/KXReceivedValues.h"

void KXGuestParser::parse(const KXJSON& dictionary) {
    const std::shared_ptr<KXGuest> guest = KXGuest::currentGuest();
    parseRoot(dictionary, guest);
    parseTags(dictionary, guest);
    parseDeliveryProfiles(dictionary, guest);
    parseBuProperties(dictionary, guest);
}

bool KXGuestParser::parseRoot(const KXJSON& dictionary, const std::shared_ptr<KXGuest>& guest) {
    if (!dictionary.is_object() || !guest) {
        return false;
    }
    // The identifier's type travels with the identifier: without one it is ignored.
    if (auto externalId = kxReceivedString(dictionary, "externalId")) {
        guest->setExternalId(std::move(externalId));
        guest->setExternalIdType(kxReceivedString(dictionary, "externalIdType"));
    }
    if (auto label = kxReceivedString(dictionary, "buCreativeLabel")) {
        guest->setBuCreativeLabel(std::move(label));
    }
    if (auto language = kxReceivedString(dictionary, "languagePref")) {
        guest->setLanguagePref(std::move(language));
    }
    return true;
}

bool KXGuestParser::parseTags(const KXJSON& dictionary, const std::shared_ptr<KXGuest>& guest) {
    if (!dictionary.is_object() || !guest) {
        return false;
    }
    const KXJSON& tags = kxReceivedValue(dictionary, "tags");
    guest->setTags(tags.is_array() ? tags : KXJSON::array());
    return true;
}

bool KXGuestParser::parseDeliveryProfiles(const KXJSON& dictionary,
                                          const std::shared_ptr<KXGuest>& guest) {
    if (!dictionary.is_object() || !guest) {
        return false;
    }
    KXGuest::Profiles profiles;
    const KXJSON& received = kxReceivedValue(dictionary, "deliveryProfiles");
    if (received.is_array()) {
        profiles.reserve(received.size());
        for (const KXJSON& profile : received) {
            profiles.push_back(std::make_shared<KXDeliveryProfile>(profile));
        }
    }
    guest->setDeliveryProfiles(std::move(profiles));
    return true;
}

bool KXGuestParser::parseBuProperties(const KXJSON& dictionary,
                                      const std::shared_ptr<KXGuest>& guest) {
    if (!dictionary.is_object() || !guest) {
        return false;
    }
    const KXJSON& properties = kxReceivedValue(dictionary, "buProperties");
    guest->setBuProperties(properties.is_object() ? properties : KXJSON::object());
    return true;
}
