#include <KXClientFramework/KXException.h>
#include <KXClientFramework/KXGeoClueLocationSource.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/KXLog.h>

#include "platform/linux/internal/KXFileUtilities.h"
#include "platform/linux/internal/KXLinuxDeviceFacts.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace {

// Application ids name directories: keep them to one path component.
std::string checkedApplicationId(std::string id) {
    std::string fixed = id;
    for (char& c : fixed) {
        if (c == '/' || c == '\0') {
            c = '_';
        }
    }
    if (fixed.empty() || fixed == "." || fixed == "..") {
        fixed = "KXApplication";
    }
    if (fixed != id) {
        KXLog::systemLog(
            fmt::format("Application id \"{}\" cannot name a directory; using \"{}\"", id, fixed));
    }
    return fixed;
}

std::vector<fs::path> defaultResourceDirectories(const std::string& applicationId) {
    std::vector<fs::path> directories;
    if (const char* list = std::getenv("KX_RESOURCE_PATH"); list != nullptr && *list != '\0') {
        std::istringstream parts(list);
        std::string part;
        while (std::getline(parts, part, ':')) {
            if (!part.empty()) {
                directories.emplace_back(part);
            }
        }
        if (!directories.empty()) {
            return directories;
        }
    }
    std::error_code ec;
    const fs::path executable = fs::read_symlink("/proc/self/exe", ec);
    if (!ec && executable.has_parent_path()) {
        directories.push_back(executable.parent_path());
        directories.push_back(executable.parent_path().parent_path() / "share" / applicationId);
    }
    return directories;
}

KXJSON infoOverrides(const std::optional<std::string>& json) {
    if (!json) {
        return KXJSON::object();
    }
    KXJSON parsed = KXJSONReader::parse(*json).value_or(nullptr);
    if (!parsed.is_object()) {
        KXLog::systemLog(
            "The information dictionary overrides are not a JSON object; ignoring them");
        return KXJSON::object();
    }
    return parsed;
}

}  // namespace

struct KXLinuxPlatform::Impl {
    KXLinuxPlatformOptions options;
    fs::path configDirectory;
    fs::path dataDirectory;
    fs::path cacheDirectory;
    KXSystemClock clock;
    // Declared in the order of need, so destruction runs the other way: background work stops
    // first, then the application, then the stores are flushed, and the main queue goes last.
    std::shared_ptr<KXMainQueue> mainQueue;
    KXAsioMainQueue* asioMainQueue = nullptr;
    std::unique_ptr<KXFileKeychain> keychain;
    std::unique_ptr<KXFileUserDefaults> userDefaults;
    std::unique_ptr<KXDirectoryBundle> bundle;
    std::unique_ptr<KXLinuxNotificationAuthorizer> authorizer;
    KXLinuxAlertPresenter alertPresenter;
    std::optional<KXLocation> fixedLocation;
    std::unique_ptr<KXApplication> application;
    std::unique_ptr<KXBackgroundQueue> backgroundQueue;
};

KXLinuxPlatform::KXLinuxPlatform(KXLinuxPlatformOptions options) : impl_(std::make_unique<Impl>()) {
    Impl& d = *impl_;
    options.applicationId = checkedApplicationId(std::move(options.applicationId));
    d.options = std::move(options);
    const std::string& id = d.options.applicationId;

    d.configDirectory =
        d.options.configDirectory.value_or(kxXdgBaseDirectory("XDG_CONFIG_HOME", ".config") / id);
    d.dataDirectory =
        d.options.dataDirectory.value_or(kxXdgBaseDirectory("XDG_DATA_HOME", ".local/share") / id);
    d.cacheDirectory =
        d.options.cacheDirectory.value_or(kxXdgBaseDirectory("XDG_CACHE_HOME", ".cache") / id);

    if (d.options.mainQueue) {
        d.mainQueue = d.options.mainQueue;
    } else {
        auto asio = std::make_shared<KXAsioMainQueue>();
        d.asioMainQueue = asio.get();
        d.mainQueue = std::move(asio);
    }

    d.keychain = std::make_unique<KXFileKeychain>(d.dataDirectory / "keychain.plist");
    d.userDefaults = std::make_unique<KXFileUserDefaults>(d.configDirectory / "UserDefaults.plist");

    std::vector<fs::path> resources = d.options.resourceDirectories;
    if (resources.empty()) {
        resources = defaultResourceDirectories(id);
    }
    d.bundle = std::make_unique<KXDirectoryBundle>(std::move(resources),
                                                   infoOverrides(d.options.infoDictionaryJSON), id);

    d.authorizer = std::make_unique<KXLinuxNotificationAuthorizer>(
        *d.mainQueue, d.options.notificationsAuthorized);

    if (const char* fixed = std::getenv("KX_FIXED_LOCATION"); fixed != nullptr && *fixed != '\0') {
        d.fixedLocation = KXLinuxLocationSource::parseFixedPosition(fixed);
        if (!d.fixedLocation) {
            KXLog::systemLog(fmt::format(
                "KX_FIXED_LOCATION \"{}\" is not \"latitude,longitude\" in degrees; ignoring it",
                fixed));
        }
    }

    d.application = std::make_unique<KXApplication>(*d.mainQueue, d.options.backgroundTimeLimit);
    d.backgroundQueue = std::make_unique<KXBackgroundQueue>(d.options.backgroundThreads);
}

