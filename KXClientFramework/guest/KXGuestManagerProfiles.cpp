// Delivery profiles (adding, switching on and off) and list memberships.
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXGuestManager.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXLog.h>

#include "guest/internal/KXGuestRequests.h"

#include <algorithm>
#include <utility>

using namespace kxguest;

namespace {

bool hasWhitespace(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](unsigned char c) { return std::isspace(c) != 0; });
}

void requireListId(const std::optional<std::string>& listId) {
    require(isPresent(listId), "Invalid parameter", "Invalid List Id");
    require(!hasWhitespace(*listId), "Invalid parameter", "Invalid List Id, please remove spaces");
}

void requireCurrentGuest() {
    require(isPresent(KXGuest::currentGuest()->externalId()), "Invalid data", "invalid guest");
}

std::optional<std::string> currentGuestId() {
    return KXGuest::currentGuest()->externalId();
}

KXHTTPSessionManager::SuccessBlock succeeded(KXGuestManager::BoolSuccess success) {
    return [success = std::move(success)](std::shared_ptr<const KXHTTPResponse>, const KXJSON&) {
        if (success) {
            success(true);
        }
    };
}

// POST <base>/guests/<id>/profiles with `address`; success gets the "newRecordId" header.
void addProfile(const std::string& guestId, const KXJSON& address,
                KXGuestManager::IdSuccess success, KXGuestManager::Failure failure) {
    transport().POST(
        guestURL({"/guests/", guestId, "/profiles"}), address,
        [success, failure](std::shared_ptr<const KXHTTPResponse> response, const KXJSON&) {
            const auto id = newRecordId(response.get());
            if (!id) {
                KX_LOG_ERROR("ERROR: {}", "missing newRecordId");
                failWithMessage(failure, "missing newRecordId");
                return;
            }
            KX_LOG_DEBUG("New deliveryProfileId: {}", *id);
            if (success) {
                success(*id);
            }
        },
        loggedFailure(failure));
}

// POST <base>/guests/<current guest>/profiles/<profileId>/enable or /disable.
void switchProfile(const std::string& profileId, bool enable, KXGuestManager::BoolSuccess success,
                   KXGuestManager::Failure failure) {
    transport().POST(guestURL({"/guests/", currentGuestId().value_or(""), "/profiles/", profileId,
                               enable ? "/enable" : "/disable"}),
                     nullptr, succeeded(std::move(success)), loggedFailure(std::move(failure)));
}

// Dispatches enable and disable by channel.
void switchProfileForChannel(KXChannelType channel, bool enable,
                             KXGuestManager::BoolSuccess success, KXGuestManager::Failure failure) {
    switch (channel) {
        case KXChannelTypeAPNS:
            KXGuestManager::APNSDeliveryProfileEnable(enable, std::move(success),
                                                      std::move(failure));
            return;
        case KXChannelTypeInbox:
            KXGuestManager::inboxDeliveryProfileEnable(enable, std::move(success),
                                                       std::move(failure));
            return;
        case KXChannelTypeSMS:
        case KXChannelTypeEmail:
            // The service has no switch for these channels: neither callback is called.
            return;
    }
    failWithMessage(failure, "Invalid Channel");
}

}  // namespace

KXJSON KXGuestManager::inboxDeliveryAddressWithId(const std::string& guestId,
                                                  const std::string& inboxDomainId) {
    return {{"address",
             {{"channel", "INBOX"},
              {"attributes", {{"guestId", guestId}, {"inboxDomainId", inboxDomainId}}}}}};
}

KXJSON KXGuestManager::emailDeliveryAddress(const std::string& emailAddress) {
    return {{"address", {{"channel", "EMAIL"}, {"attributes", {{"emailAddress", emailAddress}}}}}};
}

KXJSON KXGuestManager::smsDeliveryAddress(const std::string& mdn) {
    return {{"address", {{"channel", "SMS"}, {"attributes", {{"mdn", mdn}}}}}};
}

