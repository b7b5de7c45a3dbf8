#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <string>

/// Runs the invitation actions the guest taps. Every line it writes goes to the console
/// unconditionally (KXLog::systemLog), not through the log levels; nothing is reported to the
/// caller.
class KX_EXPORT KXNotificationActionHandler {
public:
    KXNotificationActionHandler() = delete;

    /// Writes the identifier, the user info, the current guest's id and the "listId" of the
    /// user info's "aps" object, then runs the accept, maybe or decline handler; any other
    /// identifier does nothing more.
    static void handleIdentifier(const std::string& identifier, const KXJSON& userInfo);

    /// Subscribes the current guest's push profile of this device to the list `aps["listId"]`
    /// and writes how it ended. Stops silently without a guest id or a list id.
    static void inviteAcceptHandler(const KXJSON& aps);
    /// Writes "Handling maybe..." and nothing more.
    static void inviteMaybeHandler();
    /// Writes "Handling decline..." and nothing more.
    static void inviteDeclineHandler();
};
