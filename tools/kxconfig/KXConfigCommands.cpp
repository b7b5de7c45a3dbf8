#include "KXConfigCommands.h"

#include "KXConfigCheck.h"
#include "KXOutputFile.h"

#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXPropertyList.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

namespace kxconfig {
namespace {

std::vector<std::uint8_t> readInput(const std::string& path) {
    if (path.empty() || path == "-") {
        std::vector<std::uint8_t> bytes;
        std::array<char, 1 << 16> buffer{};
        std::size_t count = 0;
        while ((count = std::fread(buffer.data(), 1, buffer.size(), stdin)) > 0) {
            bytes.insert(bytes.end(), buffer.data(), buffer.data() + count);
        }
        if (std::ferror(stdin)) {
            throw Failure("cannot read standard input");
        }
        return bytes;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw Failure("cannot open " + path + ": " + std::strerror(errno));
    }
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void printText(const std::string& text) {
    writeOutputFile("", std::vector<std::uint8_t>(text.begin(), text.end()), 0);
}

// A configuration given as a property list (XML or binary) or as a JSON object.
KXJSON readConfigurationSource(const std::string& path) {
    const auto bytes = readInput(path);
    if (auto plist = KXPropertyList::parse(bytes); plist && plist->is_object()) {
        return *plist;
    }
    KXJSONLimits limits;
    limits.rejectDuplicateKeys = true;  // the last of two values must not win unnoticed
    KXJSONReadError problem;
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    auto json = KXJSONReader::parse(text, limits, &problem);
    if (json && json->is_object()) {
        return std::move(*json);
    }
    if (!json && problem.kind != KXJSONReadError::Kind::Malformed) {
        throw Failure(path + ": " + problem.message);
    }
    throw Failure(path + " is neither a property-list dictionary nor a JSON object");
}

KXJSON openConfiguration(const std::string& path, const std::string& key) {
    Keys keys;
    keys.password = key;
    const auto sealed = readInput(path);
    if (sealed.empty()) {
        throw Failure(path + " is empty");
    }
    const auto plain = kxconfig::decrypt(Format::Salted, keys, sealed);
    auto plist = KXPropertyList::parse(plain);
    if (!plist) {
        throw Failure(path + " opens with the key but does not hold a property list");
    }
    return *plist;
}

KXJSON optionalString(const std::optional<std::string>& value) {
    return value ? KXJSON(*value) : KXJSON(nullptr);
}

}  // namespace

int seal(const SealOptions& options) {
    const KXJSON configuration = readConfigurationSource(options.input);
    const std::string xml = KXPropertyList::toXML(configuration);
    Keys keys;
    keys.password = options.key;
    const auto sealed = kxconfig::encrypt(Format::Salted, keys, {xml.begin(), xml.end()});
    // Only a file that opens again to the very same settings may replace the output.
    const auto reopened = KXPropertyList::parse(kxconfig::decrypt(Format::Salted, keys, sealed));
    if (xml.empty() || !reopened || *reopened != configuration) {
        throw Failure(options.input +
                      " cannot be sealed unchanged: a property list holds no null values and "
                      "nests at most 512 levels deep");
    }
    writeOutputFile(options.output, sealed, 0600);
    return 0;
}

int open(const OpenOptions& options) {
    const KXJSON configuration = openConfiguration(options.input, options.key);
    printText(options.xml ? KXPropertyList::toXML(configuration)
                          : KXJSONReader::dump(configuration, 2) + "\n");
    return 0;
}

int check(const OpenOptions& options) {
    const KXJSON configuration = openConfiguration(options.input, options.key);
    if (configuration.is_object()) {
        const auto& known = KXConfig::propertyListKeys();
        for (const auto& [name, value] : configuration.items()) {
            if (std::find(known.begin(), known.end(), name) == known.end()) {
                std::cerr << "kxconfig: warning: the library does not read the key \"" << name
                          << "\"\n";
            }
        }
    }
    const std::vector<std::string> problems = configurationProblems(configuration);
    for (const std::string& problem : problems) {
        std::cerr << "kxconfig: error: " << problem << "\n";
    }

    // The file is known to open, so loading it through the library cannot stop the process.
    auto& config = KXConfig::defaultConfig();
    config.configWithContentsOfFile(std::filesystem::path(options.input), options.key);
    const KXJSON settings = {
        {"appId", optionalString(config.appId())},
        {"inboxDomainId", optionalString(config.inboxDomainId())},
        {"stageClientId", optionalString(config.stageClientId())},
        {"stageClientSecret", optionalString(config.stageClientSecret())},
        {"prodClientId", optionalString(config.prodClientId())},
        {"prodClientSecret", optionalString(config.prodClientSecret())},
        {"inProduction", config.inProduction()},
        {"analyticsEnabled", config.analyticsEnabled()},
        {"locationServicesEnabled", config.locationServicesEnabled()},
        {"autoGuestEnabled", config.autoGuestEnabled()},
        {"networkActivityIndicatorEnabled", config.networkActivityIndicatorEnabled()},
        {"locationFuzzEnabled", config.locationFuzzEnabled()},
        {"analyticsSessionInterval", config.analyticsSessionInterval()},
    };
    printText(KXJSONReader::dump(settings) + "\n");
    return problems.empty() ? 0 : 1;
}

int encrypt(const CryptOptions& options) {
    writeOutputFile(options.output,
                    kxconfig::encrypt(options.format, options.keys, readInput(options.input)),
                    defaultFileMode());
    return 0;
}

int decrypt(const CryptOptions& options) {
    // Opened data is as secret as its key: a new file is readable by its owner only.
    writeOutputFile(options.output,
                    kxconfig::decrypt(options.format, options.keys, readInput(options.input)),
                    0600);
    return 0;
}

}  // namespace kxconfig
