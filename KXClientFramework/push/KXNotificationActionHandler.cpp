#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXGuestManager.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXNotificationActionHandler.h>

#include "guest/internal/KXReceivedValues.h"

#include <fmt/format.h>

namespace {

void console(const std::string& line) {
    KXLog::systemLog(line);
}

std::string describe(const KXJSON& value) {
    if (value.is_null()) {
        return "(null)";
    }
    if (value.is_string()) {
        return value.get<std::string>();
    }
    return KXJSONReader::dump(value);
}

const KXJSON& entry(const KXJSON& object, const char* key) {
    static const KXJSON absent;
    if (!object.is_object()) {
        return absent;
    }
    const auto it = object.find(key);
    return it == object.end() ? absent : *it;
}

}  // namespace

void KXNotificationActionHandler::handleIdentifier(const std::string& identifier,
                                                   const KXJSON& userInfo) {
    const auto guestId = KXGuest::currentGuest()->externalId();
    console(fmt::format("Action Identifer: {}", identifier));
    console(fmt::format("User Info: {}", describe(userInfo)));
    console(fmt::format("Current KXGuest: {}", guestId ? *guestId : "(null)"));
    const KXJSON& aps = entry(userInfo, "aps");
    console(fmt::format("ListId KX: {}", describe(entry(aps, "listId"))));

    if (identifier == "ACCEPT_IDENTIFIER") {
        inviteAcceptHandler(aps);
    } else if (identifier == "MAYBE_IDENTIFIER") {
        inviteMaybeHandler();
    } else if (identifier == "DECLINE_IDENTIFIER") {
        inviteDeclineHandler();
    }
}

void KXNotificationActionHandler::inviteAcceptHandler(const KXJSON& aps) {
    console("Handling accept...");
    if (!KXGuest::currentGuest()->externalId()) {
        return;
    }
    const KXJSON& listValue = entry(aps, "listId");
    if (listValue.is_null()) {
        return;
    }
    // A number names the list by its decimal text; other values reach the subscription as
    // absent and fail its check.
    const std::optional<std::string> listId = kxReceivedString(listValue);
    const std::string shown = describe(listValue);
    KXGuestManager::subscribeToList(
        listId, KXChannelTypeAPNS,
        [shown](bool) { console(fmt::format("Successfully subscribed to {}", shown)); },
        [shown](const KXError&) { console(fmt::format("Unable to subscribed to {}", shown)); });
}

void KXNotificationActionHandler::inviteMaybeHandler() {
    console("Handling maybe...");
}

void KXNotificationActionHandler::inviteDeclineHandler() {
    console("Handling decline...");
}
