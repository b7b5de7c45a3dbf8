#include <KXClientFramework/TZCryptorEngine.h>
#include <KXClientFramework/TZEncryptor.h>

#include "crypto/internal/TZCryptorErrors.h"
#include "crypto/internal/TZHMAC.h"
#include "crypto/internal/TZSecrets.h"
#include "crypto/internal/TZSettingsLimits.h"

#include <algorithm>

namespace {

std::size_t saturatingSum(std::initializer_list<std::uint64_t> values) {
    std::uint64_t sum = 0;
    for (const auto value : values) {
        sum = value > SIZE_MAX - sum ? SIZE_MAX : sum + value;
    }
    return static_cast<std::size_t>(sum);
}

}  // namespace

TZEncryptor::TZEncryptor(std::string className, TZCryptorHandler handler)
    : TZCryptor(std::move(className), std::move(handler)) {}

TZEncryptor::~TZEncryptor() = default;

// MARK: - Set-up

bool TZEncryptor::setUpWithKeys(const TZCryptorSettings& settings,
                                std::span<const std::uint8_t> encryptionKey,
                                std::span<const std::uint8_t> HMACKey,
                                std::span<const std::uint8_t> IV) {
    if (!TZSettingsAreUsable(settings)) {
        cleanupAndNotifyWithError(TZStatusError(TZCryptorStatusParamError));
        return false;
    }
    IV_.assign(IV.begin(), IV.end());
    if (!HMACKey.empty()) {
        HMAC_ = TZHMAC::start(settings.HMACAlgorithm, HMACKey);
        if (!HMAC_) {
            cleanupAndNotifyWithError(TZStatusError(TZCryptorStatusParamError));
            return false;
        }
        setHMACLength(settings.HMACLength);
    }
    KXError error;
    engine_ = TZCryptorEngine::initWithOperation(TZCryptorOperation::Encrypt, settings,
                                                 encryptionKey, IV, &error);
    if (!engine_) {
        cleanupAndNotifyWithError(error);
        return false;
    }
    return true;
}

bool TZEncryptor::setUpWithPassword(const TZCryptorSettings& settings, std::string_view password,
                                    std::span<const std::uint8_t> IV,
                                    std::span<const std::uint8_t> encryptionSalt,
                                    std::span<const std::uint8_t> HMACSalt) {
    if (!TZSettingsAreUsable(settings)) {
        cleanupAndNotifyWithError(TZStatusError(TZCryptorStatusParamError));
        return false;
    }
    auto encryptionKey = keyForPassword(password, encryptionSalt, settings.keySettings);
    auto HMACKey = keyForPassword(password, HMACSalt, settings.HMACKeySettings);
    const bool ready = setUpWithKeys(settings, encryptionKey, HMACKey, IV);
    TZWipe(encryptionKey);
    TZWipe(HMACKey);
    if (ready) {
        setOptions(static_cast<std::uint8_t>(options() | TZCryptorOptionHasPassword));
        encryptionSalt_.assign(encryptionSalt.begin(), encryptionSalt.end());
        HMACSalt_.assign(HMACSalt.begin(), HMACSalt.end());
    }
    return ready;
}

// MARK: - Factories

std::shared_ptr<TZEncryptor> TZEncryptor::initWithSettings(const TZCryptorSettings& settings,
                                                           std::string_view password,
                                                           TZCryptorHandler handler) {
    if (!TZSettingsAreUsable(settings)) {
        return initWithSettings(settings, password, {}, {}, {}, std::move(handler));  // fails
    }
    const auto IV = randomDataOfLength(settings.IVSize);
    const auto encryptionSalt = randomDataOfLength(settings.keySettings.saltSize);
    const auto HMACSalt = randomDataOfLength(settings.HMACKeySettings.saltSize);
    return initWithSettings(settings, password, IV, encryptionSalt, HMACSalt, std::move(handler));
}

std::shared_ptr<TZEncryptor> TZEncryptor::initWithSettings(
    const TZCryptorSettings& settings, std::string_view password, std::span<const std::uint8_t> IV,
    std::span<const std::uint8_t> encryptionSalt, std::span<const std::uint8_t> HMACSalt,
    TZCryptorHandler handler) {
    std::shared_ptr<TZEncryptor> encryptor(new TZEncryptor("TZEncryptor", std::move(handler)));
    return encryptor->setUpWithPassword(settings, password, IV, encryptionSalt, HMACSalt)
               ? encryptor
               : nullptr;
}

std::shared_ptr<TZEncryptor> TZEncryptor::initWithSettings(
    const TZCryptorSettings& settings, std::span<const std::uint8_t> encryptionKey,
    std::span<const std::uint8_t> HMACKey, TZCryptorHandler handler) {
    if (!TZSettingsAreUsable(settings)) {
        return initWithSettings(settings, encryptionKey, HMACKey, {}, std::move(handler));  // fails
    }
    const auto IV = randomDataOfLength(settings.IVSize);
    return initWithSettings(kTZCryptorAES256Settings, encryptionKey, HMACKey, IV,
                            std::move(handler));
}

