#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kxconfig {

/// A failure to report on standard error with exit status 1.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class Format { Salted, Version3 };

/// How data is sealed: a password, or raw keys (hexadecimal on the command line).
struct Keys {
    std::optional<std::string> password;
    std::vector<std::uint8_t> key;
    std::vector<std::uint8_t> hmacKey;
    std::vector<std::uint8_t> iv;
};

/// "00ff" -> {0x00, 0xff}; throws Failure on odd lengths or non-hex characters.
std::vector<std::uint8_t> parseHex(const std::string& text, const char* what);

/// Runs the library's encryptor or decryptor of `format` over `input`. Throws Failure carrying
/// the library's error text when the data does not open.
std::vector<std::uint8_t> encrypt(Format format, const Keys& keys,
                                  const std::vector<std::uint8_t>& input);
std::vector<std::uint8_t> decrypt(Format format, const Keys& keys,
                                  const std::vector<std::uint8_t>& input);

}  // namespace kxconfig
