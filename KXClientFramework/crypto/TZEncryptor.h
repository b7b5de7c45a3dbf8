#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/TZCryptor.h>

#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

class TZHMAC;

/// Writes the versioned sealed container, version 3:
///
///     3 | options | [encryption salt | HMAC salt] | IV | ciphertext | HMAC
///
/// With a password, options bit 0 (TZCryptorOptionHasPassword) is set, both salts are written
/// and the keys are derived from the password by PBKDF2 (TZCryptor::keyForPassword). With keys,
/// options is 0 and there are no salts. The HMAC (HMACAlgorithm, HMACLength bytes) covers the
/// header and the ciphertext; without an HMAC key none is written. Under
/// kTZCryptorAES256Settings an empty input seals to 82 bytes with a password (34 of header, one
/// padding block, 32 of HMAC) and to 66 bytes with keys.
///
/// The header goes out in front of the first chunk of ciphertext, so at least one addData()
/// (possibly empty) must come before finish().
class KX_EXPORT TZEncryptor : public TZCryptor {
public:
    /// Seals `data` with `password`: random IV and salts.
    static std::optional<std::vector<std::uint8_t>> encryptData(std::span<const std::uint8_t> data,
                                                                const TZCryptorSettings& settings,
                                                                std::string_view password,
                                                                KXError* error = nullptr);
    /// Seals `data` with `password` and the caller's IV and salts.
    static std::optional<std::vector<std::uint8_t>> encryptData(
        std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
        std::string_view password, std::span<const std::uint8_t> IV,
        std::span<const std::uint8_t> encryptionSalt, std::span<const std::uint8_t> HMACSalt,
        KXError* error = nullptr);
    /// Seals `data` with the caller's keys and a random IV (see the matching initWithSettings).
    static std::optional<std::vector<std::uint8_t>> encryptData(
        std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
        std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> HMACKey,
        KXError* error = nullptr);
    /// Seals `data` with the caller's keys and IV.
    static std::optional<std::vector<std::uint8_t>> encryptData(
        std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
        std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> HMACKey,
        std::span<const std::uint8_t> IV, KXError* error = nullptr);

    /// A streaming encryptor with a password: random IV (IVSize) and salts (saltSize of each
    /// key setting).
    static std::shared_ptr<TZEncryptor> initWithSettings(const TZCryptorSettings& settings,
                                                         std::string_view password,
                                                         TZCryptorHandler handler);
    /// A streaming encryptor with a password and the caller's IV and salts.
    static std::shared_ptr<TZEncryptor> initWithSettings(
        const TZCryptorSettings& settings, std::string_view password,
        std::span<const std::uint8_t> IV, std::span<const std::uint8_t> encryptionSalt,
        std::span<const std::uint8_t> HMACSalt, TZCryptorHandler handler);
    /// A streaming encryptor with keys and a random IV. Only the IV length is taken from
    /// `settings`; everything else comes from kTZCryptorAES256Settings, as it always has for
    /// this form.
    static std::shared_ptr<TZEncryptor> initWithSettings(
        const TZCryptorSettings& settings, std::span<const std::uint8_t> encryptionKey,
        std::span<const std::uint8_t> HMACKey, TZCryptorHandler handler);
    /// A streaming encryptor with keys and IV. An empty HMAC key means no HMAC is written.
    /// Null when the engine or the HMAC cannot be made (the error goes to the handler).
    static std::shared_ptr<TZEncryptor> initWithSettings(
        const TZCryptorSettings& settings, std::span<const std::uint8_t> encryptionKey,
        std::span<const std::uint8_t> HMACKey, std::span<const std::uint8_t> IV,
        TZCryptorHandler handler);

    ~TZEncryptor() override;

    void finish() override;

    /// What goes in front of the ciphertext: version, options, the salts when there is a
    /// password, and the IV.
    virtual std::vector<std::uint8_t> header() const;

    const std::vector<std::uint8_t>& IV() const noexcept { return IV_; }
    const std::vector<std::uint8_t>& encryptionSalt() const noexcept { return encryptionSalt_; }
    const std::vector<std::uint8_t>& HMACSalt() const noexcept { return HMACSalt_; }

protected:
    TZEncryptor(std::string className, TZCryptorHandler handler);

    void addInput(Input input) override;
    std::size_t expectedOutputLength(std::size_t inputLength) const override;

    /// Starts the HMAC (when there is an HMAC key) and creates the encrypting engine; on
    /// failure finishes with the error and returns false.
    bool setUpWithKeys(const TZCryptorSettings& settings,
                       std::span<const std::uint8_t> encryptionKey,
                       std::span<const std::uint8_t> HMACKey, std::span<const std::uint8_t> IV);
    /// Derives both keys from the password, then setUpWithKeys(); marks the password option and
    /// keeps the salts on success.
    bool setUpWithPassword(const TZCryptorSettings& settings, std::string_view password,
                           std::span<const std::uint8_t> IV,
                           std::span<const std::uint8_t> encryptionSalt,
                           std::span<const std::uint8_t> HMACSalt);

    /// Runs one piece of plain input through the engine on the work queue.
    void encryptData(Input input);

    std::vector<std::uint8_t> IV_;
    std::vector<std::uint8_t> encryptionSalt_;
    std::vector<std::uint8_t> HMACSalt_;

private:
    // Work-queue state.
    bool haveWrittenHeader_ = false;
    std::unique_ptr<TZHMAC> HMAC_;
};
