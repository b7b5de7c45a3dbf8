#include "KXSealing.h"

#include <KXClientFramework/TZDecryptor.h>
#include <KXClientFramework/TZEncryptor.h>
#include <KXClientFramework/TZOpenSSLDecryptor.h>
#include <KXClientFramework/TZOpenSSLEncryptor.h>

namespace kxconfig {
namespace {

[[noreturn]] void fail(const char* what, const KXError& error, bool opening) {
    // When data does not open, the library's text only names a code; say what it means.
    const bool withoutMessage = error.localizedDescription().rfind("The operation", 0) == 0;
    throw Failure(std::string(what) +
                  (opening && withoutMessage ? " (wrong key or damaged file): " : ": ") +
                  error.localizedDescription() + " (" + error.domain + " " +
                  std::to_string(error.code) + ")");
}

std::vector<std::uint8_t> result(std::optional<std::vector<std::uint8_t>> output,
                                 const KXError& error, const char* what, bool opening = false) {
    if (!output) {
        fail(what, error, opening);
    }
    return std::move(*output);
}

}  // namespace

std::vector<std::uint8_t> parseHex(const std::string& text, const char* what) {
    auto nibble = [&](char c) -> std::uint8_t {
        if (c >= '0' && c <= '9') {
            return static_cast<std::uint8_t>(c - '0');
        }
        if (c >= 'a' && c <= 'f') {
            return static_cast<std::uint8_t>(c - 'a' + 10);
        }
        if (c >= 'A' && c <= 'F') {
            return static_cast<std::uint8_t>(c - 'A' + 10);
        }
        throw Failure(std::string(what) + " is not hexadecimal");
    };
    if (text.size() % 2 != 0) {
        throw Failure(std::string(what) + " has an odd number of hexadecimal digits");
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(nibble(text[i]) << 4 | nibble(text[i + 1])));
    }
    return bytes;
}

std::vector<std::uint8_t> decrypt(Format format, const Keys& keys,
                                  const std::vector<std::uint8_t>& input) {
    KXError error;
    if (format == Format::Salted) {
        if (keys.password) {
            return result(TZOpenSSLDecryptor::decryptData(input, kTZCryptorAES256Settings,
                                                          *keys.password, &error),
                          error, "cannot open the sealed data", true);
        }
        return result(TZOpenSSLDecryptor::decryptData(input, kTZCryptorAES256Settings, keys.key,
                                                      keys.iv, &error),
                      error, "cannot decrypt", true);
    }
    if (keys.password) {
        return result(TZDecryptor::decryptData(input, *keys.password, &error), error,
                      "cannot open the container", true);
    }
    return result(TZDecryptor::decryptData(input, keys.key, keys.hmacKey, &error), error,
                  "cannot open the container", true);
}

std::vector<std::uint8_t> encrypt(Format format, const Keys& keys,
                                  const std::vector<std::uint8_t>& input) {
    KXError error;
    if (format == Format::Salted) {
        if (keys.password) {
            return result(TZOpenSSLEncryptor::encryptData(input, kTZCryptorAES256Settings,
                                                          *keys.password, &error),
                          error, "cannot seal");
        }
        return result(TZOpenSSLEncryptor::encryptData(input, kTZCryptorAES256Settings, keys.key,
                                                      keys.iv, &error),
                      error, "cannot encrypt");
    }
    if (keys.password) {
        return result(
            TZEncryptor::encryptData(input, kTZCryptorAES256Settings, *keys.password, &error),
            error, "cannot seal");
    }
    return result(
        TZEncryptor::encryptData(input, kTZCryptorAES256Settings, keys.key, keys.hmacKey, &error),
        error, "cannot seal");
}

}  // namespace kxconfig
