#include <KXClientFramework/TZCryptorEngine.h>
#include <KXClientFramework/TZDecryptor.h>

#include "crypto/internal/TZCryptorErrors.h"
#include "crypto/internal/TZHMAC.h"
#include "crypto/internal/TZSecrets.h"
#include "crypto/internal/TZSettingsLimits.h"

#include <algorithm>

namespace {

// Until the header has been parsed, input is buffered and offered to the header parser in
// slices of this size, so a large first piece is never copied whole.
constexpr std::size_t kHeaderSlice = 4096;

std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) {
    return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

}  // namespace

TZDecryptor::TZDecryptor(std::string className, TZCryptorHandler handler)
    : TZCryptor(std::move(className), std::move(handler)) {}

TZDecryptor::~TZDecryptor() {
    TZWipe(encryptionKey_);
    TZWipe(HMACKey_);
    TZWipe(password_);
}

// MARK: - Factories

std::shared_ptr<TZDecryptor> TZDecryptor::initWithEncryptionKey(
    std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> HMACKey,
    TZCryptorHandler handler) {
    std::shared_ptr<TZDecryptor> decryptor(new TZDecryptor("TZDecryptor", std::move(handler)));
    decryptor->encryptionKey_.assign(encryptionKey.begin(), encryptionKey.end());
    decryptor->HMACKey_.assign(HMACKey.begin(), HMACKey.end());
    return decryptor;
}

std::shared_ptr<TZDecryptor> TZDecryptor::initWithPassword(std::string_view password,
                                                           TZCryptorHandler handler) {
    auto decryptor = initWithEncryptionKey({}, {}, std::move(handler));
    decryptor->password_ = std::string(password);
    return decryptor;
}

std::optional<std::vector<std::uint8_t>> TZDecryptor::decryptData(
    std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
    std::string_view password, KXError* error) {
    auto decryptor = initWithPassword(password, {});
    decryptor->setSettings(settings);
    return synchronousResultForCryptor(decryptor, data, error);
}

std::optional<std::vector<std::uint8_t>> TZDecryptor::decryptData(
    std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
    std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> HMACKey,
    KXError* error) {
    auto decryptor = initWithEncryptionKey(encryptionKey, HMACKey, {});
    decryptor->setSettings(settings);
    return synchronousResultForCryptor(decryptor, data, error);
}

std::optional<std::vector<std::uint8_t>> TZDecryptor::decryptData(
    std::span<const std::uint8_t> data, std::string_view password, KXError* error) {
    return decryptData(data, kTZCryptorAES256Settings, password, error);
}

std::optional<std::vector<std::uint8_t>> TZDecryptor::decryptData(
    std::span<const std::uint8_t> data, std::span<const std::uint8_t> encryptionKey,
    std::span<const std::uint8_t> HMACKey, KXError* error) {
    return decryptData(data, kTZCryptorAES256Settings, encryptionKey, HMACKey, error);
}

// MARK: - Properties

TZCryptorSettings TZDecryptor::settings() const {
    std::lock_guard lock(settingsMutex_);
    return settings_;
}

void TZDecryptor::setSettings(const TZCryptorSettings& settings) {
    std::lock_guard lock(settingsMutex_);
    settings_ = settings;
}

bool TZDecryptor::hasV1HMAC() const {
    std::lock_guard lock(settingsMutex_);
    return hasV1HMAC_;
}

void TZDecryptor::setHasV1HMAC(bool hasV1HMAC) {
    std::lock_guard lock(settingsMutex_);
    hasV1HMAC_ = hasV1HMAC;
}

// MARK: - Streaming

void TZDecryptor::addInput(Input input) {
    std::size_t offset = 0;
    if (!engine_) {
        do {
            const std::size_t slice = std::min(input.bytes.size() - offset, kHeaderSlice);
            inData_.insert(inData_.end(), input.bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                           input.bytes.begin() + static_cast<std::ptrdiff_t>(offset + slice));
            offset += slice;
            consumeHeaderFromData(inData_);
        } while (!engine_ && offset < input.bytes.size() && !isFinished());
        if (!engine_) {
            return;
        }
    }

    // Everything but the last HMACLength() bytes of the stream goes to the engine: first what
    // is buffered, then the new input in chunks; the new tail is buffered in turn.
    const std::size_t remaining = input.bytes.size() - offset;
    const std::uint64_t hold = HMACLength();
    const std::uint64_t total = std::uint64_t{inData_.size()} + remaining;
    if (total <= hold) {
        inData_.insert(inData_.end(), input.bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                       input.bytes.end());
        return;
    }
    const std::uint64_t toDecrypt = total - hold;
    const std::size_t fromBuffer =
        static_cast<std::size_t>(std::min<std::uint64_t>(toDecrypt, inData_.size()));
    if (fromBuffer != 0) {
        auto piece = std::make_shared<const std::vector<std::uint8_t>>(
            TZConsumeToIndex(inData_, fromBuffer));
        decryptData(Input{*piece, piece});
    }
    const std::size_t fromInput = static_cast<std::size_t>(toDecrypt - fromBuffer);
    for (std::size_t at = 0; at < fromInput; at += kChunkSize) {
        decryptData(input.subspan(offset + at, std::min(kChunkSize, fromInput - at)));
    }
    inData_.insert(inData_.end(),
                   input.bytes.begin() + static_cast<std::ptrdiff_t>(offset + fromInput),
                   input.bytes.end());
}

