#pragma once

#include <KXClientFramework/KXChannel.h>
#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXJSON.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

/// The service's guest resource: registering, fetching, saving and deleting the guest, its
/// delivery profiles and its list memberships. Stateless; every operation is static.
///
/// Every operation reports through its callbacks, either of which may be empty (an empty one is
/// skipped). Answers from the service arrive on the main queue. Transport failures are logged
/// ("ERROR: <error>") and passed on unchanged. Where an operation validates its input, a failed
/// check logs the operation's error line, sends no request and calls the failure callback at
/// once, on the calling thread, with errorWithMessage(reason).
///
/// A successful fetch rewrites KXGuest::currentGuest() and hands that same guest on; every
/// fetch then reconciles the device's push tokens with the guest's push profiles.
class KX_EXPORT KXGuestManager {
public:
    using GuestSuccess = std::function<void(const std::shared_ptr<KXGuest>& guest)>;
    using BoolSuccess = std::function<void(bool success)>;
    using IdSuccess = std::function<void(const std::string& newRecordId)>;
    using Failure = std::function<void(const KXError& error)>;
    using OptionalString = std::optional<std::string>;

    KXGuestManager() = delete;

    // Registration: POST "<base>/guests", then a fetch of the new guest (its id from the
    // "newRecordId" answer header), then the current analytics session is posted and the
    // configured inbox profile added. The body carries this device's push address
    // ("deliveryProfiles") whenever a push token is known.

    /// Registers a guest whose identifier the service chooses.
    static void registerGuestWithSuccess(GuestSuccess success, Failure failure);
    /// Registers `externalId`; an absent or empty id fails with "invalid guest".
    static void registerGuestWithId(const OptionalString& externalId, GuestSuccess success,
                                    Failure failure);
    /// As above, with every non-null entry of the object `parameters` added to the body (they
    /// may replace "externalId" or "deliveryProfiles").
    static void registerGuestWithId(const OptionalString& externalId, const KXJSON& parameters,
                                    GuestSuccess success, Failure failure);
    /// Registers an external account identifier: with a push token the body is
    /// {"externalId", "externalIdType": "QRID", "deliveryProfiles"}, without one only
    /// {"externalId"}. An absent or empty id fails with "invalid guest".
    static void registerGuestWithQRID(const OptionalString& qrid, GuestSuccess success,
                                      Failure failure);
    /// Registers a guest with all of its properties; every one is sent as given.
    static void registerGuestWithId(const std::string& externalId, const KXJSON& buProperties,
                                    const std::string& languagePref,
                                    const std::string& buCreativeLabel, const KXJSON& tags,
                                    GuestSuccess success, Failure failure);

    /// GET "<base>/guests/<id>", parsed into the current guest, then reconciled with this
    /// device's push tokens. With one stored token and no push profile for it, a profile is
    /// added (POST ".../profiles") and the guest fetched again before success. With several
    /// stored tokens, every stored token's profile is pointed at the current token (POST
    /// ".../profiles/<profileId>"); success does not wait for those updates, so a failure of
    /// one may follow the success.
    static void fetchGuestWithId(const OptionalString& guestId, GuestSuccess success,
                                 Failure failure);
    /// POST (not PUT) "<base>/guests/<externalId>" with the guest's guestData().
    static void saveGuest(const KXGuest& guest, BoolSuccess success, Failure failure);
    /// DELETE "<base>/guests/<id>"; the local guest is left as it is. An absent or empty id
    /// fails with "Invalid guestId".
    static void deleteGuest(const OptionalString& guestId, BoolSuccess success, Failure failure);

    /// POST "<base>/guests/<id>/profiles" with this device's push address; success gets the
    /// new profile's id.
    static void addAPNSDeliveryProfileForGuestWithId(const OptionalString& guestId,
                                                     IdSuccess success, Failure failure);
    /// POST "<base>/guests/<id>/profiles/<profileId>" with this device's push address. Fails
    /// with "invalid guest externalId" or "invalid deliveryProfileId" for an absent or empty
    /// value.
    static void updateAPNSGuestWithId(const OptionalString& guestId,
                                      const OptionalString& profileId, BoolSuccess success,
                                      Failure failure);
    /// Adds the inbox profile of the configured inbox domain when that domain is valid; the
    /// outcome is only logged.
    static void addInboxDeliveryProfileIfNecessary();

