#pragma once

#include <KXClientFramework/KXDeliveryAddress.h>
#include <KXClientFramework/KXDeliveryMembership.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

/// One address at which the service reaches the guest (a push token of one install, an inbox
/// domain, an e-mail address, a mobile number), with its list memberships.
class KX_EXPORT KXDeliveryProfile {
public:
    /// Nothing set and no address.
    KXDeliveryProfile() = default;
    /// Fills the profile from the service's object: "id" (a string, or a number's decimal
    /// text), an address that always exists (empty when "address" is absent), one membership
    /// per element of "memberships" in order (absent gives none), "tags" as received (absent
    /// stays null) and "enabled" by its truth value (absent is false).
    explicit KXDeliveryProfile(const KXJSON& dictionary);

    const std::optional<std::string>& profileId() const { return profileId_; }
    void setProfileId(std::optional<std::string> id) { profileId_ = std::move(id); }

    const std::shared_ptr<KXDeliveryAddress>& address() const { return address_; }
    void setAddress(std::shared_ptr<KXDeliveryAddress> address) { address_ = std::move(address); }

    const std::vector<std::shared_ptr<KXDeliveryMembership>>& memberships() const {
        return memberships_;
    }
    void setMemberships(std::vector<std::shared_ptr<KXDeliveryMembership>> memberships) {
        memberships_ = std::move(memberships);
    }

    /// As received; null when absent.
    const KXJSON& tags() const { return tags_; }
    void setTags(KXJSON tags) { tags_ = std::move(tags); }

    bool enabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }

    /// The address's channel lower-cased, or empty when there is no channel.
    std::string lowercaseChannel() const;

private:
    std::optional<std::string> profileId_;
    std::shared_ptr<KXDeliveryAddress> address_;
    std::vector<std::shared_ptr<KXDeliveryMembership>> memberships_;
    KXJSON tags_;
    bool enabled_ = false;
};
