#pragma once

// A loopback service that plays the guest resource, the current guest and device set up as a
// case needs, and a recorder for what the guest operations report.

#include "../transport/KXTransportFixture.h"
#include "KXGuestTestSupport.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXGuestManager.h>
#include <KXClientFramework/KXSessionManager.h>
#include <KXClientFramework/KXSettings.h>

#include "guest/internal/KXGuestAnalytics.h"
#include "guest/internal/KXGuestInbox.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

/// What one operation reported: every success value and failure, in arrival order.
struct KXGuestOutcome {
    std::vector<KXJSON> successes;  // true, a new id, or the guest's externalId
    std::vector<KXError> failures;
    std::vector<std::string> order;  // "success" / "failure" as they arrived

    int callbacks() const { return static_cast<int>(successes.size() + failures.size()); }

    KXGuestManager::BoolSuccess onBool() {
        return [this](bool value) { record(value); };
    }
    KXGuestManager::IdSuccess onId() {
        return [this](const std::string& id) { record(id); };
    }
    KXGuestManager::GuestSuccess onGuest() {
        return [this](const std::shared_ptr<KXGuest>& guest) {
            EXPECT_EQ(guest, KXGuest::currentGuest());
            record(optionalJSON(guest->externalId()));
        };
    }
    KXGuestManager::Failure onFailure() {
        return [this](const KXError& error) {
            failures.push_back(error);
            order.emplace_back("failure");
        };
    }

private:
    void record(KXJSON value) {
        successes.push_back(std::move(value));
        order.emplace_back("success");
    }
};

/// The application id the push address carries in these tests.
inline constexpr const char* kTestApplicationId = "com.example.frontdesk";

/// The push address this device sends for `token`.
inline KXJSON apnsAddress(const std::string& token) {
    return {
        {"address",
         {{"channel", "APNS_PUSH"},
          {"attributes", {{"applicationToken", token}, {"applicationId", kTestApplicationId}}}}}};
}

/// Makes `guest` the current guest, as a fetch would have.
inline void haveGuest(const KXJSON& guest) {
    KXGuest::currentGuest()->guestWithDictionary(guest);
}

/// Saves the tokens in order; the last is the current one.
inline void haveTokens(const std::vector<std::string>& tokens) {
    for (const auto& token : tokens) {
        KXDevice::currentDevice().saveDeviceToken(token);
    }
}

class KXGuestServiceTest : public KXTransportTest {
protected:
    KXGuestServiceTest() {
        giveToken();
        KXSettings::shared().setApplicationId(kTestApplicationId);
        kxSetAnalyticsSessionPoster([this](auto success, auto) {
            ++analyticsPosts;
            if (success) {
                success();
            }
        });
        kxSetInboxSummaryFetcher([this](auto, auto) { ++inboxSummaryFetches; });
    }

    ~KXGuestServiceTest() override {
        kxSetAnalyticsSessionPoster(nullptr);
        kxSetInboxSummaryFetcher(nullptr);
    }

    /// "<base URI><suffix>", the path the service sees.
    static std::string path(const std::string& suffix) {
        return KXSessionManager::kxBaseURI() + suffix;
    }

    /// Every request as "METHOD path".
    std::vector<std::string> requestLines() const {
        std::vector<std::string> lines;
        for (const auto& request : service.requests()) {
            lines.push_back(request.method + " " + request.path);
        }
        return lines;
    }

    /// Runs the main queue until `count` callbacks arrived, then a moment longer.
    void awaitCallbacks(const KXGuestOutcome& outcome, int count) {
        EXPECT_TRUE(waitFor([&] { return outcome.callbacks() >= count; }));
        drain();
    }

    int analyticsPosts = 0;
    int inboxSummaryFetches = 0;
};
