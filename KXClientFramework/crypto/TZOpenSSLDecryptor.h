#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/TZDecryptor.h>
#include <KXClientFramework/TZOpenSSLCryptor.h>

#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

/// Opens OpenSSL's salted format, what `openssl enc -aes-256-cbc -md md5 -pass pass:...`
/// writes:
///
///     "Salted__" | salt (keySettings.saltSize, 8) | AES-CBC ciphertext, PKCS#7-padded
///
/// Key and IV come from the password and the salt by EVP_BytesToKey over MD5 (see
/// TZOpenSSLCryptorGetKey). There is no HMAC: a wrong password shows only as a padding failure
/// at the end (TZCryptorStatusDecodeError) or, rarely, as garbage. Data that does not start with
/// "Salted__" reports "Unknown header" (code 2) at once; the rest is decrypted all the same but
/// no longer delivered. Fewer bytes than the header give an empty result without an error.
///
/// With a caller-supplied key and IV the input is raw ciphertext without a header.
class KX_EXPORT TZOpenSSLDecryptor : public TZDecryptor {
public:
    /// Opens salted `data` with `password`; `settings` choose the cipher and the salt size
    /// (kTZCryptorAES256Settings for what the `openssl` tool writes with AES-256-CBC).
    static std::optional<std::vector<std::uint8_t>> decryptData(std::span<const std::uint8_t> data,
                                                                const TZCryptorSettings& settings,
                                                                std::string_view password,
                                                                KXError* error = nullptr);
    /// Decrypts raw ciphertext (no header) with a key and IV.
    static std::optional<std::vector<std::uint8_t>> decryptData(
        std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
        std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> IV,
        KXError* error = nullptr);

    /// Not supported by this format: always empty, and `error` is left untouched.
    static std::optional<std::vector<std::uint8_t>> decryptData(std::span<const std::uint8_t> data,
                                                                std::string_view password,
                                                                KXError* error = nullptr);
    /// Not supported by this format: always empty, and `error` is left untouched.
    static std::optional<std::vector<std::uint8_t>> decryptData(
        std::span<const std::uint8_t> data, std::span<const std::uint8_t> encryptionKey,
        std::span<const std::uint8_t> HMACKey, KXError* error = nullptr);

    /// A streaming decryptor of salted data; its engine is made once the header has arrived.
    static std::shared_ptr<TZOpenSSLDecryptor> initWithSettings(const TZCryptorSettings& settings,
                                                                std::string_view password,
                                                                TZCryptorHandler handler);
    /// A streaming decryptor of raw ciphertext; null when the engine cannot be made (its error
    /// then goes to the handler).
    static std::shared_ptr<TZOpenSSLDecryptor> initWithSettings(
        const TZCryptorSettings& settings, std::span<const std::uint8_t> encryptionKey,
        std::span<const std::uint8_t> IV, TZCryptorHandler handler);

    /// Not supported by this format: null.
    static std::shared_ptr<TZOpenSSLDecryptor> initWithEncryptionKey(
        std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> HMACKey,
        TZCryptorHandler handler);
    /// Not supported by this format: null.
    static std::shared_ptr<TZOpenSSLDecryptor> initWithPassword(std::string_view password,
                                                                TZCryptorHandler handler);

protected:
    explicit TZOpenSSLDecryptor(TZCryptorHandler handler);

    void consumeHeaderFromData(std::vector<std::uint8_t>& data) override;

private:
    // The raw-ciphertext decryptor, returned even when its engine failed (it is then finished
    // with the engine's error), so the synchronous form can report that error.
    static std::shared_ptr<TZOpenSSLDecryptor> makeWithKey(
        const TZCryptorSettings& settings, std::span<const std::uint8_t> encryptionKey,
        std::span<const std::uint8_t> IV, TZCryptorHandler handler);
};
