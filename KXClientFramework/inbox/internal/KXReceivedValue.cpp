#include "inbox/internal/KXReceivedValue.h"

#include <KXClientFramework/KXConfig.h>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <system_error>

namespace kx::received {

namespace {

const KXJSON& nullValue() noexcept {
    static const KXJSON null;
    return null;
}

}  // namespace

const KXJSON& member(const KXJSON& object, std::string_view key) noexcept {
    if (!object.is_object()) {
        return nullValue();
    }
    const auto it = object.find(key);
    return it == object.end() ? nullValue() : *it;
}

std::optional<std::string> string(const KXJSON& value) {
    if (value.is_string()) {
        return value.get_ref<const std::string&>();
    }
    if (value.is_number_unsigned()) {
        return fmt::format("{}", value.get<std::uint64_t>());
    }
    if (value.is_number_integer()) {
        return fmt::format("{}", value.get<std::int64_t>());
    }
    if (value.is_number_float()) {
        return fmt::format("{}", value.get<double>());
    }
    return std::nullopt;
}

double number(const KXJSON& value) noexcept {
    if (value.is_number()) {
        return value.get<double>();
    }
    if (!value.is_string()) {
        return 0.0;
    }
    // from_chars reads the longest decimal number at the start and, unlike strtod, ignores the
    // process's locale (a toolkit may switch the decimal separator to a comma).
    const std::string& text = value.get_ref<const std::string&>();
    const char* first = text.data();
    const char* const last = text.data() + text.size();
    while (first != last && std::isspace(static_cast<unsigned char>(*first)) != 0) {
        ++first;
    }
    if (first != last && *first == '+') {
        ++first;
    }
    double parsed = 0.0;
    const auto result = std::from_chars(first, last, parsed);
    return result.ec == std::errc() && std::isfinite(parsed) ? parsed : 0.0;
}

std::uint64_t count(const KXJSON& value) noexcept {
    if (value.is_number_unsigned()) {
        return value.get<std::uint64_t>();
    }
    return static_cast<std::uint64_t>(std::max<std::int64_t>(0, KXConfig::integerValue(value)));
}

bool boolean(const KXJSON& value) noexcept {
    return KXConfig::boolValue(value);
}

}  // namespace kx::received
