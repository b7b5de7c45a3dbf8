#include <KXClientFramework/TZCryptorEngine.h>
#include <KXClientFramework/TZOpenSSLDecryptor.h>

#include "crypto/internal/TZCryptorErrors.h"
#include "crypto/internal/TZSecrets.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t kSaltedStringLength = 8;

}  // namespace

TZOpenSSLDecryptor::TZOpenSSLDecryptor(TZCryptorHandler handler)
    : TZDecryptor("TZOpenSSLDecryptor", std::move(handler)) {}

// MARK: - Factories

std::shared_ptr<TZOpenSSLDecryptor> TZOpenSSLDecryptor::initWithSettings(
    const TZCryptorSettings& settings, std::string_view password, TZCryptorHandler handler) {
    std::shared_ptr<TZOpenSSLDecryptor> decryptor(new TZOpenSSLDecryptor(std::move(handler)));
    decryptor->password_ = std::string(password);
    decryptor->setSettings(settings);
    return decryptor;
}

std::shared_ptr<TZOpenSSLDecryptor> TZOpenSSLDecryptor::makeWithKey(
    const TZCryptorSettings& settings, std::span<const std::uint8_t> encryptionKey,
    std::span<const std::uint8_t> IV, TZCryptorHandler handler) {
    std::shared_ptr<TZOpenSSLDecryptor> decryptor(new TZOpenSSLDecryptor(std::move(handler)));
    decryptor->setSettings(settings);
    KXError error;
    decryptor->engine_ = TZCryptorEngine::initWithOperation(TZCryptorOperation::Decrypt, settings,
                                                            encryptionKey, IV, &error);
    if (!decryptor->engine_) {
        decryptor->cleanupAndNotifyWithError(error);
    }
    return decryptor;
}

std::shared_ptr<TZOpenSSLDecryptor> TZOpenSSLDecryptor::initWithSettings(
    const TZCryptorSettings& settings, std::span<const std::uint8_t> encryptionKey,
    std::span<const std::uint8_t> IV, TZCryptorHandler handler) {
    auto decryptor = makeWithKey(settings, encryptionKey, IV, std::move(handler));
    return decryptor->engine_ ? decryptor : nullptr;
}

std::shared_ptr<TZOpenSSLDecryptor> TZOpenSSLDecryptor::initWithEncryptionKey(
    std::span<const std::uint8_t>, std::span<const std::uint8_t>, TZCryptorHandler) {
    return nullptr;
}

std::shared_ptr<TZOpenSSLDecryptor> TZOpenSSLDecryptor::initWithPassword(std::string_view,
                                                                         TZCryptorHandler) {
    return nullptr;
}

std::optional<std::vector<std::uint8_t>> TZOpenSSLDecryptor::decryptData(
    std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
    std::string_view password, KXError* error) {
    return synchronousResultForCryptor(initWithSettings(settings, password, {}), data, error);
}

std::optional<std::vector<std::uint8_t>> TZOpenSSLDecryptor::decryptData(
    std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
    std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> IV, KXError* error) {
    auto decryptor = makeWithKey(settings, encryptionKey, IV, {});
    if (!decryptor->engine_) {
        return failedSetUp(*decryptor, error);
    }
    return synchronousResultForCryptor(decryptor, data, error);
}

std::optional<std::vector<std::uint8_t>> TZOpenSSLDecryptor::decryptData(
    std::span<const std::uint8_t>, std::string_view, KXError*) {
    return std::nullopt;
}

std::optional<std::vector<std::uint8_t>> TZOpenSSLDecryptor::decryptData(
    std::span<const std::uint8_t>, std::span<const std::uint8_t>, std::span<const std::uint8_t>,
    KXError*) {
    return std::nullopt;
}

// MARK: - Header

void TZOpenSSLDecryptor::consumeHeaderFromData(std::vector<std::uint8_t>& data) {
    const TZCryptorSettings settings = this->settings();
    const std::uint64_t saltSize = settings.keySettings.saltSize;
    if (saltSize > UINT64_MAX - kSaltedStringLength ||
        data.size() < kSaltedStringLength + saltSize) {
        return;
    }

    const auto magic = TZConsumeToIndex(data, kSaltedStringLength);
    if (std::memcmp(magic.data(), kTZCryptorOpenSSLSaltedString, kSaltedStringLength) != 0) {
        // Reported at once; the rest is still run through the cipher (its output goes nowhere).
        cleanupAndNotifyWithError(TZUnknownHeaderError());
    }
    const auto salt = TZConsumeToIndex(data, saltSize);

    const std::string_view password = password_ ? std::string_view(*password_) : std::string_view();
    auto key = TZOpenSSLCryptorGetKey(password, salt, settings.keySettings);
    auto IV = TZOpenSSLCryptorGetIV(key, password, salt, settings.keySettings);
    TZWipe(password_);

    KXError error;
    engine_ =
        TZCryptorEngine::initWithOperation(TZCryptorOperation::Decrypt, settings, key, IV, &error);
    TZWipe(key);
    TZWipe(IV);
    if (!engine_) {
        cleanupAndNotifyWithError(error);
    }
}
