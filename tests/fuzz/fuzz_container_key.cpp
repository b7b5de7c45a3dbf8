// The versioned container opened with keys: preamble and header parsing, the held-back HMAC,
// decryption and the HMAC check, whole and in pieces; and once more without an HMAC key.
#include "TZFuzzCommon.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t piece = tzfuzz::pieceSize(bytes[0]);
    const std::span<const std::uint8_t> data(bytes + 1, size - 1);

    KXError error;
    const auto whole =
        TZDecryptor::decryptData(data, tzfuzz::encryptionKey(), tzfuzz::HMACKey(), &error);
    const auto streamed = tzfuzz::runStreaming(
        [](TZCryptorHandler handler) {
            return TZDecryptor::initWithEncryptionKey(tzfuzz::encryptionKey(), tzfuzz::HMACKey(),
                                                      std::move(handler));
        },
        data, piece);
    tzfuzz::expectSameOutcome(whole, error, streamed);

    const auto unauthenticated = TZDecryptor::decryptData(data, tzfuzz::encryptionKey(),
                                                          std::span<const std::uint8_t>(), nullptr);
    if (unauthenticated && unauthenticated->size() > data.size()) {
        std::abort();
    }
    return 0;
}
