#include "crypto/internal/TZHMAC.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>
#include <array>
#include <climits>

namespace {

const char* digestName(std::uint32_t algorithm) noexcept {
    switch (algorithm) {
        case 0:
            return "SHA1";
        case 1:
            return "MD5";
        case 2:
            return "SHA256";
        case 3:
            return "SHA384";
        case 4:
            return "SHA512";
        case 5:
            return "SHA224";
        default:
            return nullptr;
    }
}

EVP_MAC* hmacAlgorithm() {
    static EVP_MAC* const mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    return mac;
}

constexpr std::size_t kMaxSlice = std::size_t{1} << 30;
// An empty key or message is passed as a valid pointer with length 0.
constexpr std::uint8_t kEmpty[1] = {0};

}  // namespace

std::size_t TZHMAC::digestLength(std::uint32_t algorithm) noexcept {
    switch (algorithm) {
        case 0:
            return 20;
        case 1:
            return 16;
        case 2:
            return 32;
        case 3:
            return 48;
        case 4:
            return 64;
        case 5:
            return 28;
        default:
            return 0;
    }
}

std::unique_ptr<TZHMAC> TZHMAC::start(std::uint32_t algorithm, std::span<const std::uint8_t> key) {
    const char* digest = digestName(algorithm);
    EVP_MAC* mac = hmacAlgorithm();
    if (digest == nullptr || mac == nullptr) {
        return nullptr;
    }
    std::unique_ptr<TZHMAC> hmac(new TZHMAC());
    hmac->context_ = EVP_MAC_CTX_new(mac);
    if (hmac->context_ == nullptr) {
        return nullptr;
    }
    OSSL_PARAM params[2] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>(digest), 0),
        OSSL_PARAM_construct_end()};
    if (EVP_MAC_init(hmac->context_, key.empty() ? kEmpty : key.data(), key.size(), params) != 1) {
        return nullptr;
    }
    hmac->digestLength_ = digestLength(algorithm);
    return hmac;
}

TZHMAC::~TZHMAC() {
    EVP_MAC_CTX_free(context_);
}

void TZHMAC::update(std::span<const std::uint8_t> data) {
    while (!data.empty()) {
        const std::size_t slice = std::min(data.size(), kMaxSlice);
        EVP_MAC_update(context_, data.data(), slice);
        data = data.subspan(slice);
    }
}

bool TZHMAC::restart() {
    return EVP_MAC_init(context_, nullptr, 0, nullptr) == 1;
}

std::size_t TZHMAC::finishInto(std::span<std::uint8_t> output) {
    std::size_t written = 0;
    if (EVP_MAC_final(context_, output.data(), &written, output.size()) != 1) {
        return 0;
    }
    return written;
}

std::vector<std::uint8_t> TZHMAC::finish(std::size_t length) {
    std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest{};
    const std::size_t written = finishInto(digest);
    std::vector<std::uint8_t> result(length, 0);
    std::copy_n(digest.data(), std::min(written, length), result.data());
    return result;
}
