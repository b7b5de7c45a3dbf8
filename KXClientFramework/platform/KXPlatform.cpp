#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/KXPlatform.h>

#include <mutex>
#include <utility>

namespace {

struct Installed {
    std::mutex mutex;
    std::shared_ptr<KXPlatform> platform;
};

Installed& installed() {
    static Installed slot;
    return slot;
}

}  // namespace

void KXPlatform::install(std::shared_ptr<KXPlatform> platform) {
    std::shared_ptr<KXPlatform> previous;
    {
        std::lock_guard lock(installed().mutex);
        previous = std::exchange(installed().platform, std::move(platform));
    }
    // A replaced platform is destroyed outside the lock (its destructor may wait for threads
    // that look up the current platform).
}

KXPlatform& KXPlatform::current() {
    return *currentShared();
}

std::shared_ptr<KXPlatform> KXPlatform::currentShared() {
    std::lock_guard lock(installed().mutex);
    if (!installed().platform) {
        KXLinuxPlatformOptions options;
        options.applicationId = KXLinuxPlatform::defaultApplicationId();
        installed().platform = std::make_shared<KXLinuxPlatform>(std::move(options));
    }
    return installed().platform;
}
