#include <KXClientFramework/KXKeychainWrapper.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXPropertyList.h>

KXKeychainWrapper::Query KXKeychainWrapper::getKeychainQuery(const std::string& key) {
    return Query{KXKeychainQuery{key, key}, kSecAttrAccessibleAfterFirstUnlock};
}

void KXKeychainWrapper::saveValue(const KXJSON& value, const std::string& key) {
    const Query query = getKeychainQuery(key);
    KXKeychain& keychain = KXPlatform::current().keychain();
    keychain.remove(query.item);
    const std::string xml = KXPropertyList::toXML(value);
    keychain.add(query.item, std::vector<std::uint8_t>(xml.begin(), xml.end()),
                 query.accessibility);
}

KXJSON KXKeychainWrapper::fetchValueForKey(const std::string& key) {
    const Query query = getKeychainQuery(key);
    KXKeychainStatus status = KXKeychainStatus::Success;
    const auto data = KXPlatform::current().keychain().copy(query.item, &status);
    if (status != KXKeychainStatus::Success || !data) {
        return nullptr;
    }
    std::optional<KXJSON> value = KXPropertyList::parse(std::span<const std::uint8_t>(*data));
    if (!value) {
        KXLog::systemLog(
            fmt::format("Unarchive of {} failed: {}", key, "the data is not a property list"));
        return nullptr;
    }
    return std::move(*value);
}

void KXKeychainWrapper::deleteValueForKey(const std::string& key) {
    KXPlatform::current().keychain().remove(getKeychainQuery(key).item);
}
