#include "guest/internal/KXGuestInbox.h"

#include <KXClientFramework/KXInboxManager.h>
#include <KXClientFramework/KXInboxSummary.h>
#include <KXClientFramework/KXLog.h>

#include <mutex>
#include <utility>

namespace {

std::mutex& fetcherMutex() {
    static std::mutex mutex;
    return mutex;
}

KXInboxSummaryFetcher& installedFetcher() {
    static KXInboxSummaryFetcher fetcher;
    return fetcher;
}

void logSummary(const std::string& summaryDescription) {
    KX_LOG_DEBUG("KXInboxDomain: {}", summaryDescription);
}

void logSummaryError(const KXError& error) {
    KX_LOG_ERROR("Error: {}", error.description());
}

}  // namespace

void kxSetInboxSummaryFetcher(KXInboxSummaryFetcher fetcher) {
    std::lock_guard lock(fetcherMutex());
    installedFetcher() = std::move(fetcher);
}

void kxStartInboxSummaryFetch() {
    KXInboxSummaryFetcher fetcher;
    {
        std::lock_guard lock(fetcherMutex());
        fetcher = installedFetcher();
    }
    if (fetcher) {
        fetcher(&logSummary, &logSummaryError);
        return;
    }
    // The inbox's own summary fetch of the configured domain; nobody waits for it.
    KXInboxManager::fetchInboxSummaryWithId(
        std::nullopt,
        [](std::shared_ptr<KXInboxSummary> summary) {
            logSummary(summary ? summary->description() : std::string("(null)"));
        },
        &logSummaryError);
}
