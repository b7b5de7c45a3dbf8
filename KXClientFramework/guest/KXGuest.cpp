#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXException.h>
#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXGuestManager.h>
#include <KXClientFramework/KXGuestParser.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXProcessWide.h>

#include "guest/internal/KXGuestAnalytics.h"

#include <algorithm>
#include <cctype>

namespace {

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool isPresent(const std::optional<std::string>& text) {
    return text && !text->empty();
}

// The one guest of the process; the record itself is replaced in place, never the pointer.
struct CurrentGuest {
    const std::shared_ptr<KXGuest> guest = std::make_shared<KXGuest>();
};

}  // namespace

std::shared_ptr<KXGuest> KXGuest::currentGuest() {
    return kxProcessWide<CurrentGuest>().guest;
}

void KXGuest::guestWithDictionary(const KXJSON& dictionary) {
    KXGuestParser::parse(dictionary);
}

KXGuest::Profiles KXGuest::profilesOnChannel(const char* lowercaseChannel) const {
    Profiles found;
    if (!deliveryProfiles_) {
        return found;
    }
    for (const auto& profile : *deliveryProfiles_) {
        if (profile && profile->lowercaseChannel() == lowercaseChannel) {
            found.push_back(profile);
        }
    }
    return found;
}

KXGuest::Profiles KXGuest::APNSDeliveryProfiles() const {
    return profilesOnChannel("apns_push");
}

KXGuest::Profiles KXGuest::inboxDeliveryProfiles() const {
    return profilesOnChannel("inbox");
}

KXGuest::Profiles KXGuest::emailDeliveryProfiles() const {
    return profilesOnChannel("email");
}

KXGuest::Profiles KXGuest::smsDeliveryProfiles() const {
    return profilesOnChannel("sms");
}

std::shared_ptr<KXDeliveryProfile> KXGuest::APNSDeliveryProfileForCurrentDevice() const {
    return APNSDeliveryProfileWithApplicationToken(KXDevice::currentDevice().deviceToken());
}

std::shared_ptr<KXDeliveryProfile> KXGuest::APNSDeliveryProfileWithApplicationToken(
    const std::optional<std::string>& token) const {
    if (!isPresent(token)) {
        return nullptr;
    }
    for (const auto& profile : APNSDeliveryProfiles()) {
        if (profile->address() && profile->address()->attribute("applicationToken") == token) {
            return profile;
        }
    }
    return nullptr;
}

std::shared_ptr<KXDeliveryProfile> KXGuest::deliveryProfileForId(
    const std::optional<std::string>& profileId) const {
    if (!isPresent(profileId) || !deliveryProfiles_) {
        return nullptr;
    }
    const std::string wanted = lowercased(*profileId);
    for (const auto& profile : *deliveryProfiles_) {
        if (profile && profile->profileId() && lowercased(*profile->profileId()) == wanted) {
            return profile;
        }
    }
    return nullptr;
}

std::shared_ptr<KXDeliveryProfile> KXGuest::inboxDeliveryProfileWithInboxId(
    const std::optional<std::string>& inboxId) const {
    if (!isPresent(inboxId)) {
        return nullptr;
    }
    for (const auto& profile : inboxDeliveryProfiles()) {
        if (profile->address() && profile->address()->attribute("inboxDomainId") == inboxId) {
            return profile;
        }
    }
    return nullptr;
}

std::shared_ptr<KXDeliveryProfile> KXGuest::currentDeliveryProfileForChannel(
    KXChannelType channel) const {
    const auto first = [](const Profiles& profiles) {
        return profiles.empty() ? nullptr : profiles.front();
    };
    switch (channel) {
        case KXChannelTypeAPNS:
            return APNSDeliveryProfileForCurrentDevice();
        case KXChannelTypeSMS:
            return first(smsDeliveryProfiles());
        case KXChannelTypeInbox:
            return inboxDeliveryProfileWithInboxId(KXConfig::defaultConfig().inboxDomainId());
        case KXChannelTypeEmail:
            return first(emailDeliveryProfiles());
    }
    throw KXException("Invalid KXChannelType value", "channel is invalid");
}

KXJSON KXGuest::guestData() const {
    KXJSON data = KXJSON::object();
    const auto put = [&data](const char* key, const std::optional<std::string>& value) {
        if (value) {
            data[key] = *value;
        }
    };
    put("externalId", externalId_);
    put("externalIdType", externalIdType_);
    put("languagePref", languagePref_);
    put("buCreativeLabel", buCreativeLabel_);
    if (!buProperties_.is_null()) {
        data["buProperties"] = buProperties_.is_object() ? buProperties_ : KXJSON::object();
    }
    return data;
}

void KXGuest::addBuProperties(const KXJSON& properties) {
    if (!properties.is_object()) {
        return;
    }
    if (!buProperties_.is_object()) {
        buProperties_ = KXJSON::object();
    }
    for (const auto& [key, value] : properties.items()) {
        buProperties_[key] = value;
    }
}

void KXGuest::removeBuPropertiesForKeys(const std::vector<std::string>& keys) {
    if (!buProperties_.is_object()) {
        return;
    }
    for (const auto& key : keys) {
        buProperties_.erase(key);
    }
}

void KXGuest::logout() {
    std::weak_ptr<KXGuest> weakGuest = weak_from_this();
    kxPostCurrentAnalyticsSession(
        [weakGuest] {
            if (const auto guest = weakGuest.lock()) {
                guest->externalId_.reset();
                guest->deliveryProfiles_.reset();
                guest->tags_ = nullptr;
            }
        },
        nullptr);
}

void KXGuest::save() {
    KXGuestManager::saveGuest(
        *this, [](bool) { KX_LOG_DEBUG("Guest saved."); },
        [](const KXError&) { KX_LOG_ERROR("Saving guest failed."); });
}

void KXGuest::refresh() {
    KXGuestManager::fetchGuestWithId(externalId_, nullptr, nullptr);
}

void KXGuest::refreshWithSuccess(std::function<void()> success,
                                 std::function<void(const KXError&)> failure) {
    KXGuestManager::fetchGuestWithId(
        externalId_,
        [success = std::move(success)](const std::shared_ptr<KXGuest>&) {
            if (success) {
                success();
            }
        },
        std::move(failure));
}