    /// {"address": {"channel": "APNS_PUSH", "attributes": {"applicationToken": <device token>,
    /// "applicationId": <application id>}}}.
    /// @throws KXException when the device token or the application id is missing.
    static KXJSON apnsDeliveryAddress();
    /// {"address": {"channel": "INBOX", "attributes": {"guestId", "inboxDomainId"}}}.
    static KXJSON inboxDeliveryAddressWithId(const std::string& guestId,
                                             const std::string& inboxDomainId);
    /// {"address": {"channel": "EMAIL", "attributes": {"emailAddress"}}}.
    static KXJSON emailDeliveryAddress(const std::string& emailAddress);
    /// {"address": {"channel": "SMS", "attributes": {"mdn"}}}.
    static KXJSON smsDeliveryAddress(const std::string& mdn);
    /// The library's own error: NSOSStatusErrorDomain, code 99, {"message": message}.
    static KXError errorWithMessage(const std::string& message);

    // Delivery profiles of the current guest and of a given guest.

    /// POST "<base>/guests/<current guest>/profiles/<this device's push profile>/enable" (or
    /// "/disable").
    static void APNSDeliveryProfileEnable(bool enable, BoolSuccess success, Failure failure);
    /// The same for the inbox profile of the configured inbox domain.
    static void inboxDeliveryProfileEnable(bool enable, BoolSuccess success, Failure failure);
    /// Push and inbox channels switch their profile; SMS and e-mail do nothing and call
    /// neither callback; any other value fails with "Invalid Channel".
    static void enableDeliveryProfileForChannel(KXChannelType channel, BoolSuccess success,
                                                Failure failure);
    static void disableDeliveryProfileForChannel(KXChannelType channel, BoolSuccess success,
                                                 Failure failure);

    /// POST "<base>/guests/<id>/profiles" with the inbox address; success gets the new id.
    static void addInboxDeliveryProfileForGuestWithId(const OptionalString& guestId,
                                                      const OptionalString& inboxId,
                                                      IdSuccess success, Failure failure);
    /// The same for the current guest.
    static void addInboxDeliveryProfileWithInboxId(const OptionalString& inboxId, IdSuccess success,
                                                   Failure failure);
    /// POST "<base>/guests/<id>/profiles" with the e-mail address; success gets the new id.
    static void addEmailDeliveryProfileForGuestWithId(const OptionalString& guestId,
                                                      const OptionalString& emailAddress,
                                                      IdSuccess success, Failure failure);
    /// POST "<base>/guests/<id>/profiles" with the SMS address; success gets the new id.
    static void addSMSDeliveryProfileForGuestWithId(const OptionalString& guestId,
                                                    const OptionalString& mdn, IdSuccess success,
                                                    Failure failure);

    // List memberships of the current guest.

    /// PUT "<base>/guests/<current guest>/profiles/<profileId>/memberships/<listId>
    /// ?createList=true" with {"externalId": <current guest>, "enabled": 1}.
    static void subscribeToList(const OptionalString& listId, const OptionalString& profileId,
                                BoolSuccess success, Failure failure);
    /// DELETE "<base>/guests/<current guest>/profiles/<profileId>/memberships/<listId>".
    static void unsubscribeToList(const OptionalString& listId, const OptionalString& profileId,
                                  BoolSuccess success, Failure failure);
    /// Subscribes the current profile of `channel` (KXGuest::currentDeliveryProfileForChannel).
    static void subscribeToList(const OptionalString& listId, KXChannelType channel,
                                BoolSuccess success, Failure failure);
    /// Unsubscribes the current profile of `channel`.
    static void unsubscribeToList(const OptionalString& listId, KXChannelType channel,
                                  BoolSuccess success, Failure failure);
};
