#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXTransportActivity.h>
#include <KXClientFramework/KXURLSession.h>

#include "transport/internal/KXNetworkEngine.h"

#include <algorithm>
#include <cmath>

KXURLSession::KXURLSession(KXSessionConfiguration configuration)
    : configuration_(std::move(configuration)) {}

std::shared_ptr<KXURLSession> KXURLSession::sessionWithConfiguration(
    KXSessionConfiguration configuration) {
    return std::make_shared<KXURLSession>(std::move(configuration));
}

void KXURLSession::dataTask(const KXURLRequest& request, Completion completion) const {
    KXNetworkRequest outgoing;
    outgoing.method = request.HTTPMethod;
    outgoing.URL = request.URL;
    outgoing.body = request.HTTPBody;
    outgoing.followsRedirects = request.followsRedirects;
    outgoing.maximumBodySize = configuration_.maximumResponseBodySize;
    outgoing.certificateAuthorityFile = configuration_.certificateAuthorityFile;
    const double seconds = std::isfinite(request.timeoutInterval) && request.timeoutInterval > 0
                               ? std::min(request.timeoutInterval, 86400.0 * 365)
                               : configuration_.timeoutIntervalForRequest;
    outgoing.timeout =
        std::chrono::milliseconds(static_cast<std::int64_t>(std::ceil(seconds * 1000)));
    // The session's fields first; a field the request sets itself replaces the session's.
    for (const auto& [name, value] : configuration_.HTTPAdditionalHeaders) {
        if (request.allHTTPHeaderFields.find(name) == request.allHTTPHeaderFields.end()) {
            outgoing.headers.emplace_back(name, value);
        }
    }
    for (const auto& [name, value] : request.allHTTPHeaderFields) {
        outgoing.headers.emplace_back(name, value);
    }

    // Completions go to the main queue of the platform that was current when the task began.
    // The activity mark travels with the completion, so the request stops counting only once
    // its completion has run on the main queue.
    std::shared_ptr<KXPlatform> platform = KXPlatform::currentShared();
    KXNetworkEngine::shared().submit(
        std::move(outgoing),
        [platform = std::move(platform), completion = std::move(completion),
         mark = KXTransportActivity::begin()](KXNetworkResult result) mutable {
            if (!completion) {
                return;
            }
            platform->mainQueue().post([completion = std::move(completion),
                                        result = std::move(result),
                                        mark = std::move(mark)]() mutable {
                completion(std::move(result.response), std::move(result.error));
            });
        });
}
