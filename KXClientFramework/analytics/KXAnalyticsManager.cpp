#include <KXClientFramework/KXAnalyticsManager.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXSession.h>

#include <fmt/format.h>

#include <memory>
#include <utility>

namespace {

constexpr std::size_t kLongestSessionIdentifier = 256;

// Logs the outcome of a session post the same way for both kinds.
void logOutcome(const KXError* error) {
    if (error == nullptr) {
        KX_LOG_DEBUG("\n\nAnalytics data sent to KX.\n\n");
    } else {
        KX_LOG_DEBUG("Analytics data not sent to KX. Error: {}", error->description());
    }
}

}  // namespace

bool KXAnalyticsManager::isUsableSessionIdentifier(const std::string& identifier) {
    if (identifier.empty() || identifier.size() > kLongestSessionIdentifier || identifier == "." ||
        identifier == "..") {
        return false;
    }
    for (const char c : identifier) {
        if (c <= ' ' || c >= 0x7f || c == '/' || c == '?' || c == '#' || c == '%' || c == '\\') {
            return false;
        }
    }
    return true;
}

void KXAnalyticsManager::postStartSession(const KXSession& /*session*/, IdentifierBlock success,
                                          FailureBlock failure) {
    const std::string url = fmt::format("{}/sessions", KXHTTPSessionManager::kxBaseURI());
    post(
        KXSession::currentSession().startSessionData(), url,
        [success = std::move(success)](const std::string& identifier) {
            logOutcome(nullptr);
            if (success) {
                success(identifier);
            }
        },
        [failure = std::move(failure)](const KXError& error) {
            logOutcome(&error);
            if (failure) {
                failure(error);
            }
        });
}

void KXAnalyticsManager::postUpdateOrEndSession(const KXSession& /*session*/, SuccessBlock success,
                                                FailureBlock failure) {
    const KXSession& current = KXSession::currentSession();
    const std::string url = fmt::format("{}/sessions/{}", KXHTTPSessionManager::kxBaseURI(),
                                        current.sessionId().value_or(""));
    post(
        current.endSessionData(), url,
        [success = std::move(success)](const std::string& /*identifier*/) {
            logOutcome(nullptr);
            if (success) {
                success(true);
            }
        },
        [failure = std::move(failure)](const KXError& error) {
            logOutcome(&error);
            if (failure) {
                failure(error);
            }
        });
}

void KXAnalyticsManager::post(const KXJSON& dictionary, const std::string& urlString,
                              IdentifierBlock success, FailureBlock failure) {
    KXHTTPSessionManager::sharedManager().POST(
        urlString, dictionary,
        [success = std::move(success)](const std::shared_ptr<const KXHTTPResponse>& response,
                                       const KXJSON& /*object*/) {
            const KXSession& session = KXSession::currentSession();
            std::string identifier;
            if (session.sessionState() == KXSessionStateNew) {
                identifier = response ? response->valueForHTTPHeaderField("newRecordId") : "";
                if (!identifier.empty() && !isUsableSessionIdentifier(identifier)) {
                    KX_LOG_ERROR(
                        "Ignoring a newRecordId that is not a single path segment: {}",
                        KXJSON(identifier)
                            .dump(-1, ' ', true, nlohmann::json::error_handler_t::replace));
                    identifier.clear();
                }
                KX_LOG_DEBUG("KXSession Started: {}", identifier);
            } else {
                identifier = session.sessionId().value_or("");
            }
            if (success) {
                success(identifier);
            }
        },
        [failure = std::move(failure)](const std::shared_ptr<const KXHTTPResponse>& /*response*/,
                                       const KXError& error) {
            if (failure) {
                failure(error);
            }
        });
}
