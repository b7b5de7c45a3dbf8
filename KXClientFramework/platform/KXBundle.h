#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <filesystem>
#include <optional>
#include <string>

/// The application's main bundle: its resources and its information dictionary.
class KX_EXPORT KXBundle {
public:
    virtual ~KXBundle() = default;

    /// The path of resource `name`.`type` (for example "KXConfig", "enc"), or absent.
    virtual std::optional<std::filesystem::path> pathForResource(const std::string& name,
                                                                 const std::string& type) const = 0;

    /// The information dictionary (keys such as "CFBundleIdentifier", "CFBundleName",
    /// "CFBundleVersion", "UIBackgroundModes"); an object, possibly empty.
    virtual KXJSON infoDictionary() const = 0;

    /// One entry of the information dictionary, or null.
    KXJSON objectForInfoDictionaryKey(const std::string& key) const;
};
