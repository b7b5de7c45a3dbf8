#include <KXClientFramework/KXBundle.h>

KXJSON KXBundle::objectForInfoDictionaryKey(const std::string& key) const {
    const KXJSON info = infoDictionary();
    if (!info.is_object()) {
        return nullptr;
    }
    auto it = info.find(key);
    return it != info.end() ? *it : KXJSON();
}
