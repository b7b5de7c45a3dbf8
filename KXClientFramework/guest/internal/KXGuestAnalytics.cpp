#include "guest/internal/KXGuestAnalytics.h"

#include <mutex>
#include <utility>

namespace {

std::mutex& posterMutex() {
    static std::mutex mutex;
    return mutex;
}

KXAnalyticsSessionPoster& installedPoster() {
    static KXAnalyticsSessionPoster poster;
    return poster;
}

}  // namespace

void kxSetAnalyticsSessionPoster(KXAnalyticsSessionPoster poster) {
    std::lock_guard lock(posterMutex());
    installedPoster() = std::move(poster);
}

void kxPostCurrentAnalyticsSession(std::function<void()> success,
                                   std::function<void(const KXError&)> failure) {
    KXAnalyticsSessionPoster poster;
    {
        std::lock_guard lock(posterMutex());
        poster = installedPoster();
    }
    if (poster) {
        poster(std::move(success), std::move(failure));
    }
}
