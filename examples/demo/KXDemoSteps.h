#pragma once

// The demo's steps past start-up: the guest, the inbox, the lists and an analytics session,
// each present when the library has the part it needs.

#include "KXDemoTour.h"

#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXApplicationDelegate.h>
#include <KXClientFramework/KXError.h>

#include <memory>
#include <optional>
#include <string>

/// The application's delegate: engages the library while the application finishes launching,
/// with the automatic guest where the library has guests, and keeps the outcome.
class KXDemoDelegate final : public KXApplicationDelegate {
public:
    explicit KXDemoDelegate(std::string key) : key_(std::move(key)) {}

    bool respondsTo(KXApplicationDelegateCallback callback) const override;
    bool didFinishLaunching(KXApplication& application, const KXJSON& options) override;

    /// Set once the automatic guest flow ended (with the error when it failed).
    bool guestFlowEnded = false;
    std::optional<KXError> guestFlowError;

private:
    std::string key_;
};

/// How many numbered steps the tour has in this build.
extern const int kxDemoStepCount;

/// Step 1: engaged, with a bearer token (and the automatic guest, where there are guests).
void kxDemoEngage(KXDemoTour& tour, const KXDemoDelegate& delegate);

/// The steps after the push token: the guest, inbox, lists and an analytics session.
void kxDemoServiceSteps(KXDemoTour& tour, KXApplication& application);
