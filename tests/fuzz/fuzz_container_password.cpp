// The versioned container opened with a password (versions 2 and 3, salts in the header, keys
// from PBKDF2 with one round so that each input is cheap), whole and in pieces.
#include "TZFuzzCommon.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t piece = bytes[0] % 64 + 1;
    const std::span<const std::uint8_t> data(bytes + 1, size - 1);
    const TZCryptorSettings settings = tzfuzz::passwordSettings();

    KXError error;
    const auto whole = TZDecryptor::decryptData(data, settings, tzfuzz::kPassword, &error);
    const auto streamed = tzfuzz::runStreaming(
        [&settings](TZCryptorHandler handler) {
            auto decryptor = TZDecryptor::initWithPassword(tzfuzz::kPassword, std::move(handler));
            decryptor->setSettings(settings);
            return decryptor;
        },
        data, piece);
    tzfuzz::expectSameOutcome(whole, error, streamed);
    return 0;
}
