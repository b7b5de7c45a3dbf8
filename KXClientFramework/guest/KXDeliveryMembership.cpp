#include <KXClientFramework/KXDeliveryMembership.h>

#include "guest/internal/KXReceivedValues.h"

KXDeliveryMembership::KXDeliveryMembership(const KXJSON& dictionary)
    : recipientListId_(kxReceivedString(dictionary, "recipientListId")),
      languagePref_(kxReceivedString(dictionary, "languagePref")),
      enabled_(kxReceivedBool(dictionary, "enabled")) {}
