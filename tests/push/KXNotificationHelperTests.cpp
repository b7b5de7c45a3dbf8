// Engaging's choice between this and the older registration: KXEngagementRegistrationTest.
#include "KXTestPlatform.h"

#include <KXClientFramework/KXNotificationHelper.h>

#include <gtest/gtest.h>

#include <tuple>

TEST(KXNotificationHelper, OnlyAGrantedAuthorisationRegistersForRemoteNotifications) {
    using Case = std::tuple<const char*, bool, std::optional<KXError>>;
    for (const auto& [name, granted, error] :
         {Case{"granted", true, {}}, Case{"refused", false, {}},
          Case{"refused with an error", false, KXError("UNErrorDomain", 1)}}) {
        SCOPED_TRACE(name);
        auto platform = KXTestPlatform::install();
        const auto registrations = [&] {
            return platform->recordingApplication().registerForRemoteNotificationsCount();
        };
        if (!granted) {
            platform->fakeNotificationAuthorizer().deny(error);
        }
        KXNotificationHelper::registerUNNotifications();
        EXPECT_EQ(platform->fakeNotificationAuthorizer().requests(), std::vector<std::uint32_t>{7});
        EXPECT_EQ(registrations(), 0) << "the answer arrives later, on the main queue";
        if (granted) {
            ASSERT_TRUE(platform->runUntil([&] { return registrations() > 0; }));
        }
        bool drained = false;  // everything posted so far has run
        platform->mainQueue().post([&] { drained = true; });
        ASSERT_TRUE(platform->runUntil([&] { return drained; }));
        EXPECT_EQ(registrations(), granted ? 1 : 0);
        EXPECT_EQ(platform->application().isRegisteredForRemoteNotifications(), granted);
        EXPECT_FALSE(platform->application().currentUserNotificationSettings().has_value());
    }
}
