#include "inbox/internal/KXInboxGuest.h"

#if __has_include(<KXClientFramework/KXGuest.h>)
#include <KXClientFramework/KXGuest.h>

namespace kx::inbox {

std::optional<std::string> currentGuestExternalId() {
    return KXGuest::currentGuest()->externalId();
}

bool currentGuestHasInboxDeliveryProfile() {
    return KXGuest::currentGuest()->hasInboxDeliveryProfile();
}

}  // namespace kx::inbox
#else
// TEMPORARY until the guest records are merged.
namespace kx::inbox {
std::optional<std::string> currentGuestExternalId() {
    return std::nullopt;
}
bool currentGuestHasInboxDeliveryProfile() {
    return false;
}
}  // namespace kx::inbox
#endif
