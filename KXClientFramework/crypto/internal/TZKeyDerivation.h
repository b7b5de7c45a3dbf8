#pragma once

#include <cstddef>
#include <cstdint>

/// PBKDF2 through OpenSSL's PKCS5_PBKDF2_HMAC, with the argument order and numbering of
/// TZ_CCKeyDerivationPBKDF: algorithm 2 (PBKDF2), PRF 1..5 (HMAC-SHA1, -SHA224, -SHA256,
/// -SHA384, -SHA512). Returns 0, or a TZCryptorStatus (and writes nothing) for an unknown
/// algorithm or PRF, zero rounds or an empty output. Empty passwords and salts are allowed.
int TZKeyDerivationPBKDF(std::uint32_t algorithm, const char* password, std::size_t passwordLength,
                         const std::uint8_t* salt, std::size_t saltLength, std::uint32_t prf,
                         std::uint32_t rounds, std::uint8_t* derivedKey,
                         std::size_t derivedKeyLength);
