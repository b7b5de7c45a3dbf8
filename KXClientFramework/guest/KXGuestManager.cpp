// Registering, fetching, saving and deleting the guest, and the push profile of this install.
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXGuestManager.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPlatform.h>

#include "guest/internal/KXGuestAnalytics.h"
#include "guest/internal/KXGuestInbox.h"
#include "guest/internal/KXGuestRequests.h"
#include "guest/internal/KXGuestSettings.h"

#include <algorithm>
#include <utility>
#include <vector>

using namespace kxguest;

namespace {

constexpr const char* kMissingNewRecordId = "missing newRecordId";

std::optional<std::string> currentDeviceToken() {
    auto token = KXDevice::currentDevice().deviceToken();
    return isPresent(token) ? token : std::nullopt;
}

// Adds this device's push address as the body's "deliveryProfiles" when a token is known.
void addDeliveryProfilesIfTokenKnown(KXJSON& body) {
    if (currentDeviceToken()) {
        body["deliveryProfiles"] = KXJSON::array({KXGuestManager::apnsDeliveryAddress()});
    }
}

// After a registration's POST: fetch the new guest (whose id the answer names), then post the
// analytics session and add the configured inbox profile.
void completeRegistration(const KXHTTPResponse* response, KXGuestManager::GuestSuccess success,
                          KXGuestManager::Failure failure) {
    const auto newId = newRecordId(response);
    if (!newId) {
        KX_LOG_ERROR("ERROR: {}", kMissingNewRecordId);
        failWithMessage(failure, kMissingNewRecordId);
        return;
    }
    KXGuestManager::fetchGuestWithId(
        newId,
        [success = std::move(success)](const std::shared_ptr<KXGuest>& guest) {
            kxPostCurrentAnalyticsSession(nullptr, nullptr);
            KXGuestManager::addInboxDeliveryProfileIfNecessary();
            KX_LOG_DEBUG("KXGuest externalId: {}", describe(guest->externalId()));
            if (success) {
                success(guest);
            }
        },
        std::move(failure));
}

// POST <base>/guests with `body`; the body is built inside the guard so that a fragment that
// cannot be built ends in the failure callback.
void postRegistration(const std::function<KXJSON()>& buildBody,
                      KXGuestManager::GuestSuccess success, KXGuestManager::Failure failure) {
    KXJSON body;
    if (auto reason = failedReason([&] { body = buildBody(); })) {
        KX_LOG_ERROR("ERROR: {}", *reason);
        failWithMessage(failure, *reason);
        return;
    }
    transport().POST(
        guestURL({"/guests"}), body,
        [success, failure](std::shared_ptr<const KXHTTPResponse> response, const KXJSON&) {
            completeRegistration(response.get(), success, failure);
        },
        loggedFailure(failure));
}

// The token-list rule after an update of stored token `updated`'s profile succeeded: shortens
// the stored list when it holds three or more tokens and not `updated`. The only caller passes a
// token taken from that same list, so as the reconciliation stands the list is never shortened
// here; the rule is kept for callers that update a profile for a token not (or no longer) stored.
void applyTokenListRule(bool updateSucceeded, const std::vector<std::string>& storedTokens,
                        const std::string& updated) {
    if (!updateSucceeded) {
        return;
    }
    KX_LOG_DEBUG("Update APNS Delivery Profile");
    const bool listed =
        std::find(storedTokens.begin(), storedTokens.end(), updated) != storedTokens.end();
    if (storedTokens.size() >= 3 && !listed) {
        const KXJSON shortened(
            std::vector<std::string>(storedTokens.begin() + 1, storedTokens.end()));
        auto& defaults = KXPlatform::current().userDefaults();
        defaults.setObject(kKXApplicationDeviceTokenListKey, shortened);
        defaults.synchronize();
    }
}

// Several stored tokens: points every stored token's profile at the current token, without
// waiting for the updates.
void repointStoredTokenProfiles(const std::string& guestId, const std::shared_ptr<KXGuest>& guest,
                                const std::string& token, const KXGuestManager::Failure& failure) {
    const std::vector<std::string> stored =
        KXDevice::currentDevice().retrieveDeviceTokenListFromUserDefaults();
    KX_LOG_DEBUG("Delivery profile exists with storedApplicationToken: {}", token);
    KX_LOG_DEBUG("Delivery profile exists with storedApplicationTokens: {}",
                 KXJSONReader::dump(KXJSON(stored)));
    for (const std::string& storedToken : stored) {
        if (auto profile = guest->APNSDeliveryProfileWithApplicationToken(storedToken)) {
            KXGuestManager::updateAPNSGuestWithId(
                guestId, profile->profileId(),
                [stored, storedToken](bool ok) { applyTokenListRule(ok, stored, storedToken); },
                failure);
        }
    }
}

// One stored token without a profile: adds the push profile, then fetches the guest again.
void addProfileAndFetchAgain(const std::string& guestId, const std::string& guestPath,
                             KXGuestManager::GuestSuccess success,
                             KXGuestManager::Failure failure) {
    KX_LOG_DEBUG("Delivery profile is new with storedApplicationToken");
    KXGuestManager::addAPNSDeliveryProfileForGuestWithId(
        guestId,
        [guestPath, success, failure](const std::string&) {
            KX_LOG_DEBUG("Add APNS Delivery Profile");
            transport().GET(
                guestPath, nullptr,
                [success](std::shared_ptr<const KXHTTPResponse>, const KXJSON& body) {
                    const auto guest = KXGuest::currentGuest();
                    guest->guestWithDictionary(body);
                    if (success) {
                        success(guest);
                    }
                },
                loggedFailure(failure));
        },
        failure);
}

// The fetch's completion: rewrite the current guest, then reconcile this device's tokens.
void completeFetch(const std::string& guestId, const std::string& guestPath, const KXJSON& body,
                   const KXGuestManager::GuestSuccess& success,
                   const KXGuestManager::Failure& failure) {
    const auto guest = KXGuest::currentGuest();
    guest->guestWithDictionary(body);
    KX_LOG_DEBUG("KXGuest externalId: {}", describe(guest->externalId()));
    // Another guest than the one asked for: the session of the old guest ends.
    if (guest->externalId() != guestId) {
        kxPostCurrentAnalyticsSession(nullptr, nullptr);
    }
    if (KXConfig::defaultConfig().inboxDomainId()) {
        kxStartInboxSummaryFetch();
    }
    const auto token = currentDeviceToken();
    if (!token) {
        if (success) {
            success(guest);
        }
        return;
    }
    if (KXDevice::currentDevice().multipleDeviceTokens()) {
        repointStoredTokenProfiles(guestId, guest, *token, failure);
        if (success) {
            success(guest);
        }
        return;
    }
    if (guest->APNSDeliveryProfileWithApplicationToken(token)) {
        if (success) {
            success(guest);
        }
        return;
    }
    addProfileAndFetchAgain(guestId, guestPath, success, failure);
}

}  // namespace