std::shared_ptr<TZEncryptor> TZEncryptor::initWithSettings(
    const TZCryptorSettings& settings, std::span<const std::uint8_t> encryptionKey,
    std::span<const std::uint8_t> HMACKey, std::span<const std::uint8_t> IV,
    TZCryptorHandler handler) {
    std::shared_ptr<TZEncryptor> encryptor(new TZEncryptor("TZEncryptor", std::move(handler)));
    return encryptor->setUpWithKeys(settings, encryptionKey, HMACKey, IV) ? encryptor : nullptr;
}

std::optional<std::vector<std::uint8_t>> TZEncryptor::encryptData(
    std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
    std::string_view password, KXError* error) {
    if (!TZSettingsAreUsable(settings)) {
        return encryptData(data, settings, password, {}, {}, {}, error);  // reports the settings
    }
    const auto IV = randomDataOfLength(settings.IVSize);
    const auto encryptionSalt = randomDataOfLength(settings.keySettings.saltSize);
    const auto HMACSalt = randomDataOfLength(settings.HMACKeySettings.saltSize);
    return encryptData(data, settings, password, IV, encryptionSalt, HMACSalt, error);
}

std::optional<std::vector<std::uint8_t>> TZEncryptor::encryptData(
    std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
    std::string_view password, std::span<const std::uint8_t> IV,
    std::span<const std::uint8_t> encryptionSalt, std::span<const std::uint8_t> HMACSalt,
    KXError* error) {
    std::shared_ptr<TZEncryptor> encryptor(new TZEncryptor("TZEncryptor", {}));
    if (!encryptor->setUpWithPassword(settings, password, IV, encryptionSalt, HMACSalt)) {
        return failedSetUp(*encryptor, error);
    }
    return synchronousResultForCryptor(encryptor, data, error);
}

std::optional<std::vector<std::uint8_t>> TZEncryptor::encryptData(
    std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
    std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> HMACKey,
    KXError* error) {
    if (!TZSettingsAreUsable(settings)) {
        return encryptData(data, settings, encryptionKey, HMACKey, {},
                           error);  // reports the settings
    }
    const auto IV = randomDataOfLength(settings.IVSize);
    return encryptData(data, kTZCryptorAES256Settings, encryptionKey, HMACKey, IV, error);
}

std::optional<std::vector<std::uint8_t>> TZEncryptor::encryptData(
    std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
    std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> HMACKey,
    std::span<const std::uint8_t> IV, KXError* error) {
    std::shared_ptr<TZEncryptor> encryptor(new TZEncryptor("TZEncryptor", {}));
    if (!encryptor->setUpWithKeys(settings, encryptionKey, HMACKey, IV)) {
        return failedSetUp(*encryptor, error);
    }
    return synchronousResultForCryptor(encryptor, data, error);
}

// MARK: - Streaming

std::vector<std::uint8_t> TZEncryptor::header() const {
    std::vector<std::uint8_t> header{kTZCryptorFileVersion, options()};
    if ((options() & TZCryptorOptionHasPassword) != 0) {
        header.insert(header.end(), encryptionSalt_.begin(), encryptionSalt_.end());
        header.insert(header.end(), HMACSalt_.begin(), HMACSalt_.end());
    }
    header.insert(header.end(), IV_.begin(), IV_.end());
    return header;
}

std::size_t TZEncryptor::expectedOutputLength(std::size_t inputLength) const {
    return saturatingSum(
        {inputLength, header().size(), 2 * TZCryptorEngine::maxOutputLength(0), HMACLength()});
}

void TZEncryptor::addInput(Input input) {
    if (input.bytes.empty()) {
        encryptData(std::move(input));
        return;
    }
    for (std::size_t at = 0; at < input.bytes.size(); at += kChunkSize) {
        encryptData(input.subspan(at, std::min(kChunkSize, input.bytes.size() - at)));
    }
}

void TZEncryptor::encryptData(Input input) {
    auto self = std::static_pointer_cast<TZEncryptor>(shared_from_this());
    enqueue([self, input = std::move(input)] {
        if (!self->haveWrittenHeader_) {
            const auto header = self->header();
            self->appendOutput(header);
            if (self->hasHMAC()) {
                self->HMAC_->update(header);
            }
            self->haveWrittenHeader_ = true;
        }
        const std::size_t before = self->outputLength();
        KXError error;
        if (!self->engineUpdate(input.bytes, error)) {
            // Reported at once; the step still delivers whatever there is (to nobody now).
            self->cleanupAndNotifyWithError(error);
        }
        if (self->hasHMAC()) {
            self->HMAC_->update(self->outputFrom(before));
        }
        self->deliverOutput();
    });
}

void TZEncryptor::finish() {
    if (isFinished() || !markFinishCalled()) {
        return;
    }
    auto self = std::static_pointer_cast<TZEncryptor>(shared_from_this());
    enqueue([self] {
        const std::size_t before = self->outputLength();
        KXError error;
        const bool finalWritten = self->engineFinish(error);
        if (self->hasHMAC()) {
            self->HMAC_->update(self->outputFrom(before));
            self->appendOutput(self->HMAC_->finish(self->HMACLength()));
        }
        self->cleanupAndNotifyWithError(finalWritten ? std::nullopt
                                                     : std::optional<KXError>(error));
    });
}
