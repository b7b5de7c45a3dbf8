#include "inbox/internal/KXInboxGuest.h"

#include <KXClientFramework/KXGuest.h>

namespace kx::inbox {

std::optional<std::string> currentGuestExternalId() {
    return KXGuest::currentGuest()->externalId();
}

bool currentGuestHasInboxDeliveryProfile() {
    return KXGuest::currentGuest()->hasInboxDeliveryProfile();
}

}  // namespace kx::inbox