KXLinuxPlatform::~KXLinuxPlatform() {
    impl_->backgroundQueue->shutdown();
}

KXMainQueue& KXLinuxPlatform::mainQueue() {
    return *impl_->mainQueue;
}
KXBackgroundQueue& KXLinuxPlatform::backgroundQueue() {
    return *impl_->backgroundQueue;
}
KXApplication& KXLinuxPlatform::application() {
    return *impl_->application;
}
KXBundle& KXLinuxPlatform::mainBundle() {
    return *impl_->bundle;
}
KXUserDefaults& KXLinuxPlatform::userDefaults() {
    return *impl_->userDefaults;
}
KXKeychain& KXLinuxPlatform::keychain() {
    return *impl_->keychain;
}
KXDeviceFacts KXLinuxPlatform::deviceFacts() const {
    return kxReadLinuxDeviceFacts();
}
fs::path KXLinuxPlatform::cachesDirectory() const {
    return impl_->cacheDirectory;
}

std::unique_ptr<KXLocationSource> KXLinuxPlatform::makeLocationSource() {
    const KXLinuxPlatformOptions& options = impl_->options;
    if (options.desktopLocationService && !impl_->fixedLocation) {
        if (auto desktop = KXGeoClueLocationSource::connect(
                *impl_->mainQueue, options.applicationId, options.locationServiceTimeout)) {
            return desktop;
        }
    }
    return std::make_unique<KXLinuxLocationSource>(*impl_->mainQueue, impl_->clock,
                                                   impl_->fixedLocation);
}

KXNotificationAuthorizer& KXLinuxPlatform::notificationAuthorizer() {
    return *impl_->authorizer;
}
KXAlertPresenter& KXLinuxPlatform::alertPresenter() {
    return impl_->alertPresenter;
}
const KXClock& KXLinuxPlatform::clock() const {
    return impl_->clock;
}

const KXLinuxPlatformOptions& KXLinuxPlatform::options() const {
    return impl_->options;
}
KXAsioMainQueue* KXLinuxPlatform::asioMainQueue() {
    return impl_->asioMainQueue;
}
const fs::path& KXLinuxPlatform::configDirectory() const {
    return impl_->configDirectory;
}
const fs::path& KXLinuxPlatform::dataDirectory() const {
    return impl_->dataDirectory;
}

std::shared_ptr<KXLinuxPlatform> KXLinuxPlatform::installDefault(const std::string& applicationId) {
    KXLinuxPlatformOptions options;
    options.applicationId = applicationId;
    auto platform = std::make_shared<KXLinuxPlatform>(std::move(options));
    KXPlatform::install(platform);
    return platform;
}

KXAsioMainQueue& KXLinuxPlatform::defaultMainQueue() {
    auto* queue = dynamic_cast<KXAsioMainQueue*>(&KXPlatform::current().mainQueue());
    if (queue == nullptr) {
        throw KXException("NSInternalInconsistencyException",
                          "The installed platform's main queue is not a KXAsioMainQueue");
    }
    return *queue;
}

std::string KXLinuxPlatform::defaultApplicationId() {
    if (const char* id = std::getenv("KX_APPLICATION_ID"); id != nullptr && *id != '\0') {
        return id;
    }
    return program_invocation_short_name;
}
