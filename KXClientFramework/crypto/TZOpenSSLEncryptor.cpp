#include <KXClientFramework/TZCryptorEngine.h>
#include <KXClientFramework/TZOpenSSLEncryptor.h>

#include "crypto/internal/TZCryptorErrors.h"
#include "crypto/internal/TZSecrets.h"
#include "crypto/internal/TZSettingsLimits.h"

#include <cstring>

TZOpenSSLEncryptor::TZOpenSSLEncryptor(TZCryptorHandler handler)
    : TZEncryptor("TZOpenSSLEncryptor", std::move(handler)) {}

bool TZOpenSSLEncryptor::setUpWithKeyAndIV(const TZCryptorSettings& settings,
                                           std::span<const std::uint8_t> encryptionKey,
                                           std::span<const std::uint8_t> IV) {
    KXError error;
    engine_ = TZCryptorEngine::initWithOperation(TZCryptorOperation::Encrypt, settings,
                                                 encryptionKey, IV, &error);
    if (!engine_) {
        cleanupAndNotifyWithError(error);
        return false;
    }
    return true;
}

bool TZOpenSSLEncryptor::setUpWithPassword(const TZCryptorSettings& settings,
                                           std::string_view password) {
    if (!TZKeySettingsAreUsable(settings.keySettings)) {
        cleanupAndNotifyWithError(TZStatusError(TZCryptorStatusParamError));
        return false;
    }
    const auto salt = randomDataOfLength(settings.keySettings.saltSize);
    auto key = TZOpenSSLCryptorGetKey(password, salt, settings.keySettings);
    auto IV = TZOpenSSLCryptorGetIV(key, password, salt, settings.keySettings);
    const bool ready = setUpWithKeyAndIV(settings, key, IV);
    TZWipe(key);
    TZWipe(IV);
    if (ready) {
        setOptions(static_cast<std::uint8_t>(options() | TZCryptorOptionHasPassword));
        encryptionSalt_ = salt;
    }
    return ready;
}

std::shared_ptr<TZOpenSSLEncryptor> TZOpenSSLEncryptor::initWithSettings(
    const TZCryptorSettings& settings, std::string_view password, TZCryptorHandler handler) {
    std::shared_ptr<TZOpenSSLEncryptor> encryptor(new TZOpenSSLEncryptor(std::move(handler)));
    return encryptor->setUpWithPassword(settings, password) ? encryptor : nullptr;
}

std::shared_ptr<TZOpenSSLEncryptor> TZOpenSSLEncryptor::initWithSettings(
    const TZCryptorSettings& settings, std::span<const std::uint8_t> encryptionKey,
    std::span<const std::uint8_t> IV, TZCryptorHandler handler) {
    std::shared_ptr<TZOpenSSLEncryptor> encryptor(new TZOpenSSLEncryptor(std::move(handler)));
    return encryptor->setUpWithKeyAndIV(settings, encryptionKey, IV) ? encryptor : nullptr;
}

std::optional<std::vector<std::uint8_t>> TZOpenSSLEncryptor::encryptData(
    std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
    std::string_view password, KXError* error) {
    std::shared_ptr<TZOpenSSLEncryptor> encryptor(new TZOpenSSLEncryptor({}));
    if (!encryptor->setUpWithPassword(settings, password)) {
        return failedSetUp(*encryptor, error);
    }
    return synchronousResultForCryptor(encryptor, data, error);
}

std::optional<std::vector<std::uint8_t>> TZOpenSSLEncryptor::encryptData(
    std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
    std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> IV, KXError* error) {
    std::shared_ptr<TZOpenSSLEncryptor> encryptor(new TZOpenSSLEncryptor({}));
    if (!encryptor->setUpWithKeyAndIV(settings, encryptionKey, IV)) {
        return failedSetUp(*encryptor, error);
    }
    return synchronousResultForCryptor(encryptor, data, error);
}

std::vector<std::uint8_t> TZOpenSSLEncryptor::header() const {
    if ((options() & TZCryptorOptionHasPassword) == 0) {
        return {};
    }
    std::vector<std::uint8_t> header(
        kTZCryptorOpenSSLSaltedString,
        kTZCryptorOpenSSLSaltedString + std::strlen(kTZCryptorOpenSSLSaltedString));
    header.insert(header.end(), encryptionSalt_.begin(), encryptionSalt_.end());
    return header;
}
