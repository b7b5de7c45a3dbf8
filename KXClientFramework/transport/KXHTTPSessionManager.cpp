#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXSettings.h>
#include <KXClientFramework/KXProcessWide.h>

#include "transport/internal/KXURLUtilities.h"

#include <utility>

namespace {

bool isHTTPSuccess(const KXHTTPResponse* response) {
    const long status = response != nullptr ? response->statusCode : 0;
    if (KXSettings::shared().RESTfulServiceLoggingEnabled()) {
        KXJSON headers = KXJSON::object();
        if (response != nullptr) {
            for (const auto& [name, value] : response->headers) {
                headers[name] = value;
            }
        }
        KX_LOG_DEBUG("\nResponse Headers: {}\nResponse StatusCode: {}", KXJSONReader::dump(headers),
                     status);
    }
    return static_cast<unsigned long>(status - 200) < 100;
}

KXError errorFromAnswer(const std::string& body, const KXHTTPResponse* response) {
    return {NSOSStatusErrorDomain, response != nullptr ? response->statusCode : 0,
            KXHTTPSessionManager::JSONObjectWithData(body)};
}

void showActivityIndicator(bool visible) {
    KXPlatform::current().application().setNetworkActivityIndicatorVisible(visible);
}

}  // namespace

KXHTTPSessionManager& KXHTTPSessionManager::sharedManager() {
    return kxProcessWide<KXHTTPSessionManager>();
}

KXJSON KXHTTPSessionManager::JSONObjectWithData(const std::string& body) {
    return decodeJSONAnswer(body, nullptr);
}

KXJSON KXHTTPSessionManager::decodeJSONAnswer(std::string_view body,
                                              std::optional<KXError>* refusal) {
    KXJSONReadError problem;
    std::optional<KXJSON> parsed = KXJSONReader::parse(body, KXJSONLimits{}, &problem);
    if (!parsed) {
        if (refusal != nullptr && problem.kind != KXJSONReadError::Kind::Malformed) {
            *refusal = KXError("NSCocoaErrorDomain", 3840,
                               KXJSON{{"NSLocalizedDescription", problem.message}});
        }
        return nullptr;
    }
    if (parsed->is_object() || parsed->is_array()) {
        return std::move(*parsed);
    }
    return nullptr;
}

bool KXHTTPSessionManager::httpSuccess(const KXHTTPResponse* response) const {
    return isHTTPSuccess(response);
}

KXError KXHTTPSessionManager::createError(const std::string& body,
                                          const KXHTTPResponse* response) const {
    return errorFromAnswer(body, response);
}

void KXHTTPSessionManager::setNetworkActivityIndicatorVisible(bool visible) {
    showActivityIndicator(visible);
}

std::string KXHTTPSessionManager::absoluteURLForPath(const std::string& path) const {
    return kx::url::resolve(baseURL(), kx::url::escapeIllegalCharacters(path));
}

void KXHTTPSessionManager::GET(const std::string& path, const KXJSON& parameters,
                               SuccessBlock success, FailureBlock failure) {
    send("GET", path, parameters, std::move(success), std::move(failure));
}

void KXHTTPSessionManager::POST(const std::string& path, const KXJSON& parameters,
                                SuccessBlock success, FailureBlock failure) {
    send("POST", path, parameters, std::move(success), std::move(failure));
}

void KXHTTPSessionManager::PUT(const std::string& path, const KXJSON& parameters,
                               SuccessBlock success, FailureBlock failure) {
    send("PUT", path, parameters, std::move(success), std::move(failure));
}

void KXHTTPSessionManager::DELETE(const std::string& path, const KXJSON& parameters,
                                  SuccessBlock success, FailureBlock failure) {
    send("DELETE", path, parameters, std::move(success), std::move(failure));
}

void KXHTTPSessionManager::complete(const std::shared_ptr<const KXHTTPResponse>& response,
                                    const std::optional<KXError>& error,
                                    const SuccessBlock& success, const FailureBlock& failure) {
    if (!error && isHTTPSuccess(response.get())) {
        std::optional<KXError> refusal;
        const KXJSON object = decodeJSONAnswer(response->body, &refusal);
        if (!refusal) {
            if (success) {
                success(response, object);
            }
        } else if (failure) {
            failure(response, *refusal);
        }
    } else if (failure) {
        failure(response,
                error ? *error
                      : errorFromAnswer(response ? response->body : std::string(), response.get()));
    }
}

void KXHTTPSessionManager::send(const char* method, const std::string& path,
                                const KXJSON& parameters, SuccessBlock success,
                                FailureBlock failure) {
    const std::string URL = absoluteURLForPath(path);
    showActivityIndicator(KXConfig::defaultConfig().networkActivityIndicatorEnabled());
    requestWithMethod(
        method, URL, parameters,
        [this, success, failure](const KXURLRequest& request) {
            session()->dataTask(request,
                                [success, failure](std::shared_ptr<const KXHTTPResponse> response,
                                                   std::optional<KXError> error) {
                                    complete(response, error, success, failure);
                                    showActivityIndicator(false);
                                });
        },
        [failure](const KXError& error) {
            showActivityIndicator(false);
            if (failure) {
                failure(nullptr, error);
            }
        });
}

void KXHTTPSessionManager::AUTHORIZATION(const std::string& URL, const KXJSON& parameters,
                                         SuccessBlock success, FailureBlock failure) {
    const KXURLRequest request = authorizationRequestWithURL(URL, parameters);
    session()->dataTask(
        request, [success = std::move(success), failure = std::move(failure)](
                     std::shared_ptr<const KXHTTPResponse> response, std::optional<KXError> error) {
            complete(response, error, success, failure);
        });
}
