#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXHTTPResponse.h>
#include <KXClientFramework/KXSessionManager.h>

#include <functional>
#include <memory>
#include <string>

/// The library's one REST client. The service managers compose a path that begins with
/// kxBaseURI() and a parameter dictionary and call a verb; the verb resolves the path against
/// baseURL(), passes the token gate, sends the request on the network thread and reports on
/// the main queue:
///
/// - status 200 to 299: `success(response, object)` with the body parsed as JSON (a top-level
///   object or array; any other body, an empty one included, gives null); a JSON body beyond
///   KXJSONLimits (nested deeper than 512 levels, more than a million values) is refused:
///   `failure(response, error)` with decodeJSONAnswer()'s error;
/// - any other status: `failure(response, error)` with an NSOSStatusErrorDomain error whose code
///   is the status and whose user info is the JSON body (or null);
/// - no answer (connection refused or dropped, time-out, body over the size limit):
///   `failure(nullptr, error)` with the transport error (NSURLErrorDomain, libcurl's code);
/// - no token could be had: `failure(nullptr, error)` with the token error.
///
/// Each callback runs at most once, on the main queue; an empty callback is skipped.
class KX_EXPORT KXHTTPSessionManager : public KXSessionManager {
public:
    using SuccessBlock = std::function<void(std::shared_ptr<const KXHTTPResponse> response,
                                            const KXJSON& responseObject)>;
    using FailureBlock =
        std::function<void(std::shared_ptr<const KXHTTPResponse> response, const KXError& error)>;

    /// The shared transport, created on first use (thread-safe); its base URL is fixed from the
    /// environment at that moment.
    static KXHTTPSessionManager& sharedManager();

    KXHTTPSessionManager() = default;

    void GET(const std::string& path, const KXJSON& parameters, SuccessBlock success,
             FailureBlock failure);
    void POST(const std::string& path, const KXJSON& parameters, SuccessBlock success,
              FailureBlock failure);
    void PUT(const std::string& path, const KXJSON& parameters, SuccessBlock success,
             FailureBlock failure);
    void DELETE(const std::string& path, const KXJSON& parameters, SuccessBlock success,
                FailureBlock failure);

    /// The token request: a form-encoded POST to the absolute `URL`, without the token gate and
    /// without the activity indicator; reports like the verbs above.
    void AUTHORIZATION(const std::string& URL, const KXJSON& parameters, SuccessBlock success,
                       FailureBlock failure);

    /// True for a status from 200 to 299; a null response has status 0 and fails.
    bool httpSuccess(const KXHTTPResponse* response) const;

    /// The error of a non-2xx answer: NSOSStatusErrorDomain, the status as code, the body parsed
    /// as JSON (object or array) as user info, null when it is not JSON.
    KXError createError(const std::string& body, const KXHTTPResponse* response) const;

    /// Shows or hides the platform application's network activity indicator.
    void setNetworkActivityIndicatorVisible(bool visible);

    /// A body parsed as JSON: a top-level object or array, else null (no fragments).
    static KXJSON JSONObjectWithData(const std::string& body);

    /// JSONObjectWithData() that also tells a body beyond KXJSONLimits from one that is not
    /// JSON: both give null, and the refused one sets `refusal` (when given) to an error in
    /// "NSCocoaErrorDomain", code 3840, whose "NSLocalizedDescription" says which limit.
    static KXJSON decodeJSONAnswer(std::string_view body, std::optional<KXError>* refusal);

    /// `path` percent-escaped and resolved against baseURL(), as an absolute URL string.
    std::string absoluteURLForPath(const std::string& path) const;

private:
    void send(const char* method, const std::string& path, const KXJSON& parameters,
              SuccessBlock success, FailureBlock failure);
    static void complete(const std::shared_ptr<const KXHTTPResponse>& response,
                         const std::optional<KXError>& error, const SuccessBlock& success,
                         const FailureBlock& failure);
};
