#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/TZCryptor.h>

#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class TZHMAC;

/// Opens the versioned sealed container (versions 2 and 3):
///
///     version (1) | options (1) | [encryption salt | HMAC salt] | IV | ciphertext | HMAC
///
/// The salts are present when options bit 0 (TZCryptorOptionHasPassword) is set; their sizes,
/// the IV size and the HMAC length follow the settings (8, 8, 16 and 32 bytes under
/// kTZCryptorAES256Settings). The HMAC covers everything before it.
///
/// Keys come either from a password (PBKDF2 over the salts in the header) or from the caller.
/// Without an HMAC key nothing is held back or checked: the HMAC bytes are taken as ciphertext.
/// The last HMACLength() bytes of input are always held back, ciphertext goes into the HMAC
/// before it is decrypted, and plain chunks are handed to the handler as they are produced; a
/// container that then fails its HMAC check ends with "HMAC Mismatch" (code 1) after those
/// chunks. Input shorter than the header ends without output and without an error.
class KX_EXPORT TZDecryptor : public TZCryptor {
public:
    /// Opens `data` sealed with `password` under `settings`.
    static std::optional<std::vector<std::uint8_t>> decryptData(std::span<const std::uint8_t> data,
                                                                const TZCryptorSettings& settings,
                                                                std::string_view password,
                                                                KXError* error = nullptr);
    /// Opens `data` with the caller's keys under `settings`.
    static std::optional<std::vector<std::uint8_t>> decryptData(
        std::span<const std::uint8_t> data, const TZCryptorSettings& settings,
        std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> HMACKey,
        KXError* error = nullptr);
    /// The same under kTZCryptorAES256Settings.
    static std::optional<std::vector<std::uint8_t>> decryptData(std::span<const std::uint8_t> data,
                                                                std::string_view password,
                                                                KXError* error = nullptr);
    static std::optional<std::vector<std::uint8_t>> decryptData(
        std::span<const std::uint8_t> data, std::span<const std::uint8_t> encryptionKey,
        std::span<const std::uint8_t> HMACKey, KXError* error = nullptr);

    /// A streaming decryptor with the caller's keys and kTZCryptorAES256Settings. An empty key
    /// counts as no key.
    static std::shared_ptr<TZDecryptor> initWithEncryptionKey(
        std::span<const std::uint8_t> encryptionKey, std::span<const std::uint8_t> HMACKey,
        TZCryptorHandler handler);
    /// A streaming decryptor whose keys come from `password` and the container's salts.
    static std::shared_ptr<TZDecryptor> initWithPassword(std::string_view password,
                                                         TZCryptorHandler handler);

    ~TZDecryptor() override;

    void finish() override;

    /// The settings the container is read with. Set them before the first addData(); reading
    /// a version-2 header turns on both key settings' hasV2Password.
    TZCryptorSettings settings() const;
    void setSettings(const TZCryptorSettings& settings);

    /// When true the header is left out of the HMAC (the first container version did so).
    bool hasV1HMAC() const;
    void setHasV1HMAC(bool hasV1HMAC);

protected:
    TZDecryptor(std::string className, TZCryptorHandler handler);

    void addInput(Input input) override;
    std::size_t expectedOutputLength(std::size_t inputLength) const override;

    /// Parses the header at the front of `data` once enough of it is there, removing what it
    /// reads, and creates the engine. Called with the buffered input whenever data arrives and
    /// there is no engine yet.
    virtual void consumeHeaderFromData(std::vector<std::uint8_t>& data);

    /// Queues the decryption of one piece of ciphertext on the work queue.
    void decryptData(Input input);

    /// Checks version and options; false for a version other than 2 or 3.
    bool updateOptionsForPreamble(std::uint8_t version, std::uint8_t options);

    /// Input not yet handed to the engine: the partial header, then the held-back tail. Used
    /// on the caller's thread only.
    std::vector<std::uint8_t> inData_;
    /// The password until the keys have been derived from it; absent in key mode.
    std::optional<std::string> password_;

private:
    mutable std::mutex settingsMutex_;
    TZCryptorSettings settings_ = kTZCryptorAES256Settings;
    std::vector<std::uint8_t> encryptionKey_;
    std::vector<std::uint8_t> HMACKey_;
    bool hasV1HMAC_ = false;
    std::unique_ptr<TZHMAC> HMAC_;
};
