#include <KXClientFramework/KXUserDefaults.h>

#include <cmath>
#include <limits>

// Typed reads follow a property-list store: numbers and booleans convert into each other
// (a real truncates toward zero, a nonzero number is true), while strings stay strings and
// never turn into numbers or booleans.

std::optional<std::string> KXUserDefaults::stringForKey(const std::string& key) const {
    const KXJSON value = objectForKey(key);
    if (!value.is_string()) {
        return std::nullopt;
    }
    return value.get<std::string>();
}

std::vector<std::string> KXUserDefaults::stringArrayForKey(const std::string& key) const {
    const KXJSON value = objectForKey(key);
    std::vector<std::string> strings;
    if (!value.is_array()) {
        return strings;
    }
    for (const auto& item : value) {
        if (!item.is_string()) {
            return {};  // an array holding anything but strings is not a string array
        }
        strings.push_back(item.get<std::string>());
    }
    return strings;
}

bool KXUserDefaults::boolForKey(const std::string& key) const {
    const KXJSON value = objectForKey(key);
    switch (value.type()) {
        case KXJSON::value_t::boolean:
            return value.get<bool>();
        case KXJSON::value_t::number_integer:
            return value.get<std::int64_t>() != 0;
        case KXJSON::value_t::number_unsigned:
            return value.get<std::uint64_t>() != 0;
        case KXJSON::value_t::number_float: {
            const double d = value.get<double>();
            return d != 0.0 && !std::isnan(d);
        }
        default:
            return false;
    }
}

std::int64_t KXUserDefaults::integerForKey(const std::string& key) const {
    const KXJSON value = objectForKey(key);
    switch (value.type()) {
        case KXJSON::value_t::boolean:
            return value.get<bool>() ? 1 : 0;
        case KXJSON::value_t::number_integer:
            return value.get<std::int64_t>();
        case KXJSON::value_t::number_unsigned: {
            const std::uint64_t u = value.get<std::uint64_t>();
            constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
            return u > static_cast<std::uint64_t>(kMax) ? kMax : static_cast<std::int64_t>(u);
        }
        case KXJSON::value_t::number_float: {
            const double d = value.get<double>();
            if (std::isnan(d)) {
                return 0;
            }
            // Out-of-range reals saturate instead of invoking undefined behaviour.
            if (d >= 9223372036854775807.0) {
                return std::numeric_limits<std::int64_t>::max();
            }
            if (d <= -9223372036854775808.0) {
                return std::numeric_limits<std::int64_t>::min();
            }
            return static_cast<std::int64_t>(d);
        }
        default:
            return 0;
    }
}
