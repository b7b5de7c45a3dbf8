#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <optional>
#include <string>

/// Where and how the service delivers to one delivery profile.
class KX_EXPORT KXDeliveryAddress {
public:
    /// Channel, attributes and flag all unset.
    KXDeliveryAddress() = default;
    /// Fills the address from the service's "address" object: "channel" (a string, or a number's
    /// decimal text), "attributes" as received, "enabled" by its truth value (absent is false).
    /// Anything that is not an object gives an address with nothing set.
    explicit KXDeliveryAddress(const KXJSON& dictionary);

    /// The channel's wire name ("apns_push", "sms", "inbox", "email"); compare it lower-cased.
    const std::optional<std::string>& channel() const { return channel_; }
    void setChannel(std::optional<std::string> channel) { channel_ = std::move(channel); }

    /// Channel-specific address data, as received ("applicationToken" for push profiles,
    /// "inboxDomainId" for inbox profiles, ...); null when absent.
    const KXJSON& attributes() const { return attributes_; }
    void setAttributes(KXJSON attributes) { attributes_ = std::move(attributes); }

    /// The attribute `key` when it is a string or a number; absent otherwise.
    std::optional<std::string> attribute(const char* key) const;

    bool enabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }

private:
    std::optional<std::string> channel_;
    KXJSON attributes_;
    bool enabled_ = false;
};
