#include "KXTestPlatform.h"

#include "KXTestDirectories.h"

#include <KXClientFramework/KXLinuxPlatform.h>

#include <cstdlib>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

void KXFakeNotificationAuthorizer::requestAuthorization(
    std::uint32_t options,
    std::function<void(bool granted, const std::optional<KXError>& error)> completion) {
    std::lock_guard lock(mutex_);
    requests_.push_back(options);
    if (completion) {
        mainQueue_.post([completion = std::move(completion), granted = granted_, error = error_] {
            completion(granted, error);
        });
    }
}

namespace {

fs::path baseDirectory(const char* variable, const char* homeRelative) {
    if (const char* value = std::getenv(variable); value != nullptr && value[0] == '/') {
        return value;
    }
    const char* home = std::getenv("HOME");
    return fs::path(home != nullptr ? home : "/tmp") / homeRelative;
}

}  // namespace

KXTestPlatform::KXTestPlatform(KXTestPlatformOptions options) : options_(std::move(options)) {
    const std::string& id = options_.applicationId;
    configDirectory_ = baseDirectory("XDG_CONFIG_HOME", ".config") / id;
    dataDirectory_ = baseDirectory("XDG_DATA_HOME", ".local/share") / id;
    cachesDirectory_ = baseDirectory("XDG_CACHE_HOME", ".cache") / id;

    resourceDirectories_ = options_.resourceDirectories;
    if (resourceDirectories_.empty()) {
        const fs::path& root = KXTestDirectories::current();
        resourceDirectories_.push_back((root.empty() ? fs::temp_directory_path() : root) /
                                       "resources");
        std::error_code ec;
        fs::create_directories(resourceDirectories_.front(), ec);
    }

    deviceFacts_.systemName = "Debian GNU/Linux";
    deviceFacts_.systemVersion = "12";
    deviceFacts_.model = "Test Machine";
    deviceFacts_.manufacturer = "Test Manufacturer";
    deviceFacts_.localeIdentifier = "en_US";
    deviceFacts_.preferredLanguages = {"en-US"};
    deviceFacts_.coreFoundationVersionNumber = kKXLinuxCoreFoundationVersionNumber;
    keychain_ = std::make_unique<KXFileKeychain>(dataDirectory_ / "keychain.plist");
    userDefaults_ = std::make_unique<KXFileUserDefaults>(configDirectory_ / "UserDefaults.plist");
    bundle_ =
        std::make_unique<KXDirectoryBundle>(resourceDirectories_, options_.infoDictionary, id);
    application_ =
        std::make_unique<KXRecordingApplication>(mainQueue_, options_.backgroundTimeLimit);
    backgroundQueue_ = std::make_unique<KXBackgroundQueue>(options_.backgroundThreads);
}

std::shared_ptr<KXTestPlatform> KXTestPlatform::install(KXTestPlatformOptions options) {
    auto platform = std::make_shared<KXTestPlatform>(std::move(options));
    KXPlatform::install(platform);
    return platform;
}

std::unique_ptr<KXLocationSource> KXTestPlatform::makeLocationSource() {
    auto source = std::make_unique<KXFakeLocationSource>();
    locationSources_.push_back(source.get());
    return source;
}
