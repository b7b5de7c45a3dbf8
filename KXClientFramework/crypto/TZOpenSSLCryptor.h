#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/TZCryptorSettings.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

// Key and IV derivation of OpenSSL's salted format: EVP_BytesToKey with MD5 and one iteration,
// over D = the password's UTF-8 bytes followed by the salt.

/// MD5(previous || data), 16 bytes. An empty `previous` counts as none.
KX_EXPORT std::vector<std::uint8_t> GetHashForHash(std::span<const std::uint8_t> previous,
                                                   std::span<const std::uint8_t> data);

/// The key: with `keySize` 32, H1 || H2 where H1 = MD5(D) and H2 = MD5(H1 || D); with any other
/// `keySize`, MD5(D) (16 bytes, so AES-128 whatever size was asked for).
KX_EXPORT std::vector<std::uint8_t> TZOpenSSLCryptorGetKey(
    std::string_view password, std::span<const std::uint8_t> salt,
    const TZCryptorKeyDerivationSettings& keySettings);

/// The IV: with `keySize` 32, H3 || H4 (32 bytes, of which the cipher uses H3) where
/// H3 = MD5(H2 || D) and H4 = MD5(H3 || D), recomputed from the password (`key` is not used);
/// with any other `keySize`, MD5(key || D).
KX_EXPORT std::vector<std::uint8_t> TZOpenSSLCryptorGetIV(
    std::span<const std::uint8_t> key, std::string_view password,
    std::span<const std::uint8_t> salt, const TZCryptorKeyDerivationSettings& keySettings);
