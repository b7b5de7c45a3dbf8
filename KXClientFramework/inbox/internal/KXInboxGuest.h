#pragma once

#include <optional>
#include <string>

/// What the inbox reads of the current guest.
namespace kx::inbox {

/// The externalId of KXGuest::currentGuest(), as it stands now.
std::optional<std::string> currentGuestExternalId();

/// Whether the current guest has a delivery profile on the inbox channel.
bool currentGuestHasInboxDeliveryProfile();

}  // namespace kx::inbox
