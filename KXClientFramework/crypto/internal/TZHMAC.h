#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

struct evp_mac_ctx_st;

/// A running HMAC (OpenSSL EVP_MAC underneath), selected by the sealed formats' algorithm
/// numbers: 0 SHA-1, 1 MD5, 2 SHA-256, 3 SHA-384, 4 SHA-512, 5 SHA-224.
class TZHMAC {
public:
    /// Starts an HMAC keyed with `key`; null when the algorithm number is unknown or OpenSSL
    /// cannot provide it.
    static std::unique_ptr<TZHMAC> start(std::uint32_t algorithm,
                                         std::span<const std::uint8_t> key);

    /// Digest length of an algorithm number, or 0 when it is unknown.
    static std::size_t digestLength(std::uint32_t algorithm) noexcept;

    ~TZHMAC();
    TZHMAC(const TZHMAC&) = delete;
    TZHMAC& operator=(const TZHMAC&) = delete;

    void update(std::span<const std::uint8_t> data);

    /// Ends the HMAC and returns `length` bytes: the digest cut short, or followed by zero bytes
    /// when `length` is longer than the digest. The HMAC cannot be updated afterwards.
    std::vector<std::uint8_t> finish(std::size_t length);

    /// Starts again with the same key (cheaper than start(): the key pads are kept).
    bool restart();

    /// Ends the HMAC into `output` (at least digestLength bytes); returns the digest length.
    std::size_t finishInto(std::span<std::uint8_t> output);

private:
    TZHMAC() = default;
    evp_mac_ctx_st* context_ = nullptr;
    std::size_t digestLength_ = 0;
};
