#include "KXConfigCommands.h"

#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXPropertyList.h>

#include <algorithm>
#include <array>
#include <cstdio>
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
        throw Failure("cannot open " + path);
    }
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Writes through a temporary file and a rename, so a failure never leaves half a file behind.
void writeOutput(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    if (path.empty() || path == "-") {
        if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() ||
            std::fflush(stdout) != 0) {
            throw Failure("cannot write standard output");
        }
        return;
    }
    const std::string temporary = path + ".tmp";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
        if (!out.flush()) {
            std::error_code ignored;
            std::filesystem::remove(temporary, ignored);
            throw Failure("cannot write " + path);
        }
    }
    std::error_code error;
    std::filesystem::rename(temporary, path, error);
    if (error) {
        std::filesystem::remove(temporary, error);
        throw Failure("cannot write " + path);
    }
}

void printText(const std::string& text) {
    writeOutput("", std::vector<std::uint8_t>(text.begin(), text.end()));
}

// A configuration given as a property list (XML or binary) or as a JSON object.
KXJSON readConfigurationSource(const std::string& path) {
    const auto bytes = readInput(path);
    if (auto plist = KXPropertyList::parse(bytes); plist && plist->is_object()) {
        return *plist;
    }
    auto json = KXJSON::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (json.is_object()) {
        return json;
    }
    throw Failure(path + " is neither a property-list dictionary nor a JSON object");
}

KXJSON openConfiguration(const std::string& path, const std::string& key) {
    Keys keys;
    keys.password = key;
    const auto plain = kxconfig::decrypt(Format::Salted, keys, readInput(path));
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
    writeOutput(options.output, kxconfig::encrypt(Format::Salted, keys, {xml.begin(), xml.end()}));
    return 0;
}

int open(const OpenOptions& options) {
    const KXJSON configuration = openConfiguration(options.input, options.key);
    printText(options.xml ? KXPropertyList::toXML(configuration) : configuration.dump(2) + "\n");
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
    } else {
        std::cerr << "kxconfig: warning: the configuration is not a dictionary; the library "
                     "reads no settings from it\n";
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
    printText(settings.dump() + "\n");
    return 0;
}

int encrypt(const CryptOptions& options) {
    writeOutput(options.output,
                kxconfig::encrypt(options.format, options.keys, readInput(options.input)));
    return 0;
}

int decrypt(const CryptOptions& options) {
    writeOutput(options.output,
                kxconfig::decrypt(options.format, options.keys, readInput(options.input)));
    return 0;
}

}  // namespace kxconfig
