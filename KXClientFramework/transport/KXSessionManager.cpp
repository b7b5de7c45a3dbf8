#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXOAuth2Client.h>
#include <KXClientFramework/KXProcessWide.h>
#include <KXClientFramework/KXSessionManager.h>
#include <KXClientFramework/KXSettings.h>
#include <KXClientFramework/KXTransportActivity.h>

#include "transport/internal/KXURLUtilities.h"

#include <fmt/format.h>

#include <utility>

namespace {

constexpr double kRequestTimeout = 10.0;

std::string dumpForLog(const KXJSON& value) {
    return KXJSONReader::dump(value);
}

KXJSON headersForLog(const KXHTTPHeaders& headers) {
    KXJSON object = KXJSON::object();
    for (const auto& [name, value] : headers) {
        object[name] = value;
    }
    return object;
}

std::string formValue(const KXJSON& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_null()) {
        return "<null>";
    }
    return dumpForLog(value);
}

}  // namespace

KXSessionManager& KXSessionManager::sharedInstance() {
    return kxProcessWide<KXSessionManager>();
}

std::string KXSessionManager::kxBaseURI() {
    if (KXConfig::defaultConfig().inProduction()) {
        return "/KXFrontier";
    }
    const KXSettings& settings = KXSettings::shared();
    switch (settings.environment()) {
        case 1:
        case 2:
        case 3:
            return fmt::format("/ZandrelService/rest/bu/{}",
                               settings.businessUnit().value_or("(null)"));
        case 5:
            return "/KXFrontier-devinteg";
        case 4:
        default:
            return "/KXFrontier-stg";
    }
}

KXSessionManager::KXSessionManager() {
    configureBaseUrl();
    configuration_ = KXSessionConfiguration::defaultSessionConfiguration();
    configuration_.timeoutIntervalForRequest = kRequestTimeout;
    session_ = KXURLSession::sessionWithConfiguration(configuration_);
}

KXSessionManager::~KXSessionManager() = default;

void KXSessionManager::configureBaseUrl() {
    const std::int64_t environment = KXSettings::shared().environment();
    KX_LOG_DEBUG("KX iOS SDK Environment: {}", environment);
    const KXServiceEndpoints endpoints = KXSettings::shared().serviceEndpoints();
    std::string url;
    if (KXConfig::defaultConfig().inProduction()) {
        url = endpoints.production;
    } else {
        switch (environment) {
            case 1:
                url = endpoints.test;
                break;
            case 2:
                url = endpoints.staging;
                break;
            case 3:
                url = endpoints.localServer;
                break;
            default:
                url = endpoints.development;
                break;
        }
    }
    setBaseURL(url);
    KX_LOG_DEBUG("Base URL: {}", kx::url::host(url));
}

void KXSessionManager::resetBaseURLToEnvironment(std::int64_t environment) {
    KXSettings::shared().setEnvironment(environment);
    configureBaseUrl();
}

void KXSessionManager::setAuthorizationHeader(const std::optional<std::string>& token) {
    if (!token) {
        return;
    }
    std::lock_guard lock(mutex_);
    configuration_.HTTPAdditionalHeaders = KXHTTPHeaders{{"Authorization", "BEARER " + *token}};
    // Every request sets the header; the session is only replaced when something changed.
    if (session_->configuration() != configuration_) {
        session_ = KXURLSession::sessionWithConfiguration(configuration_);
    }
}

KXURLRequest KXSessionManager::baseRequest(const std::string& method,
                                           const std::string& URL) const {
    KXURLRequest request;
    request.URL = URL;
    request.HTTPMethod = method;
    std::lock_guard lock(mutex_);
    request.timeoutInterval = configuration_.timeoutIntervalForRequest;
    return request;
}

