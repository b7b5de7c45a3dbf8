#pragma once

#include <KXClientFramework/KXJSON.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Readings of values as the service sent them, for the inbox and list records. None of them
/// throws or fails: a value of an unexpected type reads as absent, zero or false.
namespace kx::received {

/// The member `key` of `object`, or a null value when `object` is not an object or lacks it.
const KXJSON& member(const KXJSON& object, std::string_view key) noexcept;

/// A string property's value: a string as it is, a number as its decimal text ("42", "1.5"),
/// anything else (null, boolean, array, object) absent.
std::optional<std::string> string(const KXJSON& value);

/// A number's value as a double; a string holding a decimal number (after leading blanks) its
/// value; anything else 0.
double number(const KXJSON& value) noexcept;

/// A count: a number or a string's leading decimal digits, reals truncated; negative values
/// and anything else give 0, values beyond the signed 64-bit range its largest value.
std::uint64_t count(const KXJSON& value) noexcept;

/// The platform's truth value: true for true, a non-zero number, or a string starting (after
/// blanks, a sign and zeros) with Y, y, T, t or a digit 1-9.
bool boolean(const KXJSON& value) noexcept;

}  // namespace kx::received
