#include <KXClientFramework/KXFileKeychain.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPropertyList.h>

#include "platform/linux/internal/KXFileUtilities.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <system_error>
#include <utility>

// The file holds {"version": 1, "items": [item, ...]}, each item a dictionary with the
// generic-password attributes "svce" (service), "acct" (account), "v_Data" (the secret, as
// data) and, when given, "pdmn" (accessibility).

namespace {

constexpr const char* kItems = "items";
constexpr const char* kService = "svce";
constexpr const char* kAccount = "acct";
constexpr const char* kData = "v_Data";
constexpr const char* kAccessibility = "pdmn";

std::string stringField(const KXJSON& item, const char* key) {
    auto it = item.find(key);
    return it != item.end() && it->is_string() ? it->get<std::string>() : std::string();
}

bool matches(const KXJSON& item, const KXKeychainQuery& query) {
    if (!item.is_object() || stringField(item, kService) != query.service) {
        return false;
    }
    return !query.account || stringField(item, kAccount) == *query.account;
}

// Holds the cross-process lock for one operation.
class FileLock {
public:
    explicit FileLock(const std::filesystem::path& path)
        : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
        if (fd_ >= 0) {
            while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
            }
        }
    }
    ~FileLock() {
        if (fd_ >= 0) {
            ::close(fd_);  // also releases the lock
        }
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    int fd_;
};

}  // namespace

struct KXFileKeychain::Impl {
    std::filesystem::path path;
    std::mutex mutex;

    // Runs `change` on the stored items under both locks and writes the result when it asks
    // to (returns true). The items as loaded are what `change` sees.
    template <typename Change>
    KXKeychainStatus transact(Change&& change) {
        std::lock_guard lock(mutex);
        std::string error;
        if (!kxCreateDirectories(path.parent_path(), 0700, &error)) {
            KXLog::systemLog(fmt::format("Keychain {} unavailable: {}", path.string(), error));
            return KXKeychainStatus::IO;
        }
        FileLock fileLock(path.string() + ".lock");
        KXPropertyListFile loaded = kxLoadPropertyListFile(path, "Keychain");
        KXJSON items = KXJSON::array();
        if (auto it = loaded.contents.find(kItems); it != loaded.contents.end() && it->is_array()) {
            items = std::move(*it);
        }
        bool write = false;
        const KXKeychainStatus status = change(items, write);
        if (!write) {
            return status;
        }
        if (!loaded.writable) {
            return KXKeychainStatus::IO;
        }
        const KXJSON document{{"version", 1}, {kItems, std::move(items)}};
        if (!kxWriteFileAtomically(path, KXPropertyList::toXML(document), 0600, &error)) {
            KXLog::systemLog(fmt::format("Keychain {} not written: {}", path.string(), error));
            return KXKeychainStatus::IO;
        }
        return status;
    }
};

KXFileKeychain::KXFileKeychain(std::filesystem::path file) : impl_(std::make_unique<Impl>()) {
    impl_->path = std::move(file);
    kxRemoveStaleTemporaryFiles(impl_->path);
}

KXFileKeychain::~KXFileKeychain() = default;

const std::filesystem::path& KXFileKeychain::path() const {
    return impl_->path;
}

KXKeychainStatus KXFileKeychain::add(const KXKeychainQuery& item,
                                     const std::vector<std::uint8_t>& data,
                                     const std::optional<std::string>& accessibility) {
    const KXKeychainQuery identity{item.service, item.account.value_or("")};
    return impl_->transact([&](KXJSON& items, bool& write) {
        for (const auto& existing : items) {
            if (matches(existing, identity)) {
                return KXKeychainStatus::DuplicateItem;
            }
        }
        KXJSON entry{{kService, identity.service},
                     {kAccount, *identity.account},
                     {kData, KXJSON::binary(data)}};
        if (accessibility) {
            entry[kAccessibility] = *accessibility;
        }
        items.push_back(std::move(entry));
        write = true;
        return KXKeychainStatus::Success;
    });
}

KXKeychainStatus KXFileKeychain::update(const KXKeychainQuery& query,
                                        const std::vector<std::uint8_t>& data,
                                        const std::optional<std::string>& accessibility) {
    return impl_->transact([&](KXJSON& items, bool& write) {
        for (auto& existing : items) {
            if (matches(existing, query)) {
                existing[kData] = KXJSON::binary(data);
                if (accessibility) {
                    existing[kAccessibility] = *accessibility;
                }
                write = true;
            }
        }
        return write ? KXKeychainStatus::Success : KXKeychainStatus::ItemNotFound;
    });
}

std::optional<std::vector<std::uint8_t>> KXFileKeychain::copy(const KXKeychainQuery& query,
                                                              KXKeychainStatus* status) {
    std::optional<std::vector<std::uint8_t>> found;
    std::error_code ec;
    if (!std::filesystem::exists(impl_->path, ec) && !ec) {
        // Nothing stored yet; a read creates no directory or lock file.
        if (status != nullptr) {
            *status = KXKeychainStatus::ItemNotFound;
        }
        return std::nullopt;
    }
    const KXKeychainStatus result = impl_->transact([&](KXJSON& items, bool&) {
        for (const auto& existing : items) {
            if (!matches(existing, query)) {
                continue;
            }
            auto data = existing.find(kData);
            if (data != existing.end() && data->is_binary()) {
                found =
                    std::vector<std::uint8_t>(data->get_binary().begin(), data->get_binary().end());
            } else {
                found = std::vector<std::uint8_t>();
            }
            return KXKeychainStatus::Success;
        }
        return KXKeychainStatus::ItemNotFound;
    });
    if (status != nullptr) {
        *status = result;
    }
    return result == KXKeychainStatus::Success ? found : std::nullopt;
}

KXKeychainStatus KXFileKeychain::remove(const KXKeychainQuery& query) {
    return impl_->transact([&](KXJSON& items, bool& write) {
        KXJSON kept = KXJSON::array();
        for (auto& existing : items) {
            if (matches(existing, query)) {
                write = true;
            } else {
                kept.push_back(std::move(existing));
            }
        }
        items = std::move(kept);
        return write ? KXKeychainStatus::Success : KXKeychainStatus::ItemNotFound;
    });
}
