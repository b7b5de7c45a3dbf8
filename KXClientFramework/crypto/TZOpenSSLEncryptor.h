#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/TZEncryptor.h>
#include <KXClientFramework/TZOpenSSLCryptor.h>

#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

/// Writes OpenSSL's salted format, which `openssl enc -d -aes-256-cbc -md md5 -pass pass:...`
/// opens: "Salted__", a random salt (keySettings.saltSize), then AES-CBC ciphertext with PKCS#7
/// padding; key and IV come from password and salt as TZOpenSSLCryptorGetKey describes. The
/// ciphertext is a whole number of blocks, at least one (an empty input gives one padding
/// block). There is no HMAC.
///
/// With a caller-supplied key and IV the output is the raw ciphertext, without a header.
class KX_EXPORT TZOpenSSLEncryptor : public TZEncryptor {
public:
    /// Seals `data` with `password` and a random salt.
    static std::optional<std::vector<std::uint8_t>> encryptData(std::span<const std::uint8_t> data,
                                                                const TZCryptorSettings& settings,
                                                                std::string_view password,
                                                                KXError* error = nullptr);
    /// Encrypts `data` with a key and IV into raw ciphertext.
    static std::optional<std::vector<std::uint8_t>> encryptData(
        std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
        std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> IV,
        KXError* error = nullptr);

    /// A streaming encryptor of salted data with a random salt.
    static std::shared_ptr<TZOpenSSLEncryptor> initWithSettings(const TZCryptorSettings& settings,
                                                                std::string_view password,
                                                                TZCryptorHandler handler);
    /// A streaming encryptor of raw ciphertext; null when the engine cannot be made (the error
    /// then goes to the handler).
    static std::shared_ptr<TZOpenSSLEncryptor> initWithSettings(
        const TZCryptorSettings& settings, std::span<const std::uint8_t> encryptionKey,
        std::span<const std::uint8_t> IV, TZCryptorHandler handler);

    /// "Salted__" and the salt when made with a password; empty with a key and IV.
    std::vector<std::uint8_t> header() const override;

protected:
    explicit TZOpenSSLEncryptor(TZCryptorHandler handler);

    bool setUpWithKeyAndIV(const TZCryptorSettings& settings,
                           std::span<const std::uint8_t> encryptionKey,
                           std::span<const std::uint8_t> IV);
    bool setUpWithPassword(const TZCryptorSettings& settings, std::string_view password);
};