void KXGuestManager::subscribeToList(const OptionalString& listId, const OptionalString& profileId,
                                     BoolSuccess success, Failure failure) {
    const auto reason = failedReason([&] {
        requireListId(listId);
        require(isPresent(profileId), "Invalid parameter", "Invalid Delivery Profile Id");
    });
    if (reason) {
        KX_LOG_ERROR("subscribeToList listId:{}, deliveryProfileId:{} error: {}", describe(listId),
                     describe(profileId), *reason);
        failWithMessage(failure, *reason);
        return;
    }
    const auto guestId = currentGuestId();
    transport().PUT(guestURL({"/guests/", guestId.value_or(""), "/profiles/", *profileId,
                              "/memberships/", *listId, "?createList=true"}),
                    {{"externalId", guestId ? KXJSON(*guestId) : KXJSON()}, {"enabled", 1}},
                    succeeded(std::move(success)), loggedFailure(std::move(failure)));
}

void KXGuestManager::unsubscribeToList(const OptionalString& listId,
                                       const OptionalString& profileId, BoolSuccess success,
                                       Failure failure) {
    const auto reason = failedReason([&] {
        requireListId(listId);
        require(isPresent(profileId), "Invalid parameter", "Invalid Delivery Profile Id");
    });
    if (reason) {
        KX_LOG_ERROR("unsubscribeToList listId:{}, deliveryProfileId:{} error: {}",
                     describe(listId), describe(profileId), *reason);
        failWithMessage(failure, *reason);
        return;
    }
    transport().DELETE(guestURL({"/guests/", currentGuestId().value_or(""), "/profiles/",
                                 *profileId, "/memberships/", *listId}),
                       nullptr, succeeded(std::move(success)), loggedFailure(std::move(failure)));
}

void KXGuestManager::subscribeToList(const OptionalString& listId, KXChannelType channel,
                                     BoolSuccess success, Failure failure) {
    std::optional<std::string> profileId;
    const auto reason = failedReason([&] {
        requireListId(listId);
        requireCurrentGuest();
        const auto profile = KXGuest::currentGuest()->currentDeliveryProfileForChannel(channel);
        require(profile != nullptr, "Not found",
                "no current delivery profile exists for that channel");
        profileId = profile->profileId();
    });
    if (reason) {
        KX_LOG_ERROR("subscribeToList listId:{}, channel:{} error: {}", describe(listId),
                     static_cast<std::int64_t>(channel), *reason);
        failWithMessage(failure, *reason);
        return;
    }
    subscribeToList(listId, profileId, std::move(success), std::move(failure));
}

void KXGuestManager::unsubscribeToList(const OptionalString& listId, KXChannelType channel,
                                       BoolSuccess success, Failure failure) {
    std::optional<std::string> profileId;
    const auto reason = failedReason([&] {
        requireListId(listId);
        require(channel != 0, "Invalid parameter", "Invalid Channel");
        const auto profile = KXGuest::currentGuest()->currentDeliveryProfileForChannel(channel);
        require(profile != nullptr, "Not found",
                "no current delivery profile exists for that channel");
        profileId = profile->profileId();
    });
    if (reason) {
        KX_LOG_ERROR("UnsubscribeToList listId:{}, channel:{} error: {}", describe(listId),
                     static_cast<std::int64_t>(channel), *reason);
        failWithMessage(failure, *reason);
        return;
    }
    unsubscribeToList(listId, profileId, std::move(success), std::move(failure));
}

void KXGuestManager::APNSDeliveryProfileEnable(bool enable, BoolSuccess success, Failure failure) {
    std::string profileId;
    const auto reason = failedReason([&] {
        requireCurrentGuest();
        const auto profile = KXGuest::currentGuest()->APNSDeliveryProfileForCurrentDevice();
        require(profile && isPresent(profile->profileId()), "Invalid parameter",
                "invalid guest delivery profile");
        profileId = *profile->profileId();
    });
    if (reason) {
        KX_LOG_ERROR("APNSDeliveryProfileEnable error: {}", *reason);
        failWithMessage(failure, *reason);
        return;
    }
    switchProfile(profileId, enable, std::move(success), std::move(failure));
}

