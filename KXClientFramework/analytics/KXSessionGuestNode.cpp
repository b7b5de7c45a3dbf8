#include <KXClientFramework/KXSession.h>

#if __has_include(<KXClientFramework/KXGuest.h>)
#include <KXClientFramework/KXDeliveryProfile.h>
#include <KXClientFramework/KXGuest.h>
#endif

bool KXSession::setGuestSessionNode(KXJSON& dictionary) const {
    if (!dictionary.is_object()) {
        return false;
    }
#if __has_include(<KXClientFramework/KXGuest.h>)
    const std::shared_ptr<KXGuest> guest = KXGuest::currentGuest();
    KXJSON node = KXJSON::object();
    if (guest->externalId()) {
        node["guestId"] = *guest->externalId();
    }
    // A push profile without an identifier names nothing the service could match.
    if (auto profile = guest->APNSDeliveryProfileForCurrentDevice();
        profile && profile->profileId()) {
        node["guestProfileId"] = *profile->profileId();
    }
    if (!node.empty()) {
        dictionary["guestSession"] = std::move(node);
    }
#endif
    return true;
}
