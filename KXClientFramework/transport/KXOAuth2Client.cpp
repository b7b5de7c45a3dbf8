#include <KXClientFramework/KXBackgroundTimer.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXOAuth2Client.h>
#include <KXClientFramework/KXOAuthCredential.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXProcessWide.h>
#include <KXClientFramework/KXSettings.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <utility>

namespace {

constexpr const char* kKeychainServicePrefix = "KXOAuthCredentialService";
constexpr double kRenewalTickSeconds = 60.0;
constexpr double kRenewalFactor = 0.8;
// The timer ticks at once when resumed and then every minute; renewing on that first tick
// would let a service that hands out very short lifetimes drive a loop of token requests.
constexpr std::int64_t kFirstRenewingTick = 2;
// Lifetimes beyond this many seconds (about 31 years) count as "never", which also keeps the
// date arithmetic far from the limits of the clock's representation.
constexpr double kLongestLifetimeSeconds = 1e9;

/// A scalar taken as received: a string stays, a number becomes its decimal text.
std::optional<std::string> scalarString(const KXJSON& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_number_integer() || value.is_number_unsigned()) {
        return value.dump();
    }
    if (value.is_number_float()) {
        const double number = value.get<double>();
        return number == std::trunc(number) && std::fabs(number) < 1e15
                   ? std::to_string(static_cast<std::int64_t>(number))
                   : value.dump();
    }
    return std::nullopt;
}

/// The lifetime in seconds: a number, or a string read like a number (its leading numeric
/// part). Any other kind of value counts as absent.
std::optional<double> lifetimeSeconds(const KXJSON& value) {
    double seconds = 0;
    if (value.is_number()) {
        seconds = value.get<double>();
    } else if (value.is_string()) {
        seconds = std::strtod(value.get_ref<const std::string&>().c_str(), nullptr);
    } else if (value.is_boolean()) {
        seconds = value.get<bool>() ? 1 : 0;
    } else {
        return std::nullopt;
    }
    if (std::isnan(seconds)) {
        return std::nullopt;
    }
    return seconds;
}

std::string describe(const std::shared_ptr<KXBearerToken>& token) {
    return fmt::format("<KXBearerToken: {}>", static_cast<const void*>(token.get()));
}

}  // namespace

KXOAuth2Client& KXOAuth2Client::client() {
    return kxProcessWide<KXOAuth2Client>();
}

KXOAuth2Client::KXOAuth2Client() = default;

KXOAuth2Client::~KXOAuth2Client() {
    // Destroying the timer cancels it and waits for a tick that is running.
    std::unique_ptr<KXBackgroundTimer> timer;
    {
        std::lock_guard lock(mutex_);
        timer = std::move(backgroundTimer_);
    }
}

KXOAuth2Client& KXOAuth2Client::initWithClientId(std::optional<std::string> clientId,
                                                 std::optional<std::string> secret) {
    std::string keychainId = std::string(kKeychainServicePrefix) + clientId.value_or("");
    identity_.set({std::move(keychainId), std::move(clientId), std::move(secret)});
    return *this;
}

KXJSON KXOAuth2Client::grantParameters(const std::optional<std::string>& clientId,
                                       const std::optional<std::string>& secret) {
    KXJSON parameters = {{"grant_type", kKXAFOAuthClientCredentialsGrantType},
                         {"scope", kKXAFOAuthScope}};
    if (clientId) {
        parameters["client_id"] = *clientId;
    }
    if (secret) {
        parameters["client_secret"] = *secret;
    }
    return parameters;
}

std::string KXOAuth2Client::tokenURL() {
    const KXServiceEndpoints endpoints = KXSettings::shared().serviceEndpoints();
    return (KXConfig::defaultConfig().inProduction() ? endpoints.productionToken
                                                     : endpoints.stagingToken) +
           "/token";
}

void KXOAuth2Client::authenticateWithSuccess(SuccessBlock success, FailureBlock failure) {
    KX_LOG_DEBUG("Fetching and Storing Bearer Token");
    {
        std::lock_guard lock(mutex_);
        authenticating_ = true;
    }
    // A request that reaches the token gate meanwhile waits for this token instead of renewing
    // with a credential the keychain does not hold yet.
    fetchToken(
        grantParameters(clientId(), secret()),
        [this, success = std::move(success)] {
            if (success) {
                success();
            }
            answerWaitersOfAuthentication(nullptr);
        },
        [this, failure = std::move(failure)](const KXError& error) {
            if (failure) {
                failure(error);
            }
            answerWaitersOfAuthentication(&error);
        },
        // Nobody is answered, as for a renewal, and the requests that waited for this token are
        // let go with it: left waiting, they would keep every later renewal from starting.
        [this] {
            std::vector<Waiter> dropped;
            {
                std::lock_guard lock(mutex_);
                authenticating_ = false;
                dropped = std::exchange(waiting_, {});
            }
        });
}

