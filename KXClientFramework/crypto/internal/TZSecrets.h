#pragma once

#include <openssl/crypto.h>

#include <optional>
#include <string>
#include <vector>

// Overwrites key material before it is released.

inline void TZWipe(std::vector<std::uint8_t>& bytes) {
    if (!bytes.empty()) {
        OPENSSL_cleanse(bytes.data(), bytes.size());
    }
    bytes.clear();
}

inline void TZWipe(std::string& text) {
    if (!text.empty()) {
        OPENSSL_cleanse(text.data(), text.size());
    }
    text.clear();
}

inline void TZWipe(std::optional<std::string>& text) {
    if (text) {
        TZWipe(*text);
        text.reset();
    }
}
