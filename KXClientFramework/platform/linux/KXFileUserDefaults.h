#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXUserDefaults.h>

#include <filesystem>
#include <memory>
#include <string>

/// User defaults kept in an XML property-list file (the Linux default uses
/// $XDG_CONFIG_HOME/<application id>/UserDefaults.plist).
///
/// The file is read once, when the store is made. A file that is not a property-list
/// dictionary is moved aside to "<file>.damaged-<UTC timestamp>" with a line on the log sink,
/// and the store starts empty; it is never overwritten in place. synchronize() replaces the
/// file atomically (temporary file, fsync, rename, fsync of the directory), so a crash leaves
/// the old content or the new, never a torn file. The destructor synchronises pending changes.
/// Every operation is safe from any thread.
class KX_EXPORT KXFileUserDefaults final : public KXUserDefaults {
public:
    explicit KXFileUserDefaults(std::filesystem::path file);
    ~KXFileUserDefaults() override;

    KXFileUserDefaults(const KXFileUserDefaults&) = delete;
    KXFileUserDefaults& operator=(const KXFileUserDefaults&) = delete;

    KXJSON objectForKey(const std::string& key) const override;
    void setObject(const std::string& key, const KXJSON& value) override;
    void removeObject(const std::string& key) override;
    bool synchronize() override;

    /// Every key and value, as one object.
    KXJSON dictionaryRepresentation() const;
    const std::filesystem::path& path() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
