// OpenSSL's salted format: header parsing, key derivation and decryption of arbitrary bytes,
// whole and in pieces, with a password and with a raw key and IV.
#include "TZFuzzCommon.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t piece = tzfuzz::pieceSize(bytes[0]);
    const std::span<const std::uint8_t> data(bytes + 1, size - 1);

    KXError error;
    const auto whole =
        TZOpenSSLDecryptor::decryptData(data, kTZCryptorAES256Settings, tzfuzz::kPassword, &error);
    const auto streamed = tzfuzz::runStreaming(
        [](TZCryptorHandler handler) {
            return TZOpenSSLDecryptor::initWithSettings(kTZCryptorAES256Settings, tzfuzz::kPassword,
                                                        std::move(handler));
        },
        data, piece);
    tzfuzz::expectSameOutcome(whole, error, streamed);

    KXError rawError;
    const auto raw = TZOpenSSLDecryptor::decryptData(
        data, kTZCryptorAES256Settings, tzfuzz::encryptionKey(), tzfuzz::saltedIV(), &rawError);
    if (raw && raw->size() > data.size()) {
        std::abort();  // decryption never produces more than it was given
    }
    return 0;
}
