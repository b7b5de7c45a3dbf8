#pragma once

// The engagement settings the guest operations read.

#include <optional>
#include <string>

/// The application id chosen at engagement (the configuration's "appId").
std::optional<std::string> kxGuestApplicationId();
