#include "guest/internal/KXReceivedValues.h"

#include <KXClientFramework/KXConfig.h>

#include <fmt/format.h>

#include <cmath>

std::optional<std::string> kxReceivedString(const KXJSON& value) {
    switch (value.type()) {
        case KXJSON::value_t::string:
            return value.get<std::string>();
        case KXJSON::value_t::number_integer:
            return std::to_string(value.get<std::int64_t>());
        case KXJSON::value_t::number_unsigned:
            return std::to_string(value.get<std::uint64_t>());
        case KXJSON::value_t::number_float: {
            const double number = value.get<double>();
            // Whole numbers read as integers ("5", not "5.0"), as the service's own text shows.
            if (std::isfinite(number) && number == std::trunc(number) && std::fabs(number) < 1e15) {
                return std::to_string(static_cast<std::int64_t>(number));
            }
            return fmt::format("{}", number);
        }
        default:
            return std::nullopt;
    }
}

const KXJSON& kxReceivedValue(const KXJSON& object, const char* key) {
    static const KXJSON absent;
    if (!object.is_object()) {
        return absent;
    }
    const auto it = object.find(key);
    return it == object.end() ? absent : *it;
}

std::optional<std::string> kxReceivedString(const KXJSON& object, const char* key) {
    return kxReceivedString(kxReceivedValue(object, key));
}

bool kxReceivedBool(const KXJSON& object, const char* key) {
    return KXConfig::boolValue(kxReceivedValue(object, key));
}
