#pragma once

#include <KXClientFramework/KXBundle.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

/// A bundle whose resources are plain files in a list of directories.
///
/// pathForResource("KXConfig", "enc") answers the first directory holding "KXConfig.enc". The
/// information dictionary is the first "Info.plist" found in those directories (XML or binary;
/// a damaged one is reported on the log sink and ignored) with `infoOverrides` merged over it
/// key by key; "CFBundleIdentifier" defaults to `defaultIdentifier`. It is read once, when the
/// bundle is made.
class KX_EXPORT KXDirectoryBundle final : public KXBundle {
public:
    explicit KXDirectoryBundle(std::vector<std::filesystem::path> resourceDirectories,
                               const KXJSON& infoOverrides = KXJSON::object(),
                               const std::optional<std::string>& defaultIdentifier = {});

    std::optional<std::filesystem::path> pathForResource(const std::string& name,
                                                         const std::string& type) const override;
    KXJSON infoDictionary() const override;

    const std::vector<std::filesystem::path>& resourceDirectories() const {
        return resourceDirectories_;
    }

private:
    std::vector<std::filesystem::path> resourceDirectories_;
    KXJSON infoDictionary_;
};
