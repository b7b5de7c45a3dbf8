#pragma once

#include <nlohmann/json.hpp>

/// Dictionaries, arrays and free-form values exchanged with the service and the platform.
/// A null value stands for "absent".
using KXJSON = nlohmann::json;
