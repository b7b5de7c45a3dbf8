#pragma once

#include <KXClientFramework/KXExport.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// Result codes of keychain operations (the platform's status numbers).
enum class KXKeychainStatus : std::int32_t {
    Success = 0,
    Param = -50,
    IO = -36,
    DuplicateItem = -25299,
    ItemNotFound = -25300,
};

/// Identifies generic-password items: a service name and, optionally, an account. A query
/// without an account matches an item of that service whatever its account.
struct KXKeychainQuery {
    std::string service;
    std::optional<std::string> account;
};

/// A protected per-user store of small secrets (generic-password items).
class KX_EXPORT KXKeychain {
public:
    virtual ~KXKeychain() = default;

    /// Adds an item; DuplicateItem when one with the same service and account exists.
    virtual KXKeychainStatus add(const KXKeychainQuery& item, const std::vector<std::uint8_t>& data,
                                 const std::optional<std::string>& accessibility = {}) = 0;
    /// Replaces the data (and accessibility, if given) of the matching item in place.
    virtual KXKeychainStatus update(const KXKeychainQuery& query,
                                    const std::vector<std::uint8_t>& data,
                                    const std::optional<std::string>& accessibility = {}) = 0;
    /// The data of the first matching item.
    virtual std::optional<std::vector<std::uint8_t>> copy(const KXKeychainQuery& query,
                                                          KXKeychainStatus* status = nullptr) = 0;
    /// Deletes every matching item; ItemNotFound when there was none.
    virtual KXKeychainStatus remove(const KXKeychainQuery& query) = 0;
};

inline constexpr const char* kSecAttrAccessibleAfterFirstUnlock = "ck";
inline constexpr const char* kSecAttrAccessibleWhenUnlocked = "ak";