void KXOAuth2Client::answerWaitersOfAuthentication(const KXError* error) {
    std::vector<Waiter> waiters;
    {
        std::lock_guard lock(mutex_);
        authenticating_ = false;
        waiters = std::exchange(waiting_, {});
    }
    const std::shared_ptr<KXBearerToken> token =
        KXHTTPSessionManager::sharedManager().bearerToken();
    for (Waiter& waiter : waiters) {
        if (error == nullptr && waiter.success) {
            waiter.success(token);
        } else if (error != nullptr && waiter.failure) {
            waiter.failure(*error);
        }
    }
}

void KXOAuth2Client::fetchAndStoreBearerTokenWithParameters(const KXJSON& parameters,
                                                            SuccessBlock success,
                                                            FailureBlock failure) {
    fetchToken(parameters, std::move(success), std::move(failure), nullptr);
}

std::optional<KXError> KXOAuth2Client::unusableTokenAnswer(const KXJSON& response) {
    const auto refuse = [](const char* reason) {
        return KXError(NSURLErrorDomain, kKXTokenAnswerErrorCode,
                       KXJSON{{"NSLocalizedDescription", reason}});
    };
    const auto accessToken = response.find("access_token");
    if (accessToken == response.end() || !scalarString(*accessToken)) {
        return refuse("The token answer holds no access_token");
    }
    const auto expiresIn = response.find("expires_in");
    // Null and other kinds of value mean "never expires"; a number, a text or a boolean must
    // read as a positive lifetime.
    if (expiresIn != response.end() &&
        (expiresIn->is_number() || expiresIn->is_string() || expiresIn->is_boolean())) {
        const std::optional<double> seconds = lifetimeSeconds(*expiresIn);
        if (!seconds || !(*seconds > 0)) {
            return refuse("The token answer's expires_in is not a positive number of seconds");
        }
    }
    return std::nullopt;
}

void KXOAuth2Client::fetchToken(const KXJSON& parameters, SuccessBlock success,
                                FailureBlock failure, std::function<void()> dropped) {
    KXHTTPSessionManager::sharedManager().AUTHORIZATION(
        tokenURL(), parameters,
        [this, success = std::move(success), failure, dropped = std::move(dropped)](
            const std::shared_ptr<const KXHTTPResponse>&, const KXJSON& responseObject) {
            if (!responseObject.is_object()) {
                // A 2xx answer without a JSON object is dropped.
                if (dropped) {
                    dropped();
                }
                return;
            }
            if (std::optional<KXError> problem = unusableTokenAnswer(responseObject)) {
                if (failure) {
                    failure(*problem);
                }
                return;
            }
            createAndStoreAuthCredentials(responseObject);
            saveBearerToken(responseObject);
            if (success) {
                success();
            }
        },
        // A copy: the block above holds the same failure, and arguments are evaluated in no
        // fixed order.
        [failure](const std::shared_ptr<const KXHTTPResponse>&, const KXError& error) {
            if (failure) {
                failure(error);
            }
        });
}

bool KXOAuth2Client::createAndStoreAuthCredentials(const KXJSON& /*response*/) {
    const Identity identity = identity_.get();
    return KXOAuthCredential::storeCredential(
        KXOAuthCredential::credentialWithClientId(identity.clientId, identity.secret),
        identity.keychainId);
}

