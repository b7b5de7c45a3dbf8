#include "guest/internal/KXGuestSettings.h"

#include <KXClientFramework/KXClientFramework.h>

std::optional<std::string> kxGuestApplicationId() {
    return KXClientFramework::sharedManager().applicationId();
}
