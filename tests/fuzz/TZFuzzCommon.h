#pragma once

// What the sealed-data fuzz targets and their seed generator share: the fixed keys and
// password, and the differential check that runs one input through a cryptor whole and in
// pieces.
//
// Input layout of every sealed-data target: one byte choosing the piece size of the streaming
// run (see pieceSize), then the data to decrypt.

#include <KXClientFramework/TZDecryptor.h>
#include <KXClientFramework/TZOpenSSLDecryptor.h>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace tzfuzz {

inline const std::vector<std::uint8_t>& encryptionKey() {
    static const std::vector<std::uint8_t> key(32, 0x4B);
    return key;
}

inline const std::vector<std::uint8_t>& HMACKey() {
    static const std::vector<std::uint8_t> key(32, 0x48);
    return key;
}

inline const std::vector<std::uint8_t>& saltedIV() {
    static const std::vector<std::uint8_t> IV(16, 0x49);
    return IV;
}

inline constexpr const char* kPassword = "fuzz password";

/// The piece size of the streaming run chosen by the input's first byte: mostly small pieces,
/// which cut headers apart, and some large ones, so that a run stays quick.
inline std::size_t pieceSize(std::uint8_t choice) {
    static constexpr std::size_t kSizes[] = {1, 2, 3, 5, 7, 16, 17, 33, 64, 100, 256, 4096};
    return kSizes[choice % (sizeof(kSizes) / sizeof(kSizes[0]))];
}

/// kTZCryptorAES256Settings with one PBKDF2 round, so that password containers are cheap to
/// open. Everything else about them is the same.
inline TZCryptorSettings passwordSettings() {
    TZCryptorSettings settings = kTZCryptorAES256Settings;
    settings.keySettings.rounds = 1;
    settings.HMACKeySettings.rounds = 1;
    return settings;
}

struct Outcome {
    std::vector<std::uint8_t> output;
    std::optional<KXError> error;
};

/// Feeds `data` to a streaming cryptor in pieces of `piece` bytes and waits for its last
/// handler call.
inline Outcome runStreaming(const std::function<std::shared_ptr<TZCryptor>(TZCryptorHandler)>& make,
                            std::span<const std::uint8_t> data, std::size_t piece) {
    struct State {
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
        Outcome outcome;
    };
    auto state = std::make_shared<State>();
    auto cryptor = make([state](TZCryptor& cryptor, std::span<const std::uint8_t> chunk) {
        std::lock_guard lock(state->mutex);
        state->outcome.output.insert(state->outcome.output.end(), chunk.begin(), chunk.end());
        if (cryptor.isFinished()) {
            state->outcome.error = cryptor.error();
            state->finished = true;
            state->done.notify_all();
        }
    });
    if (!cryptor) {
        std::abort();
    }
    for (std::size_t at = 0; at < data.size(); at += piece) {
        cryptor->addData(data.subspan(at, std::min(piece, data.size() - at)));
    }
    cryptor->finish();
    std::unique_lock lock(state->mutex);
    state->done.wait(lock, [&] { return state->finished; });
    return std::move(state->outcome);
}

/// The whole-input result and the streamed one must agree: same error code, and the same
/// output when there is no error.
inline void expectSameOutcome(const std::optional<std::vector<std::uint8_t>>& whole,
                              const KXError& wholeError, const Outcome& streamed) {
    if (whole.has_value() != !streamed.error.has_value()) {
        std::fprintf(stderr, "whole input %s, streamed input %s\n", whole ? "succeeded" : "failed",
                     streamed.error ? "failed" : "succeeded");
        std::abort();
    }
    if (whole && *whole != streamed.output) {
        std::fprintf(stderr, "whole and streamed outputs differ\n");
        std::abort();
    }
    if (!whole &&
        (wholeError.code != streamed.error->code || wholeError.domain != streamed.error->domain)) {
        std::fprintf(stderr, "whole input error %lld, streamed %lld\n",
                     static_cast<long long>(wholeError.code),
                     static_cast<long long>(streamed.error->code));
        std::abort();
    }
}

}  // namespace tzfuzz
