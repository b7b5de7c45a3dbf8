#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXKeychain.h>

#include <optional>
#include <string>

/// A small keychain utility for the application: one archived value per key, stored as a
/// generic-password item whose service and account are both the key, accessible after the
/// first unlock. The library itself does not use it.
class KX_EXPORT KXKeychainWrapper {
public:
    /// The item query of `key` and the accessibility items are stored with.
    struct Query {
        KXKeychainQuery item;
        std::string accessibility;
    };

    static Query getKeychainQuery(const std::string& key);

    /// Replaces the item of `key` with the archive of `value` (a property-list value: string,
    /// number, boolean, array or object). Failures are ignored.
    static void saveValue(const KXJSON& value, const std::string& key);

    /// The value stored under `key`, or null. Data that does not unarchive writes
    /// "Unarchive of <key> failed: <reason>" to the system log and gives null.
    static KXJSON fetchValueForKey(const std::string& key);

    static void deleteValueForKey(const std::string& key);
};
