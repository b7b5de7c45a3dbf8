#pragma once

// A loopback service that plays the guest resource, a log of what the guest operations report, the
// guest and its profiles as JSON, and helpers to set up the current guest and device.

#include "../transport/KXTransportFixture.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXGuestManager.h>
#include <KXClientFramework/KXSessionManager.h>
#include <KXClientFramework/KXSettings.h>

#include "guest/internal/KXGuestAnalytics.h"
#include "guest/internal/KXGuestInbox.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

inline KXJSON optionalJSON(const std::optional<std::string>& value) {
    return value ? KXJSON(*value) : KXJSON();
}

inline std::string failed(const KXError& error) {
    return "failure:" + error.description();
}
inline std::string failed(std::int64_t code, KXJSON userInfo = nullptr) {
    return failed(KXError(NSOSStatusErrorDomain, code, std::move(userInfo)));
}
/// How a refusal of the library itself is logged.
inline std::string refused(const std::string& message) {
    return failed(99, {{"message", message}});
}

/// What guest operations reported, in arrival order: "true", "id:<new id>", "guest:<externalId>"
/// (followed by " push:<id>" when the guest has this device's push profile) and failed(error).
struct KXGuestLog : KXEventLog {
    /// Converts to whichever success callback an operation takes.
    struct Success {
        KXGuestLog& log;
        operator KXGuestManager::BoolSuccess() const {
            return [&log = log](bool value) { log.seen.emplace_back(value ? "true" : "false"); };
        }
        operator KXGuestManager::IdSuccess() const {
            return [&log = log](const std::string& id) { log.seen.push_back("id:" + id); };
        }
        operator KXGuestManager::GuestSuccess() const {
            return [&log = log](const std::shared_ptr<KXGuest>& guest) {
                EXPECT_EQ(guest, KXGuest::currentGuest());
                const auto push = guest->APNSDeliveryProfileForCurrentDevice();
                log.seen.push_back("guest:" + guest->externalId().value_or("(null)") +
                                   (push ? " push:" + push->profileId().value_or("") : ""));
            };
        }
    };
    Success onSuccess() { return {*this}; }
    KXGuestManager::Failure onFailure() {
        return [this](const KXError& error) { seen.push_back(failed(error)); };
    }
};

/// An operation that calls `function(arguments..., success, failure)` reporting to a log.
#define KX_GUEST_CALL(function, ...) \
    [](KXGuestLog& log) { function(__VA_ARGS__ __VA_OPT__(, ) log.onSuccess(), log.onFailure()); }

/// Every property of `guest` under its own name; absent values are null.
inline KXJSON describeGuest(const KXGuest& guest) {
    KXJSON profiles = guest.deliveryProfiles() ? KXJSON::array() : KXJSON();
    for (const auto& profile : guest.deliveryProfiles().value_or(KXGuest::Profiles{})) {
        KXJSON memberships = KXJSON::array();
        for (const auto& membership : profile->memberships()) {
            memberships.push_back({{"recipientListId", optionalJSON(membership->recipientListId())},
                                   {"languagePref", optionalJSON(membership->languagePref())},
                                   {"enabled", membership->enabled()}});
        }
        const auto& address = profile->address();
        profiles.push_back(
            {{"profileId", optionalJSON(profile->profileId())},
             {"enabled", profile->enabled()},
             {"tags", profile->tags()},
             {"memberships", memberships},
             {"address", address ? KXJSON({{"channel", optionalJSON(address->channel())},
                                           {"attributes", address->attributes()},
                                           {"enabled", address->enabled()}})
                                 : KXJSON()}});
    }
    return {{"externalId", optionalJSON(guest.externalId())},
            {"externalIdType", optionalJSON(guest.externalIdType())},
            {"languagePref", optionalJSON(guest.languagePref())},
            {"buCreativeLabel", optionalJSON(guest.buCreativeLabel())},
            {"tags", guest.tags()},
            {"buProperties", guest.buProperties()},
            {"deliveryProfiles", profiles}};
}

/// A profile object as the service sends it.
inline KXJSON profileJSON(const std::string& id, const std::string& channel,
                          KXJSON attributes = KXJSON::object()) {
    return {{"id", id},
            {"enabled", true},
            {"address", {{"channel", channel}, {"enabled", true}, {"attributes", attributes}}}};
}
inline KXJSON apnsProfileJSON(const std::string& id, const std::string& token) {
    return profileJSON(id, "APNS_PUSH", {{"applicationToken", token}, {"applicationId", "app"}});
}
inline KXJSON guestJSON(const std::string& id, KXJSON profiles = KXJSON::array()) {
    return {{"externalId", id}, {"deliveryProfiles", std::move(profiles)}};
}

inline constexpr const char* kTestApplicationId = "com.example.frontdesk";

/// The push address this device sends for `token`.
inline KXJSON apnsAddress(const std::string& token) {
    return {
        {"address",
         {{"channel", "APNS_PUSH"},
          {"attributes", {{"applicationToken", token}, {"applicationId", kTestApplicationId}}}}}};
}

inline void haveGuest(const KXJSON& guest) {
    KXGuest::currentGuest()->guestWithDictionary(guest);
}

/// Saves the tokens in order; the last is the current one.
inline void haveTokens(const std::vector<std::string>& tokens) {
    for (const auto& token : tokens) {
        KXDevice::currentDevice().saveDeviceToken(token);
    }
}

inline KXScriptedAnswer createdAs(const std::string& id,
                                  const std::string& header = "newRecordId") {
    KXScriptedAnswer answer = KXScriptedAnswer::empty(201);
    answer.headers = {{header, id}};
    return answer;
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

    /// Every request as "METHOD suffix", the suffix after the base URI.
    Lines sentRequests() const {
        const std::string base = KXSessionManager::kxBaseURI();
        Lines lines;
        for (const auto& request : service.requests()) {
            const bool under = request.path.rfind(base, 0) == 0;
            lines.push_back(request.method + " " + request.path.substr(under ? base.size() : 0));
        }
        return lines;
    }

    /// Scripts `answer` for `request`, "METHOD suffix" (a query in the suffix is ignored).
    void answer(const std::string& request, KXScriptedAnswer answer) {
        const auto blank = request.find(' ');
        const std::string suffix = request.substr(blank + 1, request.find('?') - blank - 1);
        service.script(request.substr(0, blank), KXSessionManager::kxBaseURI() + suffix,
                       std::move(answer));
    }

    int analyticsPosts = 0;
    int inboxSummaryFetches = 0;
};
