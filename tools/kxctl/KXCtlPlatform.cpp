#include "KXCtlPlatform.h"

namespace {

std::unique_ptr<KXLinuxPlatform> makeLinuxPlatform(const std::filesystem::path& configuration) {
    KXLinuxPlatformOptions options;
    options.applicationId = "kxctl";
    options.resourceDirectories = {configuration.parent_path()};
    // Fixes come from the command line (lifecycle location:LAT,LON) or $KX_FIXED_LOCATION.
    options.desktopLocationService = false;
    return std::make_unique<KXLinuxPlatform>(std::move(options));
}

}  // namespace

std::optional<std::filesystem::path> KXCtlBundle::pathForResource(const std::string& name,
                                                                  const std::string& type) const {
    if (name == "KXConfig" && type == "enc") {
        return configuration_;
    }
    return resources_.pathForResource(name, type);
}

KXCtlPlatform::KXCtlPlatform(const std::filesystem::path& configuration)
    : linux_(makeLinuxPlatform(std::filesystem::absolute(configuration))),
      bundle_(linux_->mainBundle(), std::filesystem::absolute(configuration)) {}
