// Password-based keys, random bytes and the small byte helpers of the cryptors.
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/TZCryptor.h>
#include <KXClientFramework/TZCryptorEngine.h>

#include "crypto/internal/TZHMAC.h"
#include "crypto/internal/TZKeyDerivation.h"
#include "crypto/internal/TZSettingsLimits.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <mutex>

namespace {

constexpr std::uint32_t kPBKDF2 = 2;
constexpr std::size_t kFallbackMaxSaltLength = 132;
// A valid pointer for empty passwords and salts.
constexpr std::uint8_t kEmpty[1] = {0};

// The digest of each PBKDF2 PRF number (1..5).
const EVP_MD* prfDigest(std::uint32_t prf) {
    switch (prf) {
        case 1:
            return EVP_sha1();
        case 2:
            return EVP_sha224();
        case 3:
            return EVP_sha256();
        case 4:
            return EVP_sha384();
        case 5:
            return EVP_sha512();
        default:
            return nullptr;
    }
}

// The number of UTF-16 units of a UTF-8 string: one per code point, two for those above
// U+FFFF. A byte that does not start a valid sequence counts as one unit, as its replacement
// character would.
std::size_t utf16Length(std::string_view text) {
    std::size_t units = 0;
    std::size_t i = 0;
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const auto continuation = [&](std::size_t at) {
        return at < text.size() && (byte(at) & 0xC0) == 0x80;
    };
    while (i < text.size()) {
        const unsigned char lead = byte(i);
        std::size_t length = 1;
        std::size_t width = 1;
        if (lead >= 0xC2 && lead <= 0xDF && continuation(i + 1)) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF && continuation(i + 1) && continuation(i + 2)) {
            const unsigned char second = byte(i + 1);
            const bool overlong = lead == 0xE0 && second < 0xA0;
            const bool surrogate = lead == 0xED && second >= 0xA0;
            length = overlong || surrogate ? 1 : 3;
        } else if (lead >= 0xF0 && lead <= 0xF4 && continuation(i + 1) && continuation(i + 2) &&
                   continuation(i + 3)) {
            const unsigned char second = byte(i + 1);
            const bool valid =
                !(lead == 0xF0 && second < 0x90) && !(lead == 0xF4 && second >= 0x90);
            length = valid ? 4 : 1;
            width = valid ? 2 : 1;
        }
        units += width;
        i += length;
    }
    return units;
}

// The fallback source: /dev/random, opened once per process, read until the buffer is full,
// end of file or an error other than EINTR. Unfilled bytes stay as they were.
void fillFromDevRandom(std::uint8_t* bytes, std::size_t length) {
    static const int descriptor = ::open("/dev/random", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0 || length == 0) {
        return;
    }
    std::size_t filled = 0;
    while (filled < length) {
        const ssize_t got = ::read(descriptor, bytes + filled, length - filled);
        if (got > 0) {
            filled += static_cast<std::size_t>(got);
        } else if (got < 0 && errno == EINTR) {
            continue;
        } else {
            break;
        }
    }
}

}  // namespace

int TZKeyDerivationPBKDF(std::uint32_t algorithm, const char* password, std::size_t passwordLength,
                         const std::uint8_t* salt, std::size_t saltLength, std::uint32_t prf,
                         std::uint32_t rounds, std::uint8_t* derivedKey,
                         std::size_t derivedKeyLength) {
    const EVP_MD* digest = prfDigest(prf);
    if (algorithm != kPBKDF2 || digest == nullptr || rounds == 0 || derivedKeyLength == 0 ||
        derivedKey == nullptr || (password == nullptr && passwordLength != 0) ||
        (salt == nullptr && saltLength != 0) || passwordLength > INT_MAX || saltLength > INT_MAX ||
        derivedKeyLength > INT_MAX || rounds > INT_MAX) {
        return static_cast<int>(TZCryptorStatusParamError);
    }
    const int status =
        PKCS5_PBKDF2_HMAC(passwordLength == 0 ? reinterpret_cast<const char*>(kEmpty) : password,
                          static_cast<int>(passwordLength), saltLength == 0 ? kEmpty : salt,
                          static_cast<int>(saltLength), static_cast<int>(rounds), digest,
                          static_cast<int>(derivedKeyLength), derivedKey);
    return status == 1 ? 0 : static_cast<int>(TZCryptorStatusUnspecifiedError);
}

