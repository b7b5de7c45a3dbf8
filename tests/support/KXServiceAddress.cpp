#include "KXServiceAddress.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXHTTPSessionManager.h>

namespace kxtest {

void pointServiceAt(const std::string& baseURL) {
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
