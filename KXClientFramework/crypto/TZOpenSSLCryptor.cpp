#include <KXClientFramework/TZOpenSSLCryptor.h>

#include "crypto/internal/TZSecrets.h"

#include <openssl/evp.h>

#include <array>

namespace {

constexpr std::size_t kMD5Length = 16;

const EVP_MD* md5() {
    static EVP_MD* const digest = EVP_MD_fetch(nullptr, "MD5", nullptr);
    return digest;
}

std::vector<std::uint8_t> passwordAndSalt(std::string_view password,
                                          std::span<const std::uint8_t> salt) {
    std::vector<std::uint8_t> data(password.begin(), password.end());
    data.insert(data.end(), salt.begin(), salt.end());
    return data;
}

// H1 .. Hcount of EVP_BytesToKey: H1 = MD5(D), Hi = MD5(Hi-1 || D), concatenated.
std::vector<std::uint8_t> chainedHashes(std::span<const std::uint8_t> data, int count) {
    std::vector<std::uint8_t> hashes;
    std::vector<std::uint8_t> previous;
    for (int i = 0; i < count; ++i) {
        previous = GetHashForHash(previous, data);
        hashes.insert(hashes.end(), previous.begin(), previous.end());
    }
    TZWipe(previous);
    return hashes;
}

}  // namespace

std::vector<std::uint8_t> GetHashForHash(std::span<const std::uint8_t> previous,
                                         std::span<const std::uint8_t> data) {
    std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    const bool ok = context != nullptr && md5() != nullptr &&
                    EVP_DigestInit_ex2(context, md5(), nullptr) == 1 &&
                    EVP_DigestUpdate(context, previous.data(), previous.size()) == 1 &&
                    EVP_DigestUpdate(context, data.data(), data.size()) == 1 &&
                    EVP_DigestFinal_ex(context, digest.data(), &length) == 1;
    EVP_MD_CTX_free(context);
    if (!ok) {
        // MD5 is part of OpenSSL's default provider; without it no salted data can be opened.
        return std::vector<std::uint8_t>(kMD5Length, 0);
    }
    return {digest.begin(), digest.begin() + length};
}

std::vector<std::uint8_t> TZOpenSSLCryptorGetKey(
    std::string_view password, std::span<const std::uint8_t> salt,
    const TZCryptorKeyDerivationSettings& keySettings) {
    auto data = passwordAndSalt(password, salt);
    auto key = chainedHashes(data, keySettings.keySize == 32 ? 2 : 1);
    TZWipe(data);
    return key;
}

std::vector<std::uint8_t> TZOpenSSLCryptorGetIV(std::span<const std::uint8_t> key,
                                                std::string_view password,
                                                std::span<const std::uint8_t> salt,
                                                const TZCryptorKeyDerivationSettings& keySettings) {
    auto data = passwordAndSalt(password, salt);
    std::vector<std::uint8_t> IV;
    if (keySettings.keySize == 32) {
        auto hashes = chainedHashes(data, 4);
        IV.assign(hashes.begin() + 2 * kMD5Length, hashes.end());
        TZWipe(hashes);
    } else {
        IV = GetHashForHash(key, data);
    }
    TZWipe(data);
    return IV;
}
