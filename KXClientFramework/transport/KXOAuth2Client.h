#pragma once

#include <KXClientFramework/KXBearerToken.h>
#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXGuarded.h>
#include <KXClientFramework/KXJSON.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class KXBackgroundTimer;

/// The code (in NSURLErrorDomain, as NSURLErrorBadServerResponse) of a token answer that holds
/// no usable token.
inline constexpr std::int64_t kKXTokenAnswerErrorCode = -1011;

/// Obtains bearer tokens with the OAuth 2 client-credentials grant and renews them before they
/// run out.
///
/// Each saved token resets a minute counter; a KXBackgroundTimer ticks every 60 seconds on the
/// background queue (at once when it is first resumed) and, once the counter reaches 80 % of
/// the token's lifetime in minutes, suspends itself and renews the token with the credential
/// stored in the keychain. The next saved token resumes it. A failed renewal leaves it
/// suspended; the transport's token gate then fetches a token when it finds the current one
/// expired.
///
/// A 2xx token answer whose body is not JSON is dropped: neither block of the fetch runs, and a
/// request waiting for that token in the transport's gate never completes; the next request
/// that needs a token starts a new fetch. A JSON answer that cannot give a usable token fails
/// the fetch with an error in NSURLErrorDomain, code kKXTokenAnswerErrorCode, and stores
/// nothing: no "access_token" string or number, or an "expires_in" that is present but not a
/// positive number of seconds (0, negative, a text that does not start with a number, false).
/// Such a token would be expired the moment it arrives, or would send requests without
/// Authorization.
///
/// Renewals come one at a time: every refreshBearerTokenWithSuccess() made while a renewal is
/// under way waits for that one and shares its outcome (the transport's gate, the timer, the
/// application), so any number of requests waiting for a token cost one token request.
///
/// Every member may be called from any thread.
class KX_EXPORT KXOAuth2Client {
public:
    using SuccessBlock = std::function<void()>;
    using FailureBlock = std::function<void(const KXError& error)>;
    using TokenBlock = std::function<void(const std::shared_ptr<KXBearerToken>& token)>;

    /// The shared client, created empty on first use. Its identity is replaced by each
    /// initWithClientId() (the façade re-initialises it at every authentication).
    static KXOAuth2Client& client();

    KXOAuth2Client();
    ~KXOAuth2Client();
    KXOAuth2Client(const KXOAuth2Client&) = delete;
    KXOAuth2Client& operator=(const KXOAuth2Client&) = delete;

    /// Sets the client id, the secret and keychainId ("KXOAuthCredentialService" + client id).
    KXOAuth2Client& initWithClientId(std::optional<std::string> clientId,
                                     std::optional<std::string> secret);

    /// Fetches a token with this client's own id and secret and stores it.
    void authenticateWithSuccess(SuccessBlock success, FailureBlock failure);

    /// Posts `parameters` to the token endpoint ("/token" on the production or staging token
    /// host, by the configuration's inProduction). A JSON answer stores the credential and the
    /// token, then calls `success`; an error answer or a transport failure calls `failure`.
    void fetchAndStoreBearerTokenWithParameters(const KXJSON& parameters, SuccessBlock success,
                                                FailureBlock failure);

    /// Stores this client's id and secret in the keychain under keychainId(). The response is
    /// not consulted.
    bool createAndStoreAuthCredentials(const KXJSON& response);

    /// Makes the token of a token response ("access_token", "expires_in" seconds; a missing or
    /// null lifetime never expires) the transport's bearer token, sets expireInMinutes to 80 %
    /// of its whole minutes, restarts the count and runs the renewal timer.
    void saveBearerToken(const KXJSON& response);

    /// One tick of the renewal timer. The tick that comes at once when the timer is resumed
    /// never renews, so a token is renewed at most once a minute however short its lifetime.
    void refreshBearerTokenIfNecessary();

    /// Fetches a new token with the credential stored under keychainId() (with none stored, the
    /// request carries only the grant type and the scope) and passes the transport's new
    /// bearer token to `success`. While a fetch started here is under way, further calls wait
    /// for it instead of starting another.
    void refreshBearerTokenWithSuccess(TokenBlock success, FailureBlock failure);

    /// Why a 2xx JSON token answer gives no usable token, or std::nullopt when it does.
    static std::optional<KXError> unusableTokenAnswer(const KXJSON& response);

    /// The grant's form parameters; an absent id or secret leaves its key out.
    static KXJSON grantParameters(const std::optional<std::string>& clientId,
                                  const std::optional<std::string>& secret);

    /// The token endpoint chosen by the configuration's inProduction.
    static std::string tokenURL();

    std::string keychainId() const;
    void setKeychainId(std::string keychainId);
    std::optional<std::string> clientId() const;
    void setClientId(std::optional<std::string> clientId);
    std::optional<std::string> secret() const;
    void setSecret(std::optional<std::string> secret);
    std::int64_t expireInMinutes() const { return expireInMinutes_.load(); }
    void setExpireInMinutes(std::int64_t minutes) { expireInMinutes_.store(minutes); }
    std::int64_t countOfMinutes() const { return countOfMinutes_.load(); }
    void setCountOfMinutes(std::int64_t count) { countOfMinutes_.store(count); }
    /// The renewal timer; null until the first token is saved.
    KXBackgroundTimer* backgroundTimer() const;

private:
    struct Waiter {
        TokenBlock success;
        FailureBlock failure;
    };
    void fetchToken(const KXJSON& parameters, SuccessBlock success, FailureBlock failure,
                    std::function<void()> dropped);
    std::vector<Waiter> takeWaiters();
    /// Ends the authentication under way and answers the requests that waited for it.
    void answerWaitersOfAuthentication(const KXError* error);

    mutable std::mutex mutex_;
    /// The callers of the renewal under way; empty when none is.
    std::vector<Waiter> waiting_;
    /// An authentication is under way: renewals asked for meanwhile wait for its token.
    bool authenticating_ = false;
    /// The client's identity; set together by initWithClientId() and read together when the
    /// credential is stored.
    struct Identity {
        std::string keychainId;
        std::optional<std::string> clientId;
        std::optional<std::string> secret;
    };
    KXGuarded<Identity> identity_;
    std::atomic<std::int64_t> expireInMinutes_{0};
    std::atomic<std::int64_t> countOfMinutes_{0};
    std::unique_ptr<KXBackgroundTimer> backgroundTimer_;
};
