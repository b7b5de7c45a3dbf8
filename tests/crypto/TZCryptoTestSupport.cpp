#include "TZCryptoTestSupport.h"

#include "KXProcess.h"
#include "KXSealedFiles.h"

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
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    for (const auto byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
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
    // The input comes from a file: a large one written to the tool's standard input would fill
    // the pipe while the tool waits for its output to be read.
    static std::atomic<int> counter{0};
    const auto in = kxtest::scratchDirectory("openssl") / std::to_string(counter++);
    kxtest::writeBytes(in, Bytes(input.begin(), input.end()));
    // Through env, which finds the tool on the PATH.
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

Bytes aesCBC(bool encrypt, std::span<const std::uint8_t> key, std::span<const std::uint8_t> IV,
             std::span<const std::uint8_t> data) {
    const EVP_CIPHER* cipher = key.size() == 16   ? EVP_aes_128_cbc()
                               : key.size() == 24 ? EVP_aes_192_cbc()
                                                  : EVP_aes_256_cbc();
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    Bytes out(data.size() + 16);
    int written = 0;
    int last = 0;
    const bool ok =
        EVP_CipherInit_ex(context, cipher, nullptr, key.data(), IV.data(), encrypt ? 1 : 0) == 1 &&
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

std::string descriptionOf(const KXError& error) {
    if (error.userInfo.is_object() && error.userInfo.contains("NSLocalizedDescription")) {
        return error.userInfo["NSLocalizedDescription"].get<std::string>();
    }
    return {};
}

testing::AssertionResult failedWith(const std::optional<Bytes>& result, const KXError& error,
                                    std::int64_t code, const char* description) {
    if (result.has_value()) {
        return testing::AssertionFailure() << "succeeded with " << result->size() << " bytes";
    }
    if (error.domain != kTZCryptorErrorDomain || error.code != code ||
        (description != nullptr && descriptionOf(error) != description)) {
        return testing::AssertionFailure() << "failed with " << error.description() << " ("
                                           << descriptionOf(error) << "), not " << code;
    }
    return testing::AssertionSuccess();
}

}  // namespace tztest
