#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/TZCryptor.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tztest {

using Bytes = std::vector<std::uint8_t>;
/// The default settings: AES-256-CBC, HMAC-SHA256, PBKDF2-SHA1 with 10000 rounds.
inline constexpr const TZCryptorSettings& kAES = kTZCryptorAES256Settings;

Bytes bytesOf(std::string_view text);
/// `length` bytes of a fixed pseudo-random sequence chosen by `seed`.
Bytes patternBytes(std::size_t length, std::uint32_t seed = 1);
/// Upper-case hexadecimal, as the openssl tool prints keys.
std::string hex(std::span<const std::uint8_t> bytes);
Bytes concat(std::initializer_list<std::span<const std::uint8_t>> parts);

struct ToolResult {
    int status = -1;
    Bytes output;  // standard output
    std::string errors;
};

/// Runs `openssl <arguments> -in <file of input>` (arguments split at spaces). The password,
/// when given, is passed in the environment variable KX_TEST_PASSWORD so that any bytes
/// survive; refer to it with `-pass env:KX_TEST_PASSWORD`.
ToolResult openssl(const std::string& arguments, std::span<const std::uint8_t> input,
                   const std::string* password = nullptr);

/// Raw OpenSSL: PBKDF2 (PKCS5_PBKDF2_HMAC), HMAC and AES-CBC encryption with PKCS#7 padding.
Bytes pbkdf2(std::string_view password, std::span<const std::uint8_t> salt, unsigned rounds,
             std::size_t length, const char* digest = "SHA1");
Bytes hmac(const char* digest, std::span<const std::uint8_t> key,
           std::span<const std::uint8_t> data);
Bytes aesCBC(std::span<const std::uint8_t> key, std::span<const std::uint8_t> IV,
             std::span<const std::uint8_t> data);

/// Success when nothing came out and `error` is `code` of the cryptor domain, with the text
/// `description` when one is given and no user info at all when `description` is "".
testing::AssertionResult failedWith(const std::optional<Bytes>& result, const KXError& error,
                                    std::int64_t code, const char* description = nullptr);

/// Collects what a streaming cryptor hands to its handler, chunk by chunk, and how it ended.
struct Collector {
    std::mutex mutex;
    std::condition_variable changed;
    Bytes output;
    std::vector<Bytes> chunks;
    bool finished = false;
    bool everOffQueue = false;
    bool calledAfterFinishing = false;
    std::optional<KXError> error;

    TZCryptorHandler handler() {
        return [this](TZCryptor& cryptor, std::span<const std::uint8_t> data) {
            std::lock_guard lock(mutex);
            everOffQueue |= !cryptor.responseQueue().running_in_this_thread();
            calledAfterFinishing |= finished;
            output.insert(output.end(), data.begin(), data.end());
            chunks.emplace_back(data.begin(), data.end());
            if (cryptor.isFinished()) {
                finished = true;
                error = cryptor.error();
                changed.notify_all();
            }
        };
    }

    bool waitUntilFinished() {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(60), [this] { return finished; });
    }

    /// Feeds `input` to `cryptor` in one piece, finishes it and waits for its last call.
    bool run(TZCryptor& cryptor, std::span<const std::uint8_t> input) {
        cryptor.addData(input);
        cryptor.finish();
        return waitUntilFinished();
    }
};

}  // namespace tztest