KXURLRequest KXSessionManager::requestWithMethod(const std::string& method, const std::string& URL,
                                                 const KXJSON& parameters, KXError* error) {
    KXURLRequest request = baseRequest(method, URL);
    request.setValue("application/json", "Accept");
    request.setValue("application/json", "Content-Type");

    const std::shared_ptr<KXBearerToken> token = bearerToken();
    setAuthorizationHeader(token ? token->token() : std::nullopt);

    if (!parameters.is_null()) {
        // Like a value JSON cannot represent, parameters nested beyond the reader's limit give
        // no body: writing them out would recurse once per level.
        const std::size_t deepest = KXJSONLimits{}.maximumDepth;
        std::string problem;
        if (KXJSONReader::depth(parameters) > deepest) {
            problem = fmt::format("JSON nested deeper than {} levels", deepest);
        } else {
            try {
                request.HTTPBody = parameters.dump();
            } catch (const KXJSON::exception& exception) {
                problem = exception.what();
            }
        }
        if (!problem.empty() && error != nullptr) {
            *error =
                KXError("NSCocoaErrorDomain", 3840, KXJSON{{"NSLocalizedDescription", problem}});
        }
    }

    if (KXSettings::shared().RESTfulServiceLoggingEnabled()) {
        KX_LOG_DEBUG("\nRequest Headers: {}\nRequest URL: {}\nRequest Parameters: {}",
                     dumpForLog(headersForLog(request.allHTTPHeaderFields)), request.URL,
                     parameters.is_null() ? std::string("(null)") : dumpForLog(parameters));
    }
    return request;
}

KXURLRequest KXSessionManager::authorizationRequestWithURL(const std::string& URL,
                                                           const KXJSON& parameters,
                                                           KXError* /*error*/) {
    KXURLRequest request = baseRequest("POST", URL);
    request.setValue("application/x-www-form-urlencoded", "Content-Type");
    // The body holds the client's secret: never re-post it wherever a redirect points.
    request.followsRedirects = false;
    if (!parameters.is_null()) {
        request.HTTPBody = serialize(parameters);
    }
    if (KXSettings::shared().RESTfulServiceLoggingEnabled()) {
        KX_LOG_DEBUG("\nRequest Headers: {}\nRequest URL: {}",
                     dumpForLog(headersForLog(request.allHTTPHeaderFields)), request.URL);
    }
    return request;
}

std::string KXSessionManager::serialize(const KXJSON& parameters) const {
    std::string body;
    if (!parameters.is_object()) {
        return body;
    }
    for (const auto& [key, value] : parameters.items()) {
        if (!body.empty()) {
            body.push_back('&');
        }
        body.append(key).push_back('=');
        body.append(formValue(value));
    }
    return body;
}

void KXSessionManager::requestWithMethod(const std::string& method, const std::string& URL,
                                         const KXJSON& parameters, RequestBlock request,
                                         ErrorBlock failure) {
    const std::shared_ptr<KXBearerToken> token = bearerToken();
    // A token without its text would send the request without Authorization: fetch one.
    if (token && token->token() && !token->isExpired()) {
        KXURLRequest built = requestWithMethod(method, URL, parameters);
        if (request) {
            request(built);
        }
        return;
    }
    // While the request waits for its token it is under way too.
    auto wait = KXTransportActivity::beginTokenWait();
    KXOAuth2Client::client().refreshBearerTokenWithSuccess(
        [this, method, URL, parameters, request, wait](const std::shared_ptr<KXBearerToken>&) {
            KXURLRequest built = requestWithMethod(method, URL, parameters);
            if (request) {
                request(built);
            }
            wait->end();
        },
        [failure, wait](const KXError& error) {
            wait->end();
            KX_LOG_ERROR("ERROR: {}", error.description());
            if (failure) {
                failure(error);
            }
        });
}

std::shared_ptr<KXURLSession> KXSessionManager::session() const {
    std::lock_guard lock(mutex_);
    return session_;
}

std::string KXSessionManager::baseURL() const {
    return baseURL_.get();
}

void KXSessionManager::setBaseURL(std::string baseURL) {
    baseURL_.set(std::move(baseURL));
}

std::shared_ptr<KXBearerToken> KXSessionManager::bearerToken() const {
    return bearerToken_.get();
}

void KXSessionManager::setBearerToken(std::shared_ptr<KXBearerToken> bearerToken) {
    bearerToken_.set(std::move(bearerToken));
}

KXSessionConfiguration KXSessionManager::configuration() const {
    std::lock_guard lock(mutex_);
    return configuration_;
}

void KXSessionManager::setConfiguration(KXSessionConfiguration configuration) {
    std::lock_guard lock(mutex_);
    configuration_ = std::move(configuration);
    // At once, so that a request that bypasses the token gate (the token request) uses it too.
    session_ = KXURLSession::sessionWithConfiguration(configuration_);
}
