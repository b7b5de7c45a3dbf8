#include <KXClientFramework/KXLinuxPlatform.h>

#include "platform/linux/internal/KXLinuxDeviceFacts.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>
#include <system_error>

namespace {

// Reads a small text file (at most 64 KiB: sysfs and os-release files are tiny, and a fixture
// pointing at something large must not stall start-up).
std::optional<std::string> readSmallFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::string text(64 * 1024, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(in.gcount()));
    return text;
}

std::string trimmed(std::string_view s) {
    auto blank = [](char c) {
        return std::isspace(static_cast<unsigned char>(c)) != 0 || c == '\0';
    };
    while (!s.empty() && blank(s.front())) {
        s.remove_prefix(1);
    }
    while (!s.empty() && blank(s.back())) {
        s.remove_suffix(1);
    }
    return std::string(s);
}

// A DMI or device-tree text, or nothing when it is empty or a firmware placeholder.
std::optional<std::string> hardwareName(const std::filesystem::path& path) {
    auto text = readSmallFile(path);
    if (!text) {
        return std::nullopt;
    }
    // The device tree ends its strings with NUL.
    const std::string value = trimmed(std::string_view(*text).substr(0, text->find('\0')));
    static constexpr std::array<std::string_view, 9> kPlaceholders = {"To be filled by O.E.M.",
                                                                      "To Be Filled By O.E.M.",
                                                                      "System Product Name",
                                                                      "System manufacturer",
                                                                      "Default string",
                                                                      "Not Applicable",
                                                                      "None",
                                                                      "O.E.M.",
                                                                      "OEM"};
    if (value.empty() ||
        std::find(kPlaceholders.begin(), kPlaceholders.end(), value) != kPlaceholders.end()) {
        return std::nullopt;
    }
    return value;
}

// "en_US.UTF-8@euro" -> "en_US"; nothing for C, POSIX and empty values.
std::optional<std::string> localeName(std::string value) {
    value = value.substr(0, value.find_first_of(".@"));
    if (value.empty() || value == "C" || value == "POSIX") {
        return std::nullopt;
    }
    return value;
}

// "en_US" -> "en-US" (a language tag).
std::string languageTag(std::string locale) {
    std::replace(locale.begin(), locale.end(), '_', '-');
    return locale;
}

}  // namespace

std::optional<std::string> kxOsReleaseValue(const std::string& text, const std::string& key) {
    std::istringstream lines(text);
    std::string line;
    std::optional<std::string> found;
    while (std::getline(lines, line)) {
        const std::string entry = trimmed(line);
        if (entry.empty() || entry.front() == '#') {
            continue;
        }
        const auto equals = entry.find('=');
        if (equals == std::string::npos || trimmed(entry.substr(0, equals)) != key) {
            continue;
        }
        std::string_view raw = std::string_view(entry).substr(equals + 1);
        std::string value;
        if (!raw.empty() && (raw.front() == '"' || raw.front() == '\'')) {
            // Shell-style quoting: backslash escapes inside double quotes, none inside single.
            const char quote = raw.front();
            for (std::size_t i = 1; i < raw.size() && raw[i] != quote; ++i) {
                if (quote == '"' && raw[i] == '\\' && i + 1 < raw.size()) {
                    ++i;
                }
                value.push_back(raw[i]);
            }
        } else {
            value = trimmed(raw);
        }
        found = value;  // the last assignment wins, as in a shell
    }
    return found;
}

KXDeviceFacts kxReadLinuxDeviceFacts(const KXLinuxDeviceFactsSources& sources) {
    auto environment = [&](const std::string& name) -> std::optional<std::string> {
        if (sources.environment) {
            return sources.environment(name);
        }
        const char* value = std::getenv(name.c_str());
        return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
    };

    KXDeviceFacts facts;
    auto osRelease = readSmallFile(sources.osRelease);
    if (!osRelease) {
        osRelease = readSmallFile(sources.osReleaseFallback);
    }
    if (osRelease) {
        facts.systemName = kxOsReleaseValue(*osRelease, "NAME");
        facts.systemVersion = kxOsReleaseValue(*osRelease, "VERSION_ID");
        if (facts.systemName && facts.systemName->empty()) {
            facts.systemName.reset();
        }
        if (facts.systemVersion && facts.systemVersion->empty()) {
            facts.systemVersion.reset();
        }
    }

    facts.model = hardwareName(sources.dmiProductName);
    if (!facts.model) {
        facts.model = hardwareName(sources.deviceTreeModel);
    }
    facts.manufacturer = hardwareName(sources.dmiSysVendor).value_or("Unknown");
    facts.carrierName = std::nullopt;  // no cellular carrier on a Linux machine

    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const auto value = environment(variable);
        if (value && !value->empty()) {
            facts.localeIdentifier = localeName(*value);
            break;
        }
    }

    if (const auto languages = environment("LANGUAGE"); languages && !languages->empty()) {
        std::istringstream parts(*languages);
        std::string part;
        while (std::getline(parts, part, ':')) {
            if (auto locale = localeName(part)) {
                const std::string tag = languageTag(*locale);
                if (std::find(facts.preferredLanguages.begin(), facts.preferredLanguages.end(),
                              tag) == facts.preferredLanguages.end()) {
                    facts.preferredLanguages.push_back(tag);
                }
            }
        }
    }
    if (facts.preferredLanguages.empty() && facts.localeIdentifier) {
        facts.preferredLanguages.push_back(languageTag(*facts.localeIdentifier));
    }

    facts.coreFoundationVersionNumber = kKXLinuxCoreFoundationVersionNumber;
    return facts;
}