void TZDecryptor::decryptData(Input input) {
    auto self = std::static_pointer_cast<TZDecryptor>(shared_from_this());
    enqueue([self, input = std::move(input)] {
        if (self->hasHMAC()) {
            self->HMAC_->update(input.bytes);
        }
        KXError error;
        if (self->engineUpdate(input.bytes, error)) {
            self->deliverOutput();
        } else {
            self->cleanupAndNotifyWithError(error);
        }
    });
}

void TZDecryptor::finish() {
    if (isFinished() || !markFinishCalled()) {
        return;
    }
    auto self = std::static_pointer_cast<TZDecryptor>(shared_from_this());
    enqueue([self, tail = inData_] {
        if (!self->engine_) {
            // The header never arrived: nothing was decrypted and nothing went wrong.
            self->cleanupAndNotifyWithError(std::nullopt);
            return;
        }
        KXError error;
        const bool finalWritten = self->engineFinish(error);
        // Authentication decides first: a changed or truncated container, or one opened with
        // the wrong password, reports "HMAC Mismatch" even when its last block also fails to
        // unpad.
        if (self->hasHMAC()) {
            const auto expected = self->HMAC_->finish(self->HMACLength());
            if (!tzc_isEqualInConsistentTime(expected, tail)) {
                self->cleanupAndNotifyWithError(TZHMACMismatchError());
                return;
            }
        }
        self->cleanupAndNotifyWithError(finalWritten ? std::nullopt
                                                     : std::optional<KXError>(error));
    });
}

std::size_t TZDecryptor::expectedOutputLength(std::size_t inputLength) const {
    return inputLength;
}

// MARK: - Header

bool TZDecryptor::updateOptionsForPreamble(std::uint8_t version, std::uint8_t options) {
    switch (version) {
        case 3:
            setOptions(options);
            return true;
        case 2: {
            // Version 2 derived its keys from the password cut short (see keyForPassword).
            setOptions(options);
            std::lock_guard lock(settingsMutex_);
            settings_.keySettings.hasV2Password = true;
            settings_.HMACKeySettings.hasV2Password = true;
            return true;
        }
        default:
            return false;
    }
}

void TZDecryptor::consumeHeaderFromData(std::vector<std::uint8_t>& data) {
    if (data.size() < 2) {
        return;
    }
    if (!updateOptionsForPreamble(data[0], data[1])) {
        cleanupAndNotifyWithError(TZUnknownHeaderError());
        return;
    }
    const TZCryptorSettings settings = this->settings();
    if (!TZSettingsAreUsable(settings)) {
        cleanupAndNotifyWithError(TZStatusError(TZCryptorStatusParamError));
        return;
    }
    const bool hasPassword = (options() & TZCryptorOptionHasPassword) != 0;
    std::uint64_t headerLength = saturatingAdd(2, settings.IVSize);
    if (hasPassword) {
        headerLength = saturatingAdd(headerLength, settings.keySettings.saltSize);
        headerLength = saturatingAdd(headerLength, settings.HMACKeySettings.saltSize);
    }
    if (data.size() < headerLength) {
        return;  // the preamble is read again when more data arrives
    }

    const std::vector<std::uint8_t> header(
        data.begin(), data.begin() + static_cast<std::ptrdiff_t>(headerLength));
    TZConsumeToIndex(data, 2);
    if (hasPassword) {
        const auto encryptionSalt = TZConsumeToIndex(data, settings.keySettings.saltSize);
        const auto HMACSalt = TZConsumeToIndex(data, settings.HMACKeySettings.saltSize);
        // A decryptor made with keys has no password; the salts then derive from an empty one.
        const std::string_view password =
            password_ ? std::string_view(*password_) : std::string_view();
        TZWipe(encryptionKey_);
        TZWipe(HMACKey_);
        encryptionKey_ = keyForPassword(password, encryptionSalt, settings.keySettings);
        HMACKey_ = keyForPassword(password, HMACSalt, settings.HMACKeySettings);
        TZWipe(password_);
    }

    auto IV = TZConsumeToIndex(data, settings.IVSize);
    KXError error;
    engine_ = TZCryptorEngine::initWithOperation(TZCryptorOperation::Decrypt, settings,
                                                 encryptionKey_, IV, &error);
    TZWipe(encryptionKey_);
    if (!engine_) {
        TZWipe(HMACKey_);
        cleanupAndNotifyWithError(error);
        return;
    }

    if (!HMACKey_.empty()) {
        HMAC_ = TZHMAC::start(settings.HMACAlgorithm, HMACKey_);
        TZWipe(HMACKey_);
        if (!HMAC_) {
            // No such HMAC: nothing could be authenticated, so nothing is decrypted either.
            engine_.reset();
            cleanupAndNotifyWithError(TZStatusError(TZCryptorStatusParamError));
            return;
        }
        setHMACLength(settings.HMACLength);
        if (!hasV1HMAC()) {
            HMAC_->update(header);
        }
    }
}
