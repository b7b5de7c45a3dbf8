#include <KXClientFramework/KXDiskLogger.h>
#include <KXClientFramework/KXLog.h>
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
        installed().platform = makeDefault();
    }
    return installed().platform;
}

namespace {

// The log's disk copy goes to the caches directory of whichever platform is installed when a
// line is written; installed as soon as the library is loaded.
[[maybe_unused]] const bool kDiskSinkInstalled = [] {
    KXLog::setDiskSink(
        std::make_shared<KXDiskLogSink>([] { return KXPlatform::current().cachesDirectory(); }));
    return true;
}();

}  // namespace
