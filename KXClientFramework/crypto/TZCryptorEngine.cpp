#include <KXClientFramework/TZCryptorEngine.h>

#include "crypto/internal/TZCryptorErrors.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <climits>

namespace {

constexpr std::size_t kAESBlockSize = 16;
constexpr std::uint32_t kAlgorithmAES = 0;
constexpr std::uint32_t kOptionPKCS7Padding = 1;
constexpr std::uint32_t kOptionECBMode = 2;
// EVP takes lengths as int; larger inputs go through in slices of this size.
constexpr std::size_t kMaxSlice = std::size_t{1} << 30;

// The AES ciphers, fetched once: index (key length / 8 - 2) * 2 + (ECB ? 1 : 0).
const EVP_CIPHER* aesCipher(std::size_t keyLength, bool ecb) {
    static const std::array<EVP_CIPHER*, 6> ciphers = [] {
        std::array<EVP_CIPHER*, 6> fetched{};
        const char* names[6] = {"AES-128-CBC", "AES-128-ECB", "AES-192-CBC",
                                "AES-192-ECB", "AES-256-CBC", "AES-256-ECB"};
        for (std::size_t i = 0; i < fetched.size(); ++i) {
            fetched[i] = EVP_CIPHER_fetch(nullptr, names[i], nullptr);
        }
        return fetched;
    }();
    std::size_t index = 0;
    switch (keyLength) {
        case 16:
            index = 0;
            break;
        case 24:
            index = 2;
            break;
        case 32:
            index = 4;
            break;
        default:
            return nullptr;
    }
    return ciphers[index + (ecb ? 1 : 0)];
}

}  // namespace

TZCryptorEngine::TZCryptorEngine(TZCryptorOperation operation, bool padding)
    : operation_(operation), padding_(padding) {}

TZCryptorEngine::~TZCryptorEngine() {
    EVP_CIPHER_CTX_free(context_);
}

