#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/TZCryptorSettings.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

struct evp_cipher_ctx_st;

/// One streaming block-cipher operation (OpenSSL EVP underneath): AES in CBC or ECB mode, with
/// or without PKCS#7 padding, as the settings' `algorithm` and `options` say.
///
/// Failures are reported as KXError in kTZCryptorErrorDomain whose code is a TZCryptorStatus
/// and whose user info is null. Functions that can fail return an empty optional (or false)
/// and, when `error` is not null, store the error there.
///
/// The engine behaves like a cipher with one output buffer: addData() sizes that buffer for its
/// input plus the final block, and finishWithError() writes the final block into the buffer
/// as the last addData() left it. Finishing an encryption that never received data therefore
/// fails with TZCryptorStatusBufferTooSmall.
///
/// Not thread-safe; a cryptor uses its engine from its work queue only.
class KX_EXPORT TZCryptorEngine {
public:
    /// Creates an engine. `operation` chooses the direction; `key` must be 16, 24 or 32 bytes
    /// (AES-128/192/256, else TZCryptorStatusKeySizeError); in CBC mode the first 16 bytes of
    /// `IV` are used and a longer IV's tail is ignored (a shorter one is
    /// TZCryptorStatusParamError). An algorithm other than AES is TZCryptorStatusUnimplemented,
    /// unknown option bits TZCryptorStatusParamError. Returns null on failure.
    static std::unique_ptr<TZCryptorEngine> initWithOperation(TZCryptorOperation operation,
                                                              const TZCryptorSettings& settings,
                                                              std::span<const std::uint8_t> key,
                                                              std::span<const std::uint8_t> IV,
                                                              KXError* error = nullptr);

    ~TZCryptorEngine();
    TZCryptorEngine(const TZCryptorEngine&) = delete;
    TZCryptorEngine& operator=(const TZCryptorEngine&) = delete;

    /// Runs `data` through the cipher and returns what it produced (possibly nothing: the
    /// cipher holds back partial blocks, and a padded decryption its last block).
    std::optional<std::vector<std::uint8_t>> addData(std::span<const std::uint8_t> data,
                                                     KXError* error = nullptr);

    /// Produces the final block(s): padding on encryption, the unpadded last block on
    /// decryption. A wrong key shows here as TZCryptorStatusDecodeError (bad padding);
    /// ciphertext that does not end on a block boundary as TZCryptorStatusAlignmentError.
    std::optional<std::vector<std::uint8_t>> finishWithError(KXError* error = nullptr);

    /// The most bytes addData() can produce for `inputLength` bytes of input (and the most
    /// finishWithError() can produce: one block).
    static std::size_t maxOutputLength(std::size_t inputLength) noexcept;

    /// addData() writing into `output`, which must hold maxOutputLength(data.size()) bytes
    /// (else TZCryptorStatusBufferTooSmall). Returns the number of bytes written.
    std::optional<std::size_t> addData(std::span<const std::uint8_t> data,
                                       std::span<std::uint8_t> output, KXError* error);
    /// finishWithError() writing into `output`, which must hold one block. Returns the number
    /// of bytes written.
    std::optional<std::size_t> finishWithError(std::span<std::uint8_t> output, KXError* error);

    TZCryptorOperation operation() const noexcept { return operation_; }

private:
    TZCryptorEngine(TZCryptorOperation operation, bool padding);

    evp_cipher_ctx_st* context_ = nullptr;
    TZCryptorOperation operation_;
    bool padding_;
    bool finalized_ = false;
    // Bytes given to the cipher and bytes it produced so far; their difference is what it holds.
    std::uint64_t bytesIn_ = 0;
    std::uint64_t bytesOut_ = 0;
    // Length of the emulated output buffer as the last addData() sized it.
    std::uint64_t bufferLength_ = 0;
};
