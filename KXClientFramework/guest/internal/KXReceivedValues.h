#pragma once

// How the guest records read values "as received" from the service.

#include <KXClientFramework/KXJSON.h>

#include <optional>
#include <string>

/// A string as it is, a number as its decimal text, anything else absent.
std::optional<std::string> kxReceivedString(const KXJSON& value);

/// The entry `key` of `object` read by kxReceivedString; absent when `object` is not an object
/// or lacks the key.
std::optional<std::string> kxReceivedString(const KXJSON& object, const char* key);

/// The platform's truth value of the entry `key`: false when absent or of a type without one.
bool kxReceivedBool(const KXJSON& object, const char* key);

/// The entry `key` of `object`, or null when `object` is not an object or lacks the key.
const KXJSON& kxReceivedValue(const KXJSON& object, const char* key);
