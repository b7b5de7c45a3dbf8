#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXSettings.h>
#include <KXClientFramework/KXProcessWide.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

KXUserDefaults& standardUserDefaults() {
    return KXPlatform::current().userDefaults();
}

// A string entry of the main bundle's information dictionary, when it holds one.
std::optional<std::string> infoString(const char* key) {
    const KXJSON value = KXPlatform::current().mainBundle().objectForInfoDictionaryKey(key);
    if (!value.is_string()) {
        return std::nullopt;
    }
    return value.get<std::string>();
}

std::string describe(const std::optional<std::string>& value) {
    return value ? *value : "(null)";
}

}  // namespace

KXDevice& KXDevice::currentDevice() {
    return kxProcessWide<KXDevice>();
}

KXDevice::KXDevice() = default;

std::optional<std::string> KXDevice::deviceToken() const {
    {
        std::lock_guard lock(mutex_);
        if (deviceToken_) {
            return deviceToken_;
        }
    }
    return retrieveDeviceTokenFromUserDefaults();
}

void KXDevice::setDeviceToken(std::optional<std::string> deviceToken) {
    std::lock_guard lock(mutex_);
    deviceToken_ = std::move(deviceToken);
}

bool KXDevice::multipleDeviceTokens() const {
    return retrieveDeviceTokenListFromUserDefaults().size() > 1;
}

void KXDevice::saveDeviceToken(const std::optional<std::string>& deviceToken) {
    if (!deviceToken || deviceToken->empty()) {
        KX_LOG_WARN("No device token found");
        return;
    }
    setDeviceToken(deviceToken);
    saveToUserDefaults(deviceToken);
}

void KXDevice::saveToUserDefaults(const std::optional<std::string>& deviceToken) {
    KXUserDefaults& defaults = standardUserDefaults();

    // The current entry takes the token held in memory, not the argument: after
    // saveDeviceToken() they are the same.
    std::optional<std::string> current;
    {
        std::lock_guard lock(mutex_);
        current = deviceToken_;
    }
    defaults.setObject(kKXApplicationDeviceTokenKey, current ? KXJSON(*current) : KXJSON());

    std::vector<std::string> list = retrieveDeviceTokenListFromUserDefaults();
    if (deviceToken && std::find(list.begin(), list.end(), *deviceToken) == list.end()) {
        list.push_back(*deviceToken);
        defaults.setObject(kKXApplicationDeviceTokenListKey, KXJSON(list));
    }
    defaults.synchronize();
}

std::optional<std::string> KXDevice::retrieveDeviceTokenFromUserDefaults() const {
    return standardUserDefaults().stringForKey(kKXApplicationDeviceTokenKey);
}

std::vector<std::string> KXDevice::retrieveDeviceTokenListFromUserDefaults() const {
    return standardUserDefaults().stringArrayForKey(kKXApplicationDeviceTokenListKey);
}

void KXDevice::deleteDeviceToken() {
    setDeviceToken(std::nullopt);
    KXUserDefaults& defaults = standardUserDefaults();
    defaults.removeObject(kKXApplicationDeviceTokenKey);
    defaults.synchronize();
}

void KXDevice::deleteDeviceTokenList() {
    KXUserDefaults& defaults = standardUserDefaults();
    defaults.removeObject(kKXApplicationDeviceTokenListKey);
    defaults.synchronize();
}

void KXDevice::printDeviceTokensSavedInUserDefaults() const {
    KX_LOG_DEBUG("retrieveDeviceTokenFromUserDefaults: {}",
                 describe(retrieveDeviceTokenFromUserDefaults()));
    KX_LOG_DEBUG("retrieveDeviceTokenListFromUserDefaults: {}",
                 KXJSONReader::dump(KXJSON(retrieveDeviceTokenListFromUserDefaults())));
    KX_LOG_DEBUG("deviceUserAgent: {}", KXJSONReader::dump(deviceData()));
}

KXJSON KXDevice::deviceData() const {
    const KXDeviceFacts facts = KXPlatform::current().deviceFacts();
    KXJSON data = KXJSON::object();

    data["manufacturer"] = facts.manufacturer;
    if (facts.systemVersion) {
        data["osVersion"] = *facts.systemVersion;
    }
    if (facts.model) {
        data["deviceModel"] = *facts.model;
    }
    if (auto name = infoString("CFBundleName")) {
        data["appName"] = *name;
    }
    // The build version, not the short version string.
    if (auto version = infoString("CFBundleVersion")) {
        data["appVersion"] = *version;
    }
    if (facts.carrierName) {
        data["carrier"] = *facts.carrierName;
    }
    // The whole locale identifier (language and region), not a bare country code.
    if (facts.localeIdentifier) {
        data["country"] = *facts.localeIdentifier;
    }
    if (!facts.preferredLanguages.empty()) {
        data["language"] = facts.preferredLanguages.front();
    }
    if (std::strlen(KX_IOS_SDK_VERSION_STRING) != 0) {
        data["frameworkVersion"] = KX_IOS_SDK_VERSION_STRING;
    }
    data["pushEnabled"] = KXSettings::shared().pushEnabledOnDevice();
    return data;
}
