#include <KXClientFramework/KXKeychainWrapper.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPlatform.h>

#include "transport/internal/KXArchive.h"

KXKeychainWrapper::Query KXKeychainWrapper::getKeychainQuery(const std::string& key) {
    return Query{KXKeychainQuery{key, key}, kSecAttrAccessibleAfterFirstUnlock};
}

void KXKeychainWrapper::saveValue(const KXJSON& value, const std::string& key) {
    const Query query = getKeychainQuery(key);
    KXKeychain& keychain = KXPlatform::current().keychain();
    keychain.remove(query.item);
    keychain.add(query.item, kx::archive::archive(value), query.accessibility);
}

KXJSON KXKeychainWrapper::fetchValueForKey(const std::string& key) {
    const Query query = getKeychainQuery(key);
    KXKeychainStatus status = KXKeychainStatus::Success;
    const auto data = KXPlatform::current().keychain().copy(query.item, &status);
    if (status != KXKeychainStatus::Success || !data) {
        return nullptr;
    }
    std::string why;
    std::optional<KXJSON> value = kx::archive::unarchive(*data, &why);
    if (!value) {
        KXLog::systemLog(fmt::format("Unarchive of {} failed: {}", key, why));
        return nullptr;
    }
    return std::move(*value);
}

void KXKeychainWrapper::deleteValueForKey(const std::string& key) {
    KXPlatform::current().keychain().remove(getKeychainQuery(key).item);
}
