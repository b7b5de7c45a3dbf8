#pragma once

#include <KXClientFramework/KXChannel.h>
#include <KXClientFramework/KXDeliveryProfile.h>
#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The end user of the application as the service knows him: an identifier, a few
/// preferences, free-form business-unit properties, tags and delivery profiles.
///
/// There is one guest per process, currentGuest(). The parser and the guest operations never
/// create another; they rewrite that one. Its properties carry no lock: the library writes them
/// on the main queue, and code reading them elsewhere must not rely on a consistent view.
class KX_EXPORT KXGuest : public std::enable_shared_from_this<KXGuest> {
public:
    using Profiles = std::vector<std::shared_ptr<KXDeliveryProfile>>;

    /// The process-wide guest: created on first use (once, also under concurrent first calls)
    /// with nothing set, kept until the process ends. Never null.
    static std::shared_ptr<KXGuest> currentGuest();

    /// A guest with nothing set.
    KXGuest() = default;

    /// Parses `dictionary` into currentGuest(), whichever guest receives the call.
    void guestWithDictionary(const KXJSON& dictionary);

    /// The guest's identifier at the service, used in every guest URL.
    const std::optional<std::string>& externalId() const { return externalId_; }
    void setExternalId(std::optional<std::string> id) { externalId_ = std::move(id); }
    /// The kind of identifier ("QRID" for an external account identifier).
    const std::optional<std::string>& externalIdType() const { return externalIdType_; }
    void setExternalIdType(std::optional<std::string> type) { externalIdType_ = std::move(type); }
    const std::optional<std::string>& languagePref() const { return languagePref_; }
    void setLanguagePref(std::optional<std::string> pref) { languagePref_ = std::move(pref); }
    const std::optional<std::string>& buCreativeLabel() const { return buCreativeLabel_; }
    void setBuCreativeLabel(std::optional<std::string> label) {
        buCreativeLabel_ = std::move(label);
    }

    /// Every delivery profile in wire order; absent until the guest is parsed or set.
    const std::optional<Profiles>& deliveryProfiles() const { return deliveryProfiles_; }
    void setDeliveryProfiles(std::optional<Profiles> profiles) {
        deliveryProfiles_ = std::move(profiles);
    }
    /// The tags as an array in wire order; null when absent.
    const KXJSON& tags() const { return tags_; }
    void setTags(KXJSON tags) { tags_ = std::move(tags); }
    /// Business-unit properties, a free-form object; null when absent.
    const KXJSON& buProperties() const { return buProperties_; }
    void setBuProperties(KXJSON properties) { buProperties_ = std::move(properties); }

    bool hasAPNSDeliveryProfile() const { return !APNSDeliveryProfiles().empty(); }
    bool hasInboxDeliveryProfile() const { return !inboxDeliveryProfiles().empty(); }

    /// The profiles whose channel, lower-cased, is "apns_push" / "inbox" / "email" / "sms", in
    /// profile order.
    Profiles APNSDeliveryProfiles() const;
    Profiles inboxDeliveryProfiles() const;
    Profiles emailDeliveryProfiles() const;
    Profiles smsDeliveryProfiles() const;

    /// The push profile whose "applicationToken" is this device's current token (exact
    /// comparison); null without a token or a match.
    std::shared_ptr<KXDeliveryProfile> APNSDeliveryProfileForCurrentDevice() const;
    /// The first push profile whose "applicationToken" equals `token` exactly; null for an
    /// absent or empty token.
    std::shared_ptr<KXDeliveryProfile> APNSDeliveryProfileWithApplicationToken(
        const std::optional<std::string>& token) const;
    /// The first profile whose id equals `profileId` without regard to case; null for an
    /// absent or empty id.
    std::shared_ptr<KXDeliveryProfile> deliveryProfileForId(
        const std::optional<std::string>& profileId) const;
    /// The first inbox profile whose "inboxDomainId" equals `inboxId` exactly; null for an
    /// absent or empty id.
    std::shared_ptr<KXDeliveryProfile> inboxDeliveryProfileWithInboxId(
        const std::optional<std::string>& inboxId) const;
    /// The profile the library uses for `channel`: this device's push profile, the first SMS or
    /// e-mail profile, or the inbox profile of the configured inbox domain.
    /// @throws KXException named "Invalid KXChannelType value" with reason "channel is invalid"
    ///         for a channel outside 1 to 4; the guest operations catch it and report it.
    std::shared_ptr<KXDeliveryProfile> currentDeliveryProfileForChannel(
        KXChannelType channel) const;

    /// The body the guest operations send: "externalId", "externalIdType", "languagePref",
    /// "buCreativeLabel" when set, and "buProperties" whenever it is set (even empty). Tags and
    /// profiles are never part of it.
    KXJSON guestData() const;

    /// Merges the entries of the object `properties` into buProperties (a present key takes the
    /// new value); absent buProperties start empty. A value that is not an object changes
    /// nothing.
    void addBuProperties(const KXJSON& properties);
    /// Removes those keys from buProperties; an empty list changes nothing.
    void removeBuPropertiesForKeys(const std::vector<std::string>& keys);

    /// Saves the guest at the service; the outcome is only logged ("Guest saved." at DEBUG,
    /// "Saving guest failed." at ERROR).
    void save();
    /// Fetches this guest again into currentGuest(), without callbacks.
    void refresh();
    /// Fetches this guest again; `success` once it succeeded, `failure` with the error
    /// otherwise. Empty functions are skipped.
    void refreshWithSuccess(std::function<void()> success,
                            std::function<void(const KXError&)> failure);

    /// Posts the current analytics session and, only once that post succeeded, clears
    /// externalId, deliveryProfiles and tags. The other properties stay. Without a running
    /// analytics engine the post cannot succeed, so nothing is cleared. A guest that is not
    /// owned by a shared_ptr is left as it is.
    void logout();

private:
    Profiles profilesOnChannel(const char* lowercaseChannel) const;

    std::optional<std::string> externalId_;
    std::optional<std::string> externalIdType_;
    std::optional<std::string> languagePref_;
    std::optional<std::string> buCreativeLabel_;
    std::optional<Profiles> deliveryProfiles_;
    KXJSON tags_;
    KXJSON buProperties_;
};
