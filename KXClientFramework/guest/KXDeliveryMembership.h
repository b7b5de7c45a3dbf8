#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <optional>
#include <string>

/// A delivery profile's membership of one recipient list (a subscription).
class KX_EXPORT KXDeliveryMembership {
public:
    KXDeliveryMembership() = default;
    /// Fills the membership from the service's object: "recipientListId" and "languagePref"
    /// (strings, or a number's decimal text), "enabled" by its truth value. Anything that is not
    /// an object gives a membership with nothing set.
    explicit KXDeliveryMembership(const KXJSON& dictionary);

    const std::optional<std::string>& recipientListId() const { return recipientListId_; }
    void setRecipientListId(std::optional<std::string> id) { recipientListId_ = std::move(id); }
    const std::optional<std::string>& languagePref() const { return languagePref_; }
    void setLanguagePref(std::optional<std::string> pref) { languagePref_ = std::move(pref); }
    bool enabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }

private:
    std::optional<std::string> recipientListId_;
    std::optional<std::string> languagePref_;
    bool enabled_ = false;
};