void KXGuestManager::inboxDeliveryProfileEnable(bool enable, BoolSuccess success, Failure failure) {
    std::string profileId;
    const auto reason = failedReason([&] {
        requireCurrentGuest();
        const auto profile = KXGuest::currentGuest()->inboxDeliveryProfileWithInboxId(
            KXConfig::defaultConfig().inboxDomainId());
        require(profile && isPresent(profile->profileId()), "Invalid parameter",
                "Inbox delivery profile is nil or empty");
        profileId = *profile->profileId();
    });
    if (reason) {
        KX_LOG_ERROR("inboxDeliveryProfileEnable error: {}", *reason);
        failWithMessage(failure, *reason);
        return;
    }
    switchProfile(profileId, enable, std::move(success), std::move(failure));
}

void KXGuestManager::enableDeliveryProfileForChannel(KXChannelType channel, BoolSuccess success,
                                                     Failure failure) {
    switchProfileForChannel(channel, true, std::move(success), std::move(failure));
}

void KXGuestManager::disableDeliveryProfileForChannel(KXChannelType channel, BoolSuccess success,
                                                      Failure failure) {
    switchProfileForChannel(channel, false, std::move(success), std::move(failure));
}

void KXGuestManager::addInboxDeliveryProfileForGuestWithId(const OptionalString& guestId,
                                                           const OptionalString& inboxId,
                                                           IdSuccess success, Failure failure) {
    const std::string guest = guestId.value_or("");
    const std::string inbox = inboxId.value_or("");
    const std::string url = guestURL({"/guests/", guest, "/profiles"});
    const KXJSON body = inboxDeliveryAddressWithId(guest, inbox);
    KX_LOG_DEBUG("addInboxDeliveryProfileWithInboxId: {}, {}", describe(guestId),
                 describe(inboxId));
    KX_LOG_DEBUG("addInboxDeliveryProfileWithInboxId urlString: {}", url);
    KX_LOG_DEBUG("addInboxDeliveryProfileWithInboxId postParams: {}", KXJSONReader::dump(body));
    addProfile(guest, body, std::move(success), std::move(failure));
}

void KXGuestManager::addInboxDeliveryProfileWithInboxId(const OptionalString& inboxId,
                                                        IdSuccess success, Failure failure) {
    KX_LOG_DEBUG("addInboxDeliveryProfileWithInboxId: {}", describe(inboxId));
    addInboxDeliveryProfileForGuestWithId(currentGuestId(), inboxId, std::move(success),
                                          std::move(failure));
}

void KXGuestManager::addEmailDeliveryProfileForGuestWithId(const OptionalString& guestId,
                                                           const OptionalString& emailAddress,
                                                           IdSuccess success, Failure failure) {
    const auto reason = failedReason([&] {
        require(isPresent(guestId), "Invalid parameter", "invalid guest externalId");
        require(isPresent(emailAddress), "Invalid parameter", "invalid emailAddress");
    });
    if (reason) {
        KX_LOG_ERROR("addEmailDeliveryProfileForGuestWithId: {}, email: {}, error: {}",
                     describe(guestId), describe(emailAddress), *reason);
        failWithMessage(failure, *reason);
        return;
    }
    addProfile(*guestId, emailDeliveryAddress(*emailAddress), std::move(success),
               std::move(failure));
}

void KXGuestManager::addSMSDeliveryProfileForGuestWithId(const OptionalString& guestId,
                                                         const OptionalString& mdn,
                                                         IdSuccess success, Failure failure) {
    const auto reason = failedReason([&] {
        require(isPresent(guestId), "Invalid parameter", "invalid guest externalId");
        require(isPresent(mdn), "Invalid parameter", "invalid mdn");
    });
    if (reason) {
        KX_LOG_ERROR("addSMSDeliveryProfileForGuestWithId: {}, mdn: {},  error: {}",
                     describe(guestId), describe(mdn), *reason);
        failWithMessage(failure, *reason);
        return;
    }
    addProfile(*guestId, smsDeliveryAddress(*mdn), std::move(success), std::move(failure));
}
