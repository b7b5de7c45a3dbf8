#pragma once

// The one way the guest operations reach the analytics engine of the engaged library.

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>

#include <functional>

/// Asks the running analytics engine (KXAnalytics::engaged(), or the poster installed below) to
/// post its current session. While no engine runs this does nothing: neither callback is
/// called.
KX_EXPORT void kxPostCurrentAnalyticsSession(std::function<void()> success,
                                             std::function<void(const KXError&)> failure);

/// Replaces the engaged engine's post for kxPostCurrentAnalyticsSession() (tests count posts
/// with it); an empty function restores the engine's.
using KXAnalyticsSessionPoster =
    std::function<void(std::function<void()> success, std::function<void(const KXError&)> failure)>;
KX_EXPORT void kxSetAnalyticsSessionPoster(KXAnalyticsSessionPoster poster);
