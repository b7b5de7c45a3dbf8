#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXProcessWide.h>
#include <KXClientFramework/KXPropertyList.h>
#include <KXClientFramework/TZOpenSSLDecryptor.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>

namespace {

constexpr std::int64_t kMinimumSessionInterval = 90;

// A string property keeps a string, takes a number as its decimal text, and treats anything
// else as absent.
std::optional<std::string> stringValue(const KXJSON& configuration, const char* key) {
    auto it = configuration.find(key);
    if (it == configuration.end()) {
        return std::nullopt;
    }
    if (it->is_string()) {
        return it->get<std::string>();
    }
    if (it->is_number_integer() || it->is_number_unsigned()) {
        return it->dump();
    }
    if (it->is_number_float()) {
        return fmt::format("{}", it->get<double>());
    }
    return std::nullopt;
}

bool boolAt(const KXJSON& configuration, const char* key) {
    auto it = configuration.find(key);
    return it != configuration.end() && KXConfig::boolValue(*it);
}

// Skips leading white space and returns the position after an optional sign; `negative` tells
// whether the sign was a minus.
std::size_t skipBlanksAndSign(const std::string& text, bool& negative) {
    std::size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) {
        ++i;
    }
    negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    return i;
}

[[noreturn]] void failConfigurationAssertion() {
    const char* message =
        "*** Assertion failure in KXConfig::configWithContentsOfFile: configurationFile "
        "(the configuration file does not open with the application key)";
    KXLog::systemLog(message);
    std::fprintf(stderr, "%s\n", message);
    std::abort();
}

}  // namespace

KXConfig& KXConfig::defaultConfig() {
    return kxProcessWide<KXConfig>();
}

const std::array<const char*, 13>& KXConfig::propertyListKeys() {
    static const std::array<const char*, 13> keys = {
        "appId",
        "inboxDomainId",
        "stageClientId",
        "stageClientSecret",
        "prodClientId",
        "prodClientSecret",
        "inProduction",
        "analyticsEnabled",
        "locationServicesEnabled",
        "autoGuestEnabled",
        "networkActivityIndicatorEnabled",
        "locationFuzzEnabled",
        "analyticsSessionInterval",
    };
    return keys;
}

bool KXConfig::boolValue(const KXJSON& value) {
    if (value.is_boolean()) {
        return value.get<bool>();
    }
    if (value.is_number()) {
        return value.get<double>() != 0.0;
    }
    if (!value.is_string()) {
        return false;
    }
    const auto& text = value.get_ref<const std::string&>();
    bool negative = false;
    std::size_t i = skipBlanksAndSign(text, negative);
    while (i < text.size() && text[i] == '0') {
        ++i;
    }
    if (i == text.size()) {
        return false;
    }
    const char c = text[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

std::int64_t KXConfig::integerValue(const KXJSON& value) {
    constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
    constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
    if (value.is_boolean()) {
        return value.get<bool>() ? 1 : 0;
    }
    if (value.is_number_integer()) {
        return value.get<std::int64_t>();
    }
    if (value.is_number_unsigned()) {
        const auto number = value.get<std::uint64_t>();
        return number > static_cast<std::uint64_t>(kMax) ? kMax : static_cast<std::int64_t>(number);
    }
    if (value.is_number_float()) {
        const double number = value.get<double>();
        if (std::isnan(number)) {
            return 0;
        }
        if (number >= 9.2233720368547758e18) {
            return kMax;
        }
        if (number <= -9.2233720368547758e18) {
            return kMin;
        }
        return static_cast<std::int64_t>(number);
    }
    if (!value.is_string()) {
        return 0;
    }
    const auto& text = value.get_ref<const std::string&>();
    bool negative = false;
    std::size_t i = skipBlanksAndSign(text, negative);
    std::int64_t result = 0;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
        const int digit = text[i] - '0';
        if (negative) {
            if (result < (kMin + digit) / 10) {
                return kMin;
            }
            result = result * 10 - digit;
        } else {
            if (result > (kMax - digit) / 10) {
                return kMax;
            }
            result = result * 10 + digit;
        }
    }
    return result;
}

std::optional<KXJSON> KXConfig::openSealedConfiguration(const std::vector<std::uint8_t>& sealed,
                                                        const std::string& key) {
    auto plain = TZOpenSSLDecryptor::decryptData(sealed, kTZCryptorAES256Settings, key, nullptr);
    if (!plain) {
        return std::nullopt;
    }
    return KXPropertyList::parse(*plain);
}

void KXConfig::applyConfiguration(const KXJSON& configuration) {
    static const KXJSON kEmpty = KXJSON::object();
    const KXJSON& values = configuration.is_object() ? configuration : kEmpty;
    appId_ = stringValue(values, "appId");
    inboxDomainId_ = stringValue(values, "inboxDomainId");
    stageClientId_ = stringValue(values, "stageClientId");
    stageClientSecret_ = stringValue(values, "stageClientSecret");
    prodClientId_ = stringValue(values, "prodClientId");
    prodClientSecret_ = stringValue(values, "prodClientSecret");
    inProduction_ = boolAt(values, "inProduction");
    analyticsEnabled_ = boolAt(values, "analyticsEnabled");
    locationServicesEnabled_ = boolAt(values, "locationServicesEnabled");
    autoGuestEnabled_ = boolAt(values, "autoGuestEnabled");
    networkActivityIndicatorEnabled_ = boolAt(values, "networkActivityIndicatorEnabled");
    locationFuzzEnabled_ = boolAt(values, "locationFuzzEnabled");

    auto interval = values.find("analyticsSessionInterval");
    const std::int64_t seconds = interval == values.end() ? 0 : integerValue(*interval);
    analyticsSessionInterval_ =
        seconds > kMinimumSessionInterval - 1 ? seconds : kMinimumSessionInterval;
}

bool KXConfig::configWithContentsOfFile(const std::optional<std::filesystem::path>& path,
                                        const std::string& key) {
    return defaultConfig().loadContentsOfFile(path, key);
}

bool KXConfig::loadContentsOfFile(const std::optional<std::filesystem::path>& path,
                                  const std::string& key) {
    std::error_code ignored;
    if (!path || !std::filesystem::exists(*path, ignored)) {
        showMissingConfigFileAlertView();
        return false;
    }

    std::vector<std::uint8_t> sealed;
    if (std::ifstream in{*path, std::ios::binary}) {
        sealed.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    const auto configuration = openSealedConfiguration(sealed, key);
    if (!configuration) {
        // A configuration that does not open means the application ships the wrong key or a
        // broken file; carrying on would talk to the service with no identity at all.
        failConfigurationAssertion();
    }
    applyConfiguration(*configuration);
    return true;
}

void KXConfig::showMissingConfigFileAlertView() {
    KXPlatform::current().alertPresenter().present(
        {"Missing Config File",
         "KXClientFramework was unable to find 'KXConfig.plist'. KXClientFramework may not work "
         "properly.",
         {"Okay"}});
}

bool KXConfig::validateInboxDomainId() const {
    return inboxDomainId_.has_value() && !inboxDomainId_->empty();
}
