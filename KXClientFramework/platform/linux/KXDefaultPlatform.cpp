#include <KXClientFramework/KXLinuxPlatform.h>

#include <utility>

std::shared_ptr<KXPlatform> KXPlatform::makeDefault() {
    KXLinuxPlatformOptions options;
    options.applicationId = KXLinuxPlatform::defaultApplicationId();
    return std::make_shared<KXLinuxPlatform>(std::move(options));
}