std::unique_ptr<TZCryptorEngine> TZCryptorEngine::initWithOperation(
    TZCryptorOperation operation, const TZCryptorSettings& settings,
    std::span<const std::uint8_t> key, std::span<const std::uint8_t> IV, KXError* error) {
    if (settings.algorithm != kAlgorithmAES) {
        TZReportError(error, TZStatusError(TZCryptorStatusUnimplemented));
        return nullptr;
    }
    if ((settings.options & ~(kOptionPKCS7Padding | kOptionECBMode)) != 0 ||
        (operation != TZCryptorOperation::Encrypt && operation != TZCryptorOperation::Decrypt)) {
        TZReportError(error, TZStatusError(TZCryptorStatusParamError));
        return nullptr;
    }
    const bool ecb = (settings.options & kOptionECBMode) != 0;
    const EVP_CIPHER* cipher = aesCipher(key.size(), ecb);
    if (cipher == nullptr) {
        TZReportError(error, TZStatusError(key.size() == 16 || key.size() == 24 || key.size() == 32
                                               ? TZCryptorStatusUnimplemented
                                               : TZCryptorStatusKeySizeError));
        return nullptr;
    }
    // CBC reads one block of IV; more is allowed and ignored, less would be read past its end.
    if (!ecb && IV.size() < kAESBlockSize) {
        TZReportError(error, TZStatusError(TZCryptorStatusParamError));
        return nullptr;
    }

    std::unique_ptr<TZCryptorEngine> engine(
        new TZCryptorEngine(operation, (settings.options & kOptionPKCS7Padding) != 0));
    engine->context_ = EVP_CIPHER_CTX_new();
    if (engine->context_ == nullptr) {
        TZReportError(error, TZStatusError(TZCryptorStatusMemoryFailure));
        return nullptr;
    }
    const int encrypt = operation == TZCryptorOperation::Encrypt ? 1 : 0;
    if (EVP_CipherInit_ex2(engine->context_, cipher, key.data(), ecb ? nullptr : IV.data(), encrypt,
                           nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(engine->context_, engine->padding_ ? 1 : 0) != 1) {
        TZReportError(error, TZStatusError(TZCryptorStatusUnspecifiedError));
        return nullptr;
    }
    return engine;
}

std::size_t TZCryptorEngine::maxOutputLength(std::size_t inputLength) noexcept {
    return inputLength > SIZE_MAX - kAESBlockSize ? SIZE_MAX : inputLength + kAESBlockSize;
}

std::optional<std::size_t> TZCryptorEngine::addData(std::span<const std::uint8_t> data,
                                                    std::span<std::uint8_t> output,
                                                    KXError* error) {
    if (finalized_) {
        TZReportError(error, TZStatusError(TZCryptorStatusCallSequenceError));
        return std::nullopt;
    }
    if (output.size() < maxOutputLength(data.size())) {
        TZReportError(error, TZStatusError(TZCryptorStatusBufferTooSmall));
        return std::nullopt;
    }

    // The output buffer is sized as if this were the last input, so that it also covers the
    // final block: a padded encryption adds a whole block, everything else at most what it holds.
    const std::uint64_t held = bytesIn_ - bytesOut_;
    const std::uint64_t total = held + data.size();
    bufferLength_ = (operation_ == TZCryptorOperation::Encrypt && padding_)
                        ? (total / kAESBlockSize + 1) * kAESBlockSize
                        : total;

    std::size_t written = 0;
    while (!data.empty()) {
        const std::size_t slice = std::min(data.size(), kMaxSlice);
        int produced = 0;
        if (EVP_CipherUpdate(context_, output.data() + written, &produced, data.data(),
                             static_cast<int>(slice)) != 1 ||
            produced < 0) {
            TZReportError(error, TZStatusError(TZCryptorStatusUnspecifiedError));
            return std::nullopt;
        }
        written += static_cast<std::size_t>(produced);
        bytesIn_ += slice;
        data = data.subspan(slice);
    }
    bytesOut_ += written;
    return written;
}

std::optional<std::size_t> TZCryptorEngine::finishWithError(std::span<std::uint8_t> output,
                                                            KXError* error) {
    if (finalized_) {
        TZReportError(error, TZStatusError(TZCryptorStatusCallSequenceError));
        return std::nullopt;
    }
    finalized_ = true;

    const std::uint64_t held = bytesIn_ - bytesOut_;
    std::array<std::uint8_t, 2 * kAESBlockSize> block{};
    int produced = 0;
    if (EVP_CipherFinal_ex(context_, block.data(), &produced) != 1 || produced < 0) {
        // Without padding, or on decryption, a partial block at the end is an alignment fault;
        // a whole last block that does not unpad is a decode fault (typically the wrong key).
        const bool partial = held % kAESBlockSize != 0 ||
                             (operation_ == TZCryptorOperation::Decrypt && padding_ && held == 0);
        TZReportError(error, TZStatusError(partial ? TZCryptorStatusAlignmentError
                                                   : TZCryptorStatusDecodeError));
        return std::nullopt;
    }
    const std::size_t length = static_cast<std::size_t>(produced);
    if (length > output.size() || length > bufferLength_) {
        TZReportError(error, TZStatusError(TZCryptorStatusBufferTooSmall));
        return std::nullopt;
    }
    std::copy_n(block.data(), length, output.data());
    bytesOut_ += length;
    return length;
}

std::optional<std::vector<std::uint8_t>> TZCryptorEngine::addData(
    std::span<const std::uint8_t> data, KXError* error) {
    std::vector<std::uint8_t> output(maxOutputLength(data.size()));
    const auto written = addData(data, output, error);
    if (!written) {
        return std::nullopt;
    }
    output.resize(*written);
    return output;
}

std::optional<std::vector<std::uint8_t>> TZCryptorEngine::finishWithError(KXError* error) {
    std::vector<std::uint8_t> output(kAESBlockSize);
    const auto written = finishWithError(output, error);
    if (!written) {
        return std::nullopt;
    }
    output.resize(*written);
    return output;
}
