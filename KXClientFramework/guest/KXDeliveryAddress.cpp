#include <KXClientFramework/KXDeliveryAddress.h>

#include "guest/internal/KXReceivedValues.h"

KXDeliveryAddress::KXDeliveryAddress(const KXJSON& dictionary)
    : channel_(kxReceivedString(dictionary, "channel")),
      attributes_(kxReceivedValue(dictionary, "attributes")),
      enabled_(kxReceivedBool(dictionary, "enabled")) {}

std::optional<std::string> KXDeliveryAddress::attribute(const char* key) const {
    return kxReceivedString(attributes_, key);
}
