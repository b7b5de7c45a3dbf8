#include <KXClientFramework/KXDirectoryBundle.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPropertyList.h>

#include <fmt/format.h>

#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

namespace {

// Info.plist files are small; anything bigger is not one.
constexpr std::uintmax_t kMaximumInfoSize = 16u << 20;

std::optional<KXJSON> readInfoPlist(const std::filesystem::path& file) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(file, ec);
    if (ec || size > kMaximumInfoSize) {
        return std::nullopt;
    }
    std::ifstream in(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto parsed = KXPropertyList::parse(bytes);
    if (!parsed || !parsed->is_object()) {
        return std::nullopt;
    }
    return parsed;
}

}  // namespace

KXDirectoryBundle::KXDirectoryBundle(std::vector<std::filesystem::path> resourceDirectories,
                                     const KXJSON& infoOverrides,
                                     const std::optional<std::string>& defaultIdentifier)
    : resourceDirectories_(std::move(resourceDirectories)), infoDictionary_(KXJSON::object()) {
    if (auto file = pathForResource("Info", "plist")) {
        if (auto info = readInfoPlist(*file)) {
            infoDictionary_ = std::move(*info);
        } else {
            KXLog::systemLog(fmt::format(
                "Info.plist {} is not a property-list dictionary; ignoring it", file->string()));
        }
    }
    if (infoOverrides.is_object()) {
        for (const auto& [key, value] : infoOverrides.items()) {
            if (value.is_null()) {
                infoDictionary_.erase(key);
            } else {
                infoDictionary_[key] = value;
            }
        }
    }
    if (defaultIdentifier && !infoDictionary_.contains("CFBundleIdentifier")) {
        infoDictionary_["CFBundleIdentifier"] = *defaultIdentifier;
    }
}

std::optional<std::filesystem::path> KXDirectoryBundle::pathForResource(
    const std::string& name, const std::string& type) const {
    if (name.empty()) {
        return std::nullopt;
    }
    std::string file = name;
    if (!type.empty()) {
        file += type.front() == '.' ? type : "." + type;
    }
    const std::filesystem::path relative(file);
    // Resources are names inside the directories, never paths that leave them.
    if (relative.is_absolute()) {
        return std::nullopt;
    }
    for (const auto& part : relative) {
        if (part == "..") {
            return std::nullopt;
        }
    }
    for (const auto& directory : resourceDirectories_) {
        const std::filesystem::path candidate = directory / relative;
        std::error_code ec;
        if (std::filesystem::is_regular_file(candidate, ec)) {
            return candidate;
        }
    }
    return std::nullopt;
}

KXJSON KXDirectoryBundle::infoDictionary() const {
    return infoDictionary_;
}
