#include "KXTestPlatform.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXSessionManager.h>

#include <gtest/gtest.h>

#include <tuple>

namespace {

const KXServiceEndpoints kEndpoints = {.production = "https://prod.example.test",
                                       .test = "http://test.example.test",
                                       .staging = "http://staging.example.test:8080",
                                       .localServer = "http://127.0.0.1:9650",
                                       .development = "https://dev.example.test"};

class EnvironmentTable : public ::testing::Test {
protected:
    std::shared_ptr<KXTestPlatform> platform = KXTestPlatform::install();
};

}  // namespace

TEST_F(EnvironmentTable, EachEnvironmentChoosesItsHostAndPath) {
    KXClientFramework::setServiceEndpoints(kEndpoints);
    KXClientFramework::sharedManager().setBusinessUnit("BU9");
    const std::string bu = "/ZandrelService/rest/bu/BU9";
    // The environment, and the host and path it chooses outside production.
    const std::vector<std::tuple<std::int64_t, std::string, std::string>> rows = {
        {0, "https://dev.example.test", "/KXFrontier-stg"},
        {1, "http://test.example.test", bu},
        {2, "http://staging.example.test:8080", bu},
        {3, "http://127.0.0.1:9650", bu},
        {4, "https://dev.example.test", "/KXFrontier-stg"},
        {5, "https://dev.example.test", "/KXFrontier-devinteg"},
        {-1, "https://dev.example.test", "/KXFrontier-stg"},
    };
    for (bool inProduction : {false, true}) {
        KXConfig::defaultConfig().setInProduction(inProduction);
        for (const auto& [environment, baseURL, basePath] : rows) {
            SCOPED_TRACE(testing::Message()
                         << "environment " << environment << " inProduction " << inProduction);
            KXClientFramework::setEnvironment(environment);
            KXSessionManager manager;
            EXPECT_EQ(manager.baseURL(), inProduction ? "https://prod.example.test" : baseURL);
            EXPECT_EQ(KXSessionManager::kxBaseURI(), inProduction ? "/KXFrontier" : basePath);
        }
    }
}

TEST_F(EnvironmentTable, ThePathFollowsEveryChangeButTheHostOnlyAReset) {
    KXClientFramework::setServiceEndpoints(kEndpoints);
    KXSessionManager manager;
    EXPECT_EQ(manager.baseURL(), "https://dev.example.test");

    KXClientFramework::setEnvironment(1);
    EXPECT_EQ(KXSessionManager::kxBaseURI(), "/ZandrelService/rest/bu/(null)")
        << "an absent business unit is written the way the format writes nil";
    EXPECT_EQ(manager.baseURL(), "https://dev.example.test");

    manager.resetBaseURLToEnvironment(2);
    EXPECT_EQ(KXClientFramework::sharedManager().environment(), 2);
    EXPECT_EQ(manager.baseURL(), "http://staging.example.test:8080");
}

TEST_F(EnvironmentTable, DefaultEndpointsNeverReachARealHost) {
    const KXServiceEndpoints defaults;
    for (const std::string* url :
         {&defaults.production, &defaults.test, &defaults.staging, &defaults.development,
          &defaults.productionToken, &defaults.stagingToken}) {
        EXPECT_NE(url->find(".invalid"), std::string::npos) << *url;
    }
    EXPECT_EQ(defaults.localServer, "http://127.0.0.1:9650");
}
