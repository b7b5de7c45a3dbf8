#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <functional>
#include <string>

class KXSession;

/// The REST client of the analytics sessions. It holds no state: its operations post the
/// shared session's documents through the shared transport and report on the main queue.
///
/// Both session posts read KXSession::currentSession() whatever session they are given.
class KX_EXPORT KXAnalyticsManager {
public:
    using IdentifierBlock = std::function<void(const std::string& identifier)>;
    using SuccessBlock = std::function<void(bool)>;
    using FailureBlock = std::function<void(const KXError& error)>;

    /// POSTs the start document to "<base URI>/sessions"; `success` receives the answer's
    /// "newRecordId" header (empty when the service sent none or one that is not a single path
    /// segment).
    static void postStartSession(const KXSession& session, IdentifierBlock success,
                                 FailureBlock failure);
    /// POSTs the update/end document to "<base URI>/sessions/<sessionId>" (an absent
    /// identifier is written as the empty string); `success` receives true.
    static void postUpdateOrEndSession(const KXSession& session, SuccessBlock success,
                                       FailureBlock failure);
    /// POSTs `dictionary` as JSON to `urlString`. On success passes on the "newRecordId"
    /// header while the current session is new (and logs it), otherwise the session's own
    /// identifier; on failure passes on the transport's error.
    static void post(const KXJSON& dictionary, const std::string& urlString,
                     IdentifierBlock success, FailureBlock failure);

    /// True when `identifier` can stand as the last segment of the session URL: not empty, at
    /// most 256 bytes, printable ASCII without "/", "?", "#", "%", "\\" or blanks, and not "."
    /// or "..".
    static bool isUsableSessionIdentifier(const std::string& identifier);
};
