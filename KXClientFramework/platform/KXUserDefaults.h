#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// A small persistent key-value store of property-list values (strings, numbers, booleans,
/// data as JSON binary, arrays and dictionaries of these). Changes are kept in memory and
/// written by synchronize(). Safe to use from any thread.
class KX_EXPORT KXUserDefaults {
public:
    virtual ~KXUserDefaults() = default;

    /// The value under `key`, or null.
    virtual KXJSON objectForKey(const std::string& key) const = 0;
    /// Stores `value` under `key`; a null value removes the key.
    virtual void setObject(const std::string& key, const KXJSON& value) = 0;
    virtual void removeObject(const std::string& key) = 0;
    /// Writes pending changes to storage; false when that failed (the changes stay pending).
    virtual bool synchronize() = 0;

    // Typed reads: absent (or false, 0) when the key is missing or holds another type.
    std::optional<std::string> stringForKey(const std::string& key) const;
    std::vector<std::string> stringArrayForKey(const std::string& key) const;
    bool boolForKey(const std::string& key) const;
    std::int64_t integerForKey(const std::string& key) const;
};
