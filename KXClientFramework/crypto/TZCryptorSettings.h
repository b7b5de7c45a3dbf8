#pragma once

#include <cstdint>

/// How a key is derived from a password (PBKDF2) and how long the salt in front of it is.
struct TZCryptorKeyDerivationSettings {
    /// Derived key length in bytes.
    std::uint64_t keySize = 0;
    /// Salt length in bytes.
    std::uint64_t saltSize = 0;
    /// Key-derivation algorithm number; 2 is PBKDF2, the only one there is.
    std::uint32_t PBKDFAlgorithm = 0;
    /// Pseudo-random function of PBKDF2: 1 HMAC-SHA1, 2 HMAC-SHA224, 3 HMAC-SHA256,
    /// 4 HMAC-SHA384, 5 HMAC-SHA512.
    std::uint32_t PRF = 0;
    /// PBKDF2 iteration count.
    std::uint32_t rounds = 0;
    /// When true the password bytes are taken the way version-2 containers were written: the
    /// UTF-8 form cut to the password's length in UTF-16 units (see TZCryptor::keyForPassword).
    bool hasV2Password = false;

    bool operator==(const TZCryptorKeyDerivationSettings&) const = default;
};

/// Everything a cryptor needs to know about the cipher, the HMAC and the key derivations.
/// Passed and stored by value; every cryptor keeps its own copy.
struct TZCryptorSettings {
    /// Cipher algorithm number; 0 is AES, whose variant (128/192/256) follows the key length.
    std::uint32_t algorithm = 0;
    /// Cipher block size in bytes.
    std::uint64_t blockSize = 0;
    /// IV length in bytes (what the container header carries).
    std::uint64_t IVSize = 0;
    /// Cipher options: bit 0 (1) PKCS#7 padding, bit 1 (2) ECB instead of CBC.
    std::uint32_t options = 0;
    /// HMAC algorithm number: 0 SHA-1, 1 MD5, 2 SHA-256, 3 SHA-384, 4 SHA-512, 5 SHA-224.
    std::uint32_t HMACAlgorithm = 0;
    /// HMAC length in bytes at the end of a container.
    std::uint64_t HMACLength = 0;
    /// Derivation of the encryption key.
    TZCryptorKeyDerivationSettings keySettings;
    /// Derivation of the HMAC key.
    TZCryptorKeyDerivationSettings HMACKeySettings;

    bool operator==(const TZCryptorSettings&) const = default;
};

/// AES-256-CBC with PKCS#7 padding, 16-byte IV, HMAC-SHA256, and 32-byte keys derived by
/// PBKDF2-HMAC-SHA1 with 10000 rounds over 8-byte salts. The settings of the configuration file
/// and of every container the library writes.
inline constexpr TZCryptorSettings kTZCryptorAES256Settings{
    .algorithm = 0,
    .blockSize = 16,
    .IVSize = 16,
    .options = 1,
    .HMACAlgorithm = 2,
    .HMACLength = 32,
    .keySettings = {.keySize = 32,
                    .saltSize = 8,
                    .PBKDFAlgorithm = 2,
                    .PRF = 1,
                    .rounds = 10000,
                    .hasV2Password = false},
    .HMACKeySettings = {.keySize = 32,
                        .saltSize = 8,
                        .PBKDFAlgorithm = 2,
                        .PRF = 1,
                        .rounds = 10000,
                        .hasV2Password = false},
};

/// The error domain of every sealed-data error.
inline constexpr const char* kTZCryptorErrorDomain = "net.tolvarn.TZCryptManager";

/// The eight ASCII bytes that open OpenSSL's salted format (no terminator in the data).
inline constexpr const char* kTZCryptorOpenSSLSaltedString = "Salted__";

/// The container version written by TZEncryptor (versions 2 and 3 are read).
inline constexpr std::uint8_t kTZCryptorFileVersion = 3;

/// Bits of a cryptor's options byte (the second byte of a container).
enum TZCryptorOptions : std::uint8_t {
    /// The data carries salts and its keys are derived from a password.
    TZCryptorOptionHasPassword = 1,
};

/// Error codes of kTZCryptorErrorDomain made by the cryptors themselves. Cipher failures use
/// the TZCryptorStatus numbers instead.
enum TZCryptorErrorCode : std::int64_t {
    /// The HMAC at the end of a container does not match its contents ("HMAC Mismatch").
    TZCryptorErrorHMACMismatch = 1,
    /// The data does not start with a known header ("Unknown header").
    TZCryptorErrorUnknownHeader = 2,
};

/// Status numbers of the cipher layer, reported as error codes of kTZCryptorErrorDomain.
/// They keep the numbering of the block-cipher interface the sealed formats were first written
/// with, so callers that compare codes see the same values on every platform.
enum TZCryptorStatus : std::int64_t {
    TZCryptorStatusSuccess = 0,
    /// A parameter is not acceptable (unknown option bits, IV shorter than a block).
    TZCryptorStatusParamError = -4300,
    /// The output buffer cannot hold the result.
    TZCryptorStatusBufferTooSmall = -4301,
    /// Memory could not be allocated.
    TZCryptorStatusMemoryFailure = -4302,
    /// The input does not end on a block boundary where the mode needs it to.
    TZCryptorStatusAlignmentError = -4303,
    /// The decrypted data is malformed: its padding is wrong (typically a wrong key).
    TZCryptorStatusDecodeError = -4304,
    /// The algorithm is not provided.
    TZCryptorStatusUnimplemented = -4305,
    /// The cipher layer failed in a way it does not explain.
    TZCryptorStatusUnspecifiedError = -4308,
    /// Calls were made in an order the cipher does not allow (data after the final block).
    TZCryptorStatusCallSequenceError = -4309,
    /// The key length does not fit the algorithm.
    TZCryptorStatusKeySizeError = -4310,
};

/// The direction of a TZCryptorEngine.
enum class TZCryptorOperation : std::uint32_t {
    Encrypt = 0,
    Decrypt = 1,
};
