#include "KXConfigCheck.h"

#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXJSONReader.h>

#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <limits>

namespace kxconfig {
namespace {

constexpr std::int64_t kMinimumSessionInterval = 90;

constexpr std::array kStringKeys = {"appId",         "inboxDomainId",
                                    "stageClientId", "stageClientSecret",
                                    "prodClientId",  "prodClientSecret"};
constexpr std::array kBooleanKeys = {"inProduction",
                                     "analyticsEnabled",
                                     "locationServicesEnabled",
                                     "autoGuestEnabled",
                                     "networkActivityIndicatorEnabled",
                                     "locationFuzzEnabled"};

/// "a string ("YES")", "a number (2.5)", "a dictionary", ... for a person to recognise.
std::string kindOf(const KXJSON& value) {
    const auto shown = [&](const char* kind) {
        std::string text = KXJSONReader::dump(value);
        if (text.size() > 40) {
            text = text.substr(0, 37) + "...";
        }
        return fmt::format("{} ({})", kind, text);
    };
    switch (value.type()) {
        case KXJSON::value_t::string:
            return shown("a string");
        case KXJSON::value_t::number_integer:
        case KXJSON::value_t::number_unsigned:
            return shown("an integer");
        case KXJSON::value_t::number_float:
            return shown("a number");
        case KXJSON::value_t::boolean:
            return shown("a boolean");
        case KXJSON::value_t::object:
            return "a dictionary";
        case KXJSON::value_t::array:
            return "an array";
        case KXJSON::value_t::binary:
            return "data";
        default:
            return "nothing";
    }
}

bool isInteger(const KXJSON& value) {
    return value.is_number_integer() ||
           (value.is_number_unsigned() &&
            value.get<std::uint64_t>() <=
                static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()));
}

}  // namespace

std::vector<std::string> configurationProblems(const KXJSON& configuration) {
    std::vector<std::string> problems;
    if (!configuration.is_object()) {
        problems.push_back(
            "the configuration is not a dictionary: the library reads no settings "
            "from it");
        return problems;
    }
    for (const char* key : kStringKeys) {
        auto it = configuration.find(key);
        if (it != configuration.end() && !it->is_string()) {
            problems.push_back(
                fmt::format("\"{}\" should be a string, not {}: the library reads {}", key,
                            kindOf(*it), it->is_number() ? "its decimal text" : "no value"));
        }
    }
    for (const char* key : kBooleanKeys) {
        auto it = configuration.find(key);
        if (it != configuration.end() && !it->is_boolean()) {
            problems.push_back(
                fmt::format("\"{}\" should be true or false, not {}: the library "
                            "reads {}",
                            key, kindOf(*it), KXConfig::boolValue(*it) ? "true" : "false"));
        }
    }
    if (auto it = configuration.find("analyticsSessionInterval"); it != configuration.end()) {
        const std::int64_t read = KXConfig::integerValue(*it);
        const std::int64_t used = read >= kMinimumSessionInterval ? read : kMinimumSessionInterval;
        if (!isInteger(*it)) {
            problems.push_back(
                fmt::format("\"analyticsSessionInterval\" should be a whole number "
                            "of seconds, not {}: the library reads {}",
                            kindOf(*it), used));
        } else if (read < kMinimumSessionInterval) {
            problems.push_back(
                fmt::format("\"analyticsSessionInterval\" is below the minimum of "
                            "{} seconds: the library uses {}",
                            kMinimumSessionInterval, used));
        }
    }

    const auto production = configuration.find("inProduction");
    const bool inProduction = production != configuration.end() && KXConfig::boolValue(*production);
    for (const char* key : inProduction ? std::array{"prodClientId", "prodClientSecret"}
                                        : std::array{"stageClientId", "stageClientSecret"}) {
        auto it = configuration.find(key);
        if (it == configuration.end() ||
            (it->is_string() && it->get_ref<const std::string&>().empty())) {
            problems.push_back(
                fmt::format("\"{}\" is missing: the library cannot authenticate in "
                            "{}",
                            key, inProduction ? "production" : "staging"));
        }
    }
    return problems;
}

}  // namespace kxconfig