KXError KXGuestManager::errorWithMessage(const std::string& message) {
    return KXError::withMessage(message, 99);
}

KXJSON KXGuestManager::apnsDeliveryAddress() {
    const auto token = currentDeviceToken();
    const auto applicationId = kxGuestApplicationId();
    require(token.has_value(), "Invalid data", "no device token");
    require(applicationId.has_value(), "Invalid data", "no applicationId");
    return {{"address",
             {{"channel", "APNS_PUSH"},
              {"attributes", {{"applicationToken", *token}, {"applicationId", *applicationId}}}}}};
}

void KXGuestManager::registerGuestWithSuccess(GuestSuccess success, Failure failure) {
    postRegistration(
        [] {
            KXJSON body = KXJSON::object();
            addDeliveryProfilesIfTokenKnown(body);
            return body;
        },
        std::move(success), std::move(failure));
}

void KXGuestManager::registerGuestWithId(const OptionalString& externalId, GuestSuccess success,
                                         Failure failure) {
    registerGuestWithId(externalId, nullptr, std::move(success), std::move(failure));
}

void KXGuestManager::registerGuestWithId(const OptionalString& externalId, const KXJSON& parameters,
                                         GuestSuccess success, Failure failure) {
    if (!isPresent(externalId)) {
        failWithMessage(failure, "invalid guest");
        return;
    }
    postRegistration(
        [&] {
            KXJSON body = {{"externalId", *externalId}};
            addDeliveryProfilesIfTokenKnown(body);
            if (parameters.is_object()) {
                for (const auto& [key, value] : parameters.items()) {
                    if (!value.is_null()) {
                        body[key] = value;
                    }
                }
            }
            return body;
        },
        std::move(success), std::move(failure));
}

void KXGuestManager::registerGuestWithQRID(const OptionalString& qrid, GuestSuccess success,
                                           Failure failure) {
    if (!isPresent(qrid)) {
        failWithMessage(failure, "invalid guest");
        return;
    }
    postRegistration(
        [&] {
            KXJSON body = {{"externalId", *qrid}};
            // Without a token the identifier goes alone, without its type.
            if (currentDeviceToken()) {
                body["externalIdType"] = "QRID";
                addDeliveryProfilesIfTokenKnown(body);
            }
            return body;
        },
        std::move(success), std::move(failure));
}

