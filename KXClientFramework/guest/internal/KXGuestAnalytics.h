#pragma once

// The one way the guest operations reach the analytics engine of the engaged library.

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>

#include <functional>

/// Asks the running analytics engine to post its current session. While no engine runs this
/// does nothing: neither callback is called.
KX_EXPORT void kxPostCurrentAnalyticsSession(std::function<void()> success,
                                             std::function<void(const KXError&)> failure);

/// What kxPostCurrentAnalyticsSession() runs: the analytics engine installs its post here when
/// it starts and removes it (with an empty function) when it ends.
using KXAnalyticsSessionPoster =
    std::function<void(std::function<void()> success, std::function<void(const KXError&)> failure)>;
KX_EXPORT void kxSetAnalyticsSessionPoster(KXAnalyticsSessionPoster poster);
