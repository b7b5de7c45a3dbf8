#pragma once

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXHTTPSessionManager.h>

#include <string>

namespace kxtest {

/// Points every service endpoint, the token endpoints too, at `baseURL` and makes the shared
/// transport take it now. The transport otherwise fixes its base URL when it is first used, and
/// tests that run one after another in a process would all talk to the first test's service.
inline void pointServiceAt(const std::string& baseURL) {
    KXServiceEndpoints endpoints;
    for (std::string* url :
         {&endpoints.production, &endpoints.test, &endpoints.staging, &endpoints.localServer,
          &endpoints.development, &endpoints.productionToken, &endpoints.stagingToken}) {
        *url = baseURL;
    }
    KXClientFramework::setServiceEndpoints(endpoints);
    KXHTTPSessionManager::sharedManager().configureBaseUrl();
}

}  // namespace kxtest
