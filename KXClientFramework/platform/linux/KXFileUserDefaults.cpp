#include <KXClientFramework/KXFileUserDefaults.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPropertyList.h>

#include "platform/linux/internal/KXFileUtilities.h"

#include <fmt/format.h>

#include <mutex>
#include <utility>

struct KXFileUserDefaults::Impl {
    std::filesystem::path path;
    mutable std::mutex mutex;
    KXJSON values = KXJSON::object();
    bool dirty = false;
    bool writable = true;
};

KXFileUserDefaults::KXFileUserDefaults(std::filesystem::path file)
    : impl_(std::make_unique<Impl>()) {
    impl_->path = std::move(file);
    kxRemoveStaleTemporaryFiles(impl_->path);
    KXPropertyListFile loaded = kxLoadPropertyListFile(impl_->path, "User defaults");
    impl_->values = std::move(loaded.contents);
    impl_->writable = loaded.writable;
}

KXFileUserDefaults::~KXFileUserDefaults() {
    bool pending = false;
    {
        std::lock_guard lock(impl_->mutex);
        pending = impl_->dirty;
    }
    if (pending) {
        synchronize();
    }
}

KXJSON KXFileUserDefaults::objectForKey(const std::string& key) const {
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->values.find(key);
    return it != impl_->values.end() ? *it : KXJSON();
}

void KXFileUserDefaults::setObject(const std::string& key, const KXJSON& value) {
    if (value.is_null()) {
        removeObject(key);
        return;
    }
    std::lock_guard lock(impl_->mutex);
    impl_->values[key] = value;
    impl_->dirty = true;
}

void KXFileUserDefaults::removeObject(const std::string& key) {
    std::lock_guard lock(impl_->mutex);
    if (impl_->values.erase(key) > 0) {
        impl_->dirty = true;
    }
}

bool KXFileUserDefaults::synchronize() {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->dirty) {
        return true;
    }
    if (!impl_->writable) {
        return false;  // a damaged file that could not be moved aside is never replaced
    }
    const std::string xml = KXPropertyList::toXML(impl_->values);
    if (xml.empty()) {
        KXLog::systemLog(fmt::format("User defaults {} not written: a value nests too deeply",
                                     impl_->path.string()));
        return false;
    }
    std::string error;
    if (!kxCreateDirectories(impl_->path.parent_path(), 0700, &error) ||
        !kxWriteFileAtomically(impl_->path, xml, 0600, &error)) {
        KXLog::systemLog(
            fmt::format("User defaults {} not written: {}", impl_->path.string(), error));
        return false;
    }
    impl_->dirty = false;
    return true;
}

KXJSON KXFileUserDefaults::dictionaryRepresentation() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->values;
}

const std::filesystem::path& KXFileUserDefaults::path() const {
    return impl_->path;
}
