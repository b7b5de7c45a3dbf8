#include "KXTestPlatform.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXSessionManager.h>

#include <gtest/gtest.h>

namespace {

const KXServiceEndpoints kEndpoints = {.production = "https://prod.example.test",
                                       .test = "http://test.example.test",
                                       .staging = "http://staging.example.test:8080",
                                       .localServer = "http://127.0.0.1:9650",
                                       .development = "https://dev.example.test"};

struct Row {
    bool inProduction;
    std::int64_t environment;
    std::string baseURL;
    std::string basePath;
};

class EnvironmentTable : public ::testing::Test {
protected:
    std::shared_ptr<KXTestPlatform> platform = KXTestPlatform::install();
};

}  // namespace

TEST_F(EnvironmentTable, EachEnvironmentChoosesItsHostAndPath) {
    KXClientFramework::setServiceEndpoints(kEndpoints);
    KXClientFramework::sharedManager().setBusinessUnit("BU9");
    const std::string bu = "/ZandrelService/rest/bu/BU9";
    const std::vector<Row> rows = {
        {false, 0, "https://dev.example.test", "/KXFrontier-stg"},
        {false, 1, "http://test.example.test", bu},
        {false, 2, "http://staging.example.test:8080", bu},
        {false, 3, "http://127.0.0.1:9650", bu},
        {false, 4, "https://dev.example.test", "/KXFrontier-stg"},
        {false, 5, "https://dev.example.test", "/KXFrontier-devinteg"},
        {false, -1, "https://dev.example.test", "/KXFrontier-stg"},
    };
    for (bool inProduction : {false, true}) {
        KXConfig::defaultConfig().setInProduction(inProduction);
        for (const Row& row : rows) {
            SCOPED_TRACE(testing::Message()
                         << "environment " << row.environment << " inProduction " << inProduction);
            KXClientFramework::setEnvironment(row.environment);
            KXSessionManager manager;
            EXPECT_EQ(manager.baseURL(), inProduction ? "https://prod.example.test" : row.baseURL);
            EXPECT_EQ(KXSessionManager::kxBaseURI(), inProduction ? "/KXFrontier" : row.basePath);
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