int TZ_CCKeyDerivationPBKDF(std::uint32_t algorithm, const char* password,
                            std::size_t passwordLength, const std::uint8_t* salt,
                            std::size_t saltLength, std::uint32_t prf, std::uint32_t rounds,
                            std::uint8_t* derivedKey, std::size_t derivedKeyLength) {
    if (algorithm != kPBKDF2 || saltLength == 0 || saltLength > kFallbackMaxSaltLength ||
        rounds == 0 || derivedKeyLength == 0 || salt == nullptr || derivedKey == nullptr ||
        (password == nullptr && passwordLength != 0)) {
        return -1;
    }

    // PRF number to the HMAC algorithm number and the length of one PBKDF2 block. An unknown
    // PRF keeps HMAC-SHA1 but uses only the first byte of each HMAC as its block.
    std::uint32_t hmacAlgorithm = 0;
    std::size_t blockLength = 1;
    switch (prf) {
        case 1:
            hmacAlgorithm = 0;
            blockLength = 20;
            break;
        case 2:
            hmacAlgorithm = 5;
            blockLength = 28;
            break;
        case 3:
            hmacAlgorithm = 2;
            blockLength = 32;
            break;
        case 4:
            hmacAlgorithm = 3;
            blockLength = 48;
            break;
        case 5:
            hmacAlgorithm = 4;
            blockLength = 64;
            break;
        default:
            break;
    }

    const std::span<const std::uint8_t> key(
        passwordLength == 0 ? kEmpty : reinterpret_cast<const std::uint8_t*>(password),
        passwordLength);
    auto hmac = TZHMAC::start(hmacAlgorithm, key);
    if (!hmac) {
        return -1;
    }

    std::fill_n(derivedKey, derivedKeyLength, std::uint8_t{0});
    std::array<std::uint8_t, kFallbackMaxSaltLength + 4> saltAndIndex{};
    std::array<std::uint8_t, EVP_MAX_MD_SIZE> u{};
    std::array<std::uint8_t, EVP_MAX_MD_SIZE> t{};
    std::copy_n(salt, saltLength, saltAndIndex.data());

    std::size_t produced = 0;
    for (std::uint32_t block = 1; produced < derivedKeyLength; ++block) {
        saltAndIndex[saltLength] = static_cast<std::uint8_t>(block >> 24);
        saltAndIndex[saltLength + 1] = static_cast<std::uint8_t>(block >> 16);
        saltAndIndex[saltLength + 2] = static_cast<std::uint8_t>(block >> 8);
        saltAndIndex[saltLength + 3] = static_cast<std::uint8_t>(block);

        // U1 = HMAC(password, salt || INT(i)); Uj = HMAC(password, Uj-1); T = U1 ^ ... ^ Uc.
        hmac->update(std::span<const std::uint8_t>(saltAndIndex.data(), saltLength + 4));
        hmac->finishInto(u);
        std::copy_n(u.data(), blockLength, t.data());
        for (std::uint32_t round = 1; round < rounds; ++round) {
            hmac->restart();
            hmac->update(std::span<const std::uint8_t>(u.data(), blockLength));
            hmac->finishInto(u);
            for (std::size_t i = 0; i < blockLength; ++i) {
                t[i] ^= u[i];
            }
        }
        const std::size_t take = std::min(blockLength, derivedKeyLength - produced);
        std::copy_n(t.data(), take, derivedKey + produced);
        produced += take;
        hmac->restart();
    }

    OPENSSL_cleanse(saltAndIndex.data(), saltAndIndex.size());
    OPENSSL_cleanse(u.data(), u.size());
    OPENSSL_cleanse(t.data(), t.size());
    return 0;
}

std::vector<std::uint8_t> TZCryptor::keyForPassword(
    std::string_view password, std::span<const std::uint8_t> salt,
    const TZCryptorKeyDerivationSettings& settings) {
    if (settings.keySize > kTZMaxSettingSize) {
        return {};
    }
    std::vector<std::uint8_t> key(settings.keySize, 0);
    const std::string_view bytes =
        settings.hasV2Password ? password.substr(0, utf16Length(password)) : password;
    // The status is deliberately not checked: parameters PBKDF2 refuses leave the key zero,
    // which is what data sealed under such settings was sealed with.
    TZKeyDerivationPBKDF(settings.PBKDFAlgorithm, bytes.data(), bytes.size(), salt.data(),
                         salt.size(), settings.PRF, settings.rounds, key.data(), key.size());
    return key;
}

std::vector<std::uint8_t> TZCryptor::randomDataOfLength(std::size_t length) {
    std::vector<std::uint8_t> bytes(length, 0);
    std::size_t filled = 0;
    while (filled < length) {
        const std::size_t slice = std::min<std::size_t>(length - filled, INT_MAX);
        if (RAND_bytes(bytes.data() + filled, static_cast<int>(slice)) != 1) {
            KX_LOG_ERROR("RAND_bytes failed; reading /dev/random instead");
            fillFromDevRandom(bytes.data() + filled, length - filled);
            break;
        }
        filled += slice;
    }
    return bytes;
}

std::vector<std::uint8_t> TZConsumeToIndex(std::vector<std::uint8_t>& data, std::size_t index) {
    const std::size_t count = std::min(index, data.size());
    std::vector<std::uint8_t> head(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(count));
    data.erase(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(count));
    return head;
}

bool tzc_isEqualInConsistentTime(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
    if (b.empty()) {
        return a.empty();
    }
    if (a.empty()) {
        return false;
    }
    // Every byte of b is compared (against a, repeated when it is shorter), so the time depends
    // on b's length only; a length difference is part of the result, not an early exit.
    std::uint8_t difference = a.size() != b.size() ? 1 : 0;
    for (std::size_t i = 0; i < b.size(); ++i) {
        difference |= static_cast<std::uint8_t>(b[i] ^ a[i % a.size()]);
    }
    return difference == 0;
}