void KXOAuth2Client::saveBearerToken(const KXJSON& response) {
    using std::chrono::system_clock;
    const KXClock& clock = KXPlatform::current().clock();
    const KXJSON empty;
    const KXJSON& accessToken = response.is_object() && response.contains("access_token")
                                    ? response["access_token"]
                                    : empty;
    const KXJSON& expiresIn =
        response.is_object() && response.contains("expires_in") ? response["expires_in"] : empty;

    KXBearerToken::Date expiration = KXBearerToken::distantFuture();
    if (const std::optional<double> seconds = lifetimeSeconds(expiresIn)) {
        if (*seconds < kLongestLifetimeSeconds) {
            const double bounded = std::max(*seconds, -kLongestLifetimeSeconds);
            expiration = clock.now() + std::chrono::duration_cast<system_clock::duration>(
                                           std::chrono::duration<double>(bounded));
        }
    }
    auto token = std::make_shared<KXBearerToken>(scalarString(accessToken), expiration);
    KXHTTPSessionManager::sharedManager().setBearerToken(token);

    // The clock is read again after the expiration was computed, so a lifetime of exactly
    // 3600 seconds counts as 59 whole minutes and renews after 47 ticks.
    const auto minutes =
        std::chrono::duration_cast<std::chrono::minutes>(expiration - clock.now()).count();
    setExpireInMinutes(static_cast<std::int64_t>(static_cast<double>(minutes) * kRenewalFactor));
    setCountOfMinutes(0);

    KXBackgroundTimer* timer = nullptr;
    {
        std::lock_guard lock(mutex_);
        if (!backgroundTimer_) {
            backgroundTimer_ = std::make_unique<KXBackgroundTimer>(
                kRenewalTickSeconds, [this] { refreshBearerTokenIfNecessary(); });
        }
        timer = backgroundTimer_.get();
    }
    if (!timer->isRunning()) {
        timer->resume();
    }
}

void KXOAuth2Client::refreshBearerTokenIfNecessary() {
    const std::int64_t count = countOfMinutes_.fetch_add(1) + 1;
    if (count < expireInMinutes() || count < kFirstRenewingTick) {
        return;
    }
    if (KXBackgroundTimer* timer = backgroundTimer()) {
        timer->suspend();
    }
    refreshBearerTokenWithSuccess(
        [](const std::shared_ptr<KXBearerToken>& token) {
            KX_LOG_DEBUG("Successfully Refreshed Bearer Token: {}", describe(token));
        },
        [](const KXError&) { KX_LOG_ERROR("Failed To Refresh Bearer Token"); });
}

std::vector<KXOAuth2Client::Waiter> KXOAuth2Client::takeWaiters() {
    std::lock_guard lock(mutex_);
    return std::exchange(waiting_, {});
}

void KXOAuth2Client::refreshBearerTokenWithSuccess(TokenBlock success, FailureBlock failure) {
    {
        std::lock_guard lock(mutex_);
        waiting_.push_back({std::move(success), std::move(failure)});
        if (authenticating_ || waiting_.size() > 1) {
            return;  // the authentication or renewal under way answers this caller too
        }
    }
    const std::shared_ptr<KXOAuthCredential> credential =
        KXOAuthCredential::retrieveCredentialWithIdentifier(keychainId());
    const KXJSON parameters =
        credential ? grantParameters(credential->clientId(), credential->clientSecret())
                   : grantParameters(std::nullopt, std::nullopt);
    fetchToken(
        parameters,
        [this] {
            const std::shared_ptr<KXBearerToken> token =
                KXHTTPSessionManager::sharedManager().bearerToken();
            for (Waiter& waiter : takeWaiters()) {
                if (waiter.success) {
                    waiter.success(token);
                }
            }
        },
        [this](const KXError& error) {
            for (Waiter& waiter : takeWaiters()) {
                if (waiter.failure) {
                    waiter.failure(error);
                }
            }
        },
        // Nobody is answered, as for a single fetch, but the next caller starts a new one.
        [this] { takeWaiters(); });
}

std::string KXOAuth2Client::keychainId() const {
    return identity_.get().keychainId;
}
void KXOAuth2Client::setKeychainId(std::string keychainId) {
    identity_.modify([&](Identity& identity) { identity.keychainId = std::move(keychainId); });
}
std::optional<std::string> KXOAuth2Client::clientId() const {
    return identity_.get().clientId;
}
void KXOAuth2Client::setClientId(std::optional<std::string> clientId) {
    identity_.modify([&](Identity& identity) { identity.clientId = std::move(clientId); });
}
std::optional<std::string> KXOAuth2Client::secret() const {
    return identity_.get().secret;
}
void KXOAuth2Client::setSecret(std::optional<std::string> secret) {
    identity_.modify([&](Identity& identity) { identity.secret = std::move(secret); });
}
KXBackgroundTimer* KXOAuth2Client::backgroundTimer() const {
    std::lock_guard lock(mutex_);
    return backgroundTimer_.get();
}
