#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXKeychain.h>

#include <filesystem>
#include <memory>

/// A keychain of generic-password items kept in a property-list file that only its owner can
/// read (the Linux default uses $XDG_DATA_HOME/<application id>/keychain.plist).
///
/// The directory is created with mode 0700 and the file with 0600, exactly, whatever the
/// umask. Every operation reads the file, applies the change and replaces the file atomically,
/// holding an advisory lock ("<file>.lock") so that processes sharing the store do not lose
/// each other's changes. An item without an account has the empty account. A damaged file is
/// moved aside (as user defaults do) and the store starts empty. Failures to write give
/// KXKeychainStatus::IO and leave the stored items as they were.
class KX_EXPORT KXFileKeychain final : public KXKeychain {
public:
    explicit KXFileKeychain(std::filesystem::path file);
    ~KXFileKeychain() override;

    KXFileKeychain(const KXFileKeychain&) = delete;
    KXFileKeychain& operator=(const KXFileKeychain&) = delete;

    KXKeychainStatus add(const KXKeychainQuery& item, const std::vector<std::uint8_t>& data,
                         const std::optional<std::string>& accessibility = {}) override;
    KXKeychainStatus update(const KXKeychainQuery& query, const std::vector<std::uint8_t>& data,
                            const std::optional<std::string>& accessibility = {}) override;
    std::optional<std::vector<std::uint8_t>> copy(const KXKeychainQuery& query,
                                                  KXKeychainStatus* status = nullptr) override;
    KXKeychainStatus remove(const KXKeychainQuery& query) override;

    const std::filesystem::path& path() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
