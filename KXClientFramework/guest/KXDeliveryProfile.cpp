#include <KXClientFramework/KXDeliveryProfile.h>

#include "guest/internal/KXReceivedValues.h"

#include <algorithm>
#include <cctype>

KXDeliveryProfile::KXDeliveryProfile(const KXJSON& dictionary)
    : profileId_(kxReceivedString(dictionary, "id")),
      address_(std::make_shared<KXDeliveryAddress>(kxReceivedValue(dictionary, "address"))),
      tags_(kxReceivedValue(dictionary, "tags")),
      enabled_(kxReceivedBool(dictionary, "enabled")) {
    const KXJSON& memberships = kxReceivedValue(dictionary, "memberships");
    if (memberships.is_array()) {
        memberships_.reserve(memberships.size());
        for (const KXJSON& membership : memberships) {
            memberships_.push_back(std::make_shared<KXDeliveryMembership>(membership));
        }
    }
}

std::string KXDeliveryProfile::lowercaseChannel() const {
    if (!address_ || !address_->channel()) {
        return {};
    }
    std::string channel = *address_->channel();
    std::transform(channel.begin(), channel.end(), channel.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return channel;
}
