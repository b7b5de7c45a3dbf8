#pragma once

#include <KXClientFramework/KXBearerToken.h>
#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXGuarded.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXURLSession.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

/// The base of the library's REST client: where the service lives, how requests are built, and
/// the token gate that makes sure a valid bearer token exists before a request is sent.
///
/// The library sends everything through KXHTTPSessionManager::sharedManager(); sharedInstance()
/// is offered to the application. Every member may be called from any thread. An instance must
/// outlive the requests it started; the shared ones live for the process.
class KX_EXPORT KXSessionManager {
public:
    /// Receives the finished request of the token gate.
    using RequestBlock = std::function<void(const KXURLRequest& request)>;
    using ErrorBlock = std::function<void(const KXError& error)>;

    /// A shared instance of this base class, created on first use. The library does not use it.
    static KXSessionManager& sharedInstance();

    /// The base path of the service, computed afresh on every call from the configuration's
    /// inProduction and the façade's environment and business unit:
    ///
    ///     in production               "/KXFrontier"
    ///     environment 1, 2, 3         "/ZandrelService/rest/bu/<business unit>"
    ///     environment 5               "/KXFrontier-devinteg"
    ///     environment 0, 4, others    "/KXFrontier-stg"
    static std::string kxBaseURI();

    /// Fixes the base URL from the environment and makes the session (request time-out 10 s).
    KXSessionManager();
    virtual ~KXSessionManager();
    KXSessionManager(const KXSessionManager&) = delete;
    KXSessionManager& operator=(const KXSessionManager&) = delete;

    /// Sets baseURL from the environment and the service endpoints:
    ///
    ///     in production               production
    ///     environment 1               test
    ///     environment 2               staging
    ///     environment 3               local server
    ///     every other environment     development
    void configureBaseUrl();

    /// Sets the façade's environment, then configureBaseUrl(). For the application; the library
    /// never calls it.
    void resetBaseURLToEnvironment(std::int64_t environment);

    /// With a token, makes "Authorization: BEARER <token>" the session's one additional header
    /// and replaces the session by a new one built from that configuration. Connections are kept
    /// (every session shares the one network engine). An absent token changes nothing.
    void setAuthorizationHeader(const std::optional<std::string>& token);

    /// The JSON request: method, "Accept" and "Content-Type" "application/json", the session's
    /// time-out, and the parameters (if any) as compact JSON body, for every method, GET and
    /// DELETE included. Also renews the session's Authorization header from bearerToken(). When
    /// the parameters cannot be written as JSON, `error` is set and the body left out.
    KXURLRequest requestWithMethod(const std::string& method, const std::string& URL,
                                   const KXJSON& parameters, KXError* error = nullptr);

    /// The form request of the token endpoint: POST, "Content-Type"
    /// "application/x-www-form-urlencoded", body serialize(parameters); no "Accept", no token.
    KXURLRequest authorizationRequestWithURL(const std::string& URL, const KXJSON& parameters,
                                             KXError* error = nullptr);

    /// The form body: "key=value" pieces joined with "&", neither keys nor values percent-
    /// encoded (the token endpoint's values are plain identifiers). Strings go in as they are,
    /// other values as their JSON text.
    std::string serialize(const KXJSON& parameters) const;

    /// The token gate. With a bearer token that has not expired, builds the JSON request and
    /// passes it to `request` at once, on the caller's thread. Otherwise asks the shared token
    /// client for a token first and then builds the request on the main thread; when that fails
    /// it logs the error and passes it to `failure`.
    ///
    /// When the token endpoint answers 2xx without JSON the answer is dropped, and then neither
    /// block is ever called for this request.
    void requestWithMethod(const std::string& method, const std::string& URL,
                           const KXJSON& parameters, RequestBlock request, ErrorBlock failure);

    std::shared_ptr<KXURLSession> session() const;
    /// Scheme, host and port of the service (no path).
    std::string baseURL() const;
    void setBaseURL(std::string baseURL);
    /// The current token; null until the first one is saved.
    std::shared_ptr<KXBearerToken> bearerToken() const;
    void setBearerToken(std::shared_ptr<KXBearerToken> bearerToken);
    /// The configuration sessions are built from. setConfiguration() replaces the session at
    /// once, so every request started afterwards, the token request included, uses the new
    /// time-out, body limit and certificate authorities; requests under way keep theirs. To
    /// trust a private authority, change the current configuration:
    ///
    ///     KXSessionConfiguration configuration = manager.configuration();
    ///     configuration.certificateAuthorityFile = "/etc/kiosk/service-ca.pem";
    ///     manager.setConfiguration(configuration);
    ///
    /// The JSON requests still set the Authorization header from the bearer token.
    KXSessionConfiguration configuration() const;
    void setConfiguration(KXSessionConfiguration configuration);

private:
    KXURLRequest baseRequest(const std::string& method, const std::string& URL) const;

    mutable std::mutex mutex_;
    KXSessionConfiguration configuration_;
    std::shared_ptr<KXURLSession> session_;
    KXGuarded<std::string> baseURL_;
    KXGuarded<std::shared_ptr<KXBearerToken>> bearerToken_;
};
