#pragma once

// The one way a guest fetch reaches the inbox: it starts the summary fetch of the configured
// inbox domain and only logs how it ended.

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>

#include <functional>
#include <string>

/// Starts the summary fetch of the configured inbox domain; logs "KXInboxDomain: <summary>"
/// at DEBUG level when it succeeds and "Error: <error>" at ERROR level when it fails.
void kxStartInboxSummaryFetch();

/// What kxStartInboxSummaryFetch() runs instead of the inbox's summary fetch (tests install
/// one): a fetch that reports the summary's description or an error.
using KXInboxSummaryFetcher =
    std::function<void(std::function<void(const std::string& summaryDescription)> success,
                       std::function<void(const KXError&)> failure)>;
KX_EXPORT void kxSetInboxSummaryFetcher(KXInboxSummaryFetcher fetcher);
