#include "guest/internal/KXGuestSettings.h"

#include <KXClientFramework/KXSettings.h>

std::optional<std::string> kxGuestApplicationId() {
    return KXSettings::shared().applicationId();
}
