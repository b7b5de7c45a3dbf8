#include "TZCryptoTestSupport.h"

#include "KXProcess.h"
#include "KXSealedFiles.h"

#include <fmt/format.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace tztest {

Bytes bytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

Bytes patternBytes(std::size_t length, std::uint32_t seed) {
    Bytes bytes(length);
    std::uint32_t state = seed * 2654435761u + 1;
    for (auto& byte : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return bytes;
}

std::string hex(std::span<const std::uint8_t> bytes) {
    return fmt::format("{:02X}", fmt::join(bytes, ""));
}

Bytes concat(std::initializer_list<std::span<const std::uint8_t>> parts) {
    Bytes bytes;
    for (const auto& part : parts) {
        bytes.insert(bytes.end(), part.begin(), part.end());
    }
    return bytes;
}

ToolResult openssl(const std::string& arguments, std::span<const std::uint8_t> input,
                   const std::string* password) {
    if (password != nullptr) {
        setenv("KX_TEST_PASSWORD", password->c_str(), 1);
    }
    // From a file: a large input written to the pipe would block while the tool's output waits.
    static std::atomic<int> counter{0};
    const auto in = kxtest::scratchDirectory("openssl") / std::to_string(counter++);
    kxtest::writeBytes(in, Bytes(input.begin(), input.end()));
    std::vector<std::string> words{"openssl"};
    std::istringstream split(arguments);
    for (std::string word; split >> word;) {
        words.push_back(word);
    }
    words.insert(words.end(), {"-in", in.string()});
    const auto ran = kxtest::runProcess("/usr/bin/env", words);
    std::filesystem::remove(in);
    return {ran.exitCode, Bytes(ran.out.begin(), ran.out.end()), ran.err};
}

Bytes pbkdf2(std::string_view password, std::span<const std::uint8_t> salt, unsigned rounds,
             std::size_t length, const char* digest) {
    Bytes key(length);
    const char empty = 0;
    if (PKCS5_PBKDF2_HMAC(
            password.empty() ? &empty : password.data(), static_cast<int>(password.size()),
            salt.data(), static_cast<int>(salt.size()), static_cast<int>(rounds),
            EVP_get_digestbyname(digest), static_cast<int>(length), key.data()) != 1) {
        throw std::runtime_error("PKCS5_PBKDF2_HMAC failed");
    }
    return key;
}

Bytes hmac(const char* digest, std::span<const std::uint8_t> key,
           std::span<const std::uint8_t> data) {
    Bytes mac(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    const std::uint8_t empty = 0;
    if (HMAC(EVP_get_digestbyname(digest), key.empty() ? &empty : key.data(),
             static_cast<int>(key.size()), data.empty() ? &empty : data.data(), data.size(),
             mac.data(), &length) == nullptr) {
        throw std::runtime_error("HMAC failed");
    }
    mac.resize(length);
    return mac;
}

Bytes aesCBC(std::span<const std::uint8_t> key, std::span<const std::uint8_t> IV,
             std::span<const std::uint8_t> data) {
    const EVP_CIPHER* cipher = key.size() == 16   ? EVP_aes_128_cbc()
                               : key.size() == 24 ? EVP_aes_192_cbc()
                                                  : EVP_aes_256_cbc();
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    Bytes out(data.size() + 16);
    int written = 0;
    int last = 0;
    const bool ok = EVP_CipherInit_ex(context, cipher, nullptr, key.data(), IV.data(), 1) == 1 &&
                    EVP_CipherUpdate(context, out.data(), &written, data.data(),
                                     static_cast<int>(data.size())) == 1 &&
                    EVP_CipherFinal_ex(context, out.data() + written, &last) == 1;
    EVP_CIPHER_CTX_free(context);
    if (!ok) {
        throw std::runtime_error("AES-CBC failed");
    }
    out.resize(static_cast<std::size_t>(written + last));
    return out;
}

testing::AssertionResult failedWith(const std::optional<Bytes>& result, const KXError& error,
                                    std::int64_t code, const char* description) {
    if (result.has_value()) {
        return testing::AssertionFailure() << "succeeded with " << result->size() << " bytes";
    }
    const bool described = description != nullptr && *description != 0;
    const KXJSON userInfo = described ? KXJSON{{"NSLocalizedDescription", description}} : KXJSON();
    if (error.domain != kTZCryptorErrorDomain || error.code != code ||
        (description != nullptr && error.userInfo != userInfo)) {
        return testing::AssertionFailure()
               << "failed with " << error.description() << ", not " << code;
    }
    return testing::AssertionSuccess();
}

}  // namespace tztest