void KXGuestManager::registerGuestWithId(const std::string& externalId, const KXJSON& buProperties,
                                         const std::string& languagePref,
                                         const std::string& buCreativeLabel, const KXJSON& tags,
                                         GuestSuccess success, Failure failure) {
    postRegistration(
        [&] {
            KXJSON body = {{"externalId", externalId},
                           {"languagePref", languagePref},
                           {"tags", tags},
                           {"buCreativeLabel", buCreativeLabel},
                           {"buProperties", buProperties}};
            addDeliveryProfilesIfTokenKnown(body);
            return body;
        },
        std::move(success), std::move(failure));
}

void KXGuestManager::fetchGuestWithId(const OptionalString& guestId, GuestSuccess success,
                                      Failure failure) {
    const std::string id = guestId.value_or("");
    const std::string path = guestURL({"/guests/", id});
    transport().GET(
        path, nullptr,
        [id, path, success, failure](std::shared_ptr<const KXHTTPResponse>, const KXJSON& body) {
            completeFetch(id, path, body, success, failure);
        },
        loggedFailure(failure));
}

void KXGuestManager::saveGuest(const KXGuest& guest, BoolSuccess success, Failure failure) {
    transport().POST(
        guestURL({"/guests/", guest.externalId().value_or("")}), guest.guestData(),
        [success = std::move(success)](std::shared_ptr<const KXHTTPResponse>, const KXJSON&) {
            if (success) {
                success(true);
            }
        },
        loggedFailure(std::move(failure)));
}

void KXGuestManager::deleteGuest(const OptionalString& guestId, BoolSuccess success,
                                 Failure failure) {
    if (!isPresent(guestId)) {
        failWithMessage(failure, "Invalid guestId");
        return;
    }
    transport().DELETE(
        guestURL({"/guests/", *guestId}), nullptr,
        [success = std::move(success)](std::shared_ptr<const KXHTTPResponse>, const KXJSON&) {
            if (success) {
                success(true);
            }
        },
        loggedFailure(std::move(failure)));
}

void KXGuestManager::addAPNSDeliveryProfileForGuestWithId(const OptionalString& guestId,
                                                          IdSuccess success, Failure failure) {
    KXJSON body;
    if (auto reason = failedReason([&] { body = apnsDeliveryAddress(); })) {
        KX_LOG_ERROR("ERROR: {}", *reason);
        failWithMessage(failure, *reason);
        return;
    }
    transport().POST(
        guestURL({"/guests/", guestId.value_or(""), "/profiles"}), body,
        [success, failure](std::shared_ptr<const KXHTTPResponse> response, const KXJSON&) {
            const auto id = newRecordId(response.get());
            if (!id) {
                KX_LOG_ERROR("ERROR: {}", kMissingNewRecordId);
                failWithMessage(failure, kMissingNewRecordId);
                return;
            }
            KX_LOG_DEBUG("New deliveryProfileId: {}", *id);
            if (success) {
                success(*id);
            }
        },
        loggedFailure(failure));
}

void KXGuestManager::updateAPNSGuestWithId(const OptionalString& guestId,
                                           const OptionalString& profileId, BoolSuccess success,
                                           Failure failure) {
    KXJSON body;
    const auto reason = failedReason([&] {
        require(isPresent(guestId), "Invalid parameter", "invalid guest externalId");
        require(isPresent(profileId), "Invalid parameter", "invalid deliveryProfileId");
        body = apnsDeliveryAddress();
    });
    if (reason) {
        KX_LOG_ERROR("updateAPNSGuestWithId: {}, profileId: {},  error: {}", describe(guestId),
                     describe(profileId), *reason);
        failWithMessage(failure, *reason);
        return;
    }
    transport().POST(
        guestURL({"/guests/", *guestId, "/profiles/", *profileId}), body,
        [success = std::move(success)](std::shared_ptr<const KXHTTPResponse>, const KXJSON&) {
            if (success) {
                success(true);
            }
        },
        loggedFailure(std::move(failure)));
}

void KXGuestManager::addInboxDeliveryProfileIfNecessary() {
    const KXConfig& config = KXConfig::defaultConfig();
    if (!config.validateInboxDomainId()) {
        KX_LOG_DEBUG("inboxDomainId not valid");
        return;
    }
    addInboxDeliveryProfileWithInboxId(
        config.inboxDomainId(),
        [](const std::string& profileId) {
            KX_LOG_DEBUG("Add inbox delivery profile: {}", profileId);
        },
        [](const KXError& error) { KX_LOG_ERROR("ERROR: {}", error.description()); });
}
