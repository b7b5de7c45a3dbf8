#pragma once

#include <KXClientFramework/KXBackgroundQueue.h>
#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/TZCryptorSettings.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class TZCryptor;
class TZCryptorEngine;

/// Receives a cryptor's output. Called on the cryptor's response queue once per produced chunk
/// (possibly empty) and once more when the cryptor finishes; on that last call isFinished() is
/// already true and error() tells how it ended. `data` is valid only during the call.
using TZCryptorHandler =
    std::function<void(TZCryptor& cryptor, std::span<const std::uint8_t> data)>;

/// The common part of every cryptor: two serial queues, the handler, error reporting, the
/// synchronous wrapper, password-based keys and random bytes.
///
/// A cryptor is single-use: made by one of its subclasses' factories (always held by a
/// std::shared_ptr), fed by addData(), closed by finish(), and finished exactly once. All cipher
/// and HMAC work runs in submission order on queue(); the handler runs on responseQueue(), and
/// the work queue waits for each handler call before it goes on, so chunks arrive in order and
/// the next chunk is not produced before the previous one was handled. Large inputs are cut
/// into chunks of a fixed size, so memory stays at a small multiple of that size beyond the
/// input and output.
///
/// Errors are KXError values in kTZCryptorErrorDomain. Operations that can fail return an empty
/// optional and, when `error` is not null, store the error there.
class KX_EXPORT TZCryptor : public std::enable_shared_from_this<TZCryptor> {
public:
    virtual ~TZCryptor();
    TZCryptor(const TZCryptor&) = delete;
    TZCryptor& operator=(const TZCryptor&) = delete;

    /// Hands the next piece of input to the cryptor; the bytes are copied. Ignored once the
    /// cryptor has finished or finish() has been called.
    void addData(std::span<const std::uint8_t> data);
    /// The same, taking over the buffer instead of copying it.
    void addData(std::vector<std::uint8_t>&& data);

    /// Ends the input; the cryptor finishes once the queued work is done. Ignored once the
    /// cryptor has finished or finish() has been called. Does nothing in the base class.
    virtual void finish();

    /// The serial queue the handler runs on.
    KXSerialQueue responseQueue() const;
    std::string responseQueueLabel() const;
    /// Replaces the response queue. Takes effect for the next handler call.
    void setResponseQueue(KXSerialQueue queue, std::string label = {});

    /// The serial queue all cipher work runs on.
    KXSerialQueue queue() const;
    const std::string& queueLabel() const;

    /// Bytes of HMAC at the end of the stream; 0 means there is none.
    std::uint64_t HMACLength() const noexcept;
    bool hasHMAC() const noexcept { return HMACLength() != 0; }

    /// The error that finished the cryptor; empty while it runs and when it succeeded.
    std::optional<KXError> error() const;
    /// Set once, when the cryptor finishes; never cleared.
    bool isFinished() const noexcept;

    /// The options byte (bit 0 TZCryptorOptionHasPassword).
    std::uint8_t options() const noexcept;

    TZCryptorHandler handler() const;
    /// Replaces the handler. It is dropped after its last call.
    void setHandler(TZCryptorHandler handler);

    /// The class name ("TZDecryptor", "TZOpenSSLEncryptor", ...), also found in the queue labels.
    const std::string& className() const noexcept;

    /// Runs `cryptor` over the whole of `data` and waits for it to finish: its output, or an
    /// empty optional with the cryptor's error. `data` is not copied; it only has to live until
    /// the call returns. Must not be called from the cryptor's own queues. A null cryptor gives
    /// an empty optional without an error.
    static std::optional<std::vector<std::uint8_t>> synchronousResultForCryptor(
        const std::shared_ptr<TZCryptor>& cryptor, std::span<const std::uint8_t> data,
        KXError* error = nullptr);

    /// PBKDF2 key from a password, as `settings` describe it (algorithm, PRF, rounds, length).
    /// The password bytes are its UTF-8 form; with `hasV2Password` only its first n bytes, n
    /// being the password's length in UTF-16 units, as version-2 containers were written (a
    /// non-ASCII password is thereby cut short). A derivation the parameters do not allow
    /// leaves the key all zero; a `keySize` above 1 MiB gives an empty key.
    static std::vector<std::uint8_t> keyForPassword(std::string_view password,
                                                    std::span<const std::uint8_t> salt,
                                                    const TZCryptorKeyDerivationSettings& settings);

    /// `length` bytes from the system's secure random source.
    static std::vector<std::uint8_t> randomDataOfLength(std::size_t length);

protected:
    /// A piece of input on its way to the work queue. `bytes` points into the memory `owner`
    /// keeps alive when the cryptor owns the data (a copy, or a vector handed over), or into the
    /// caller's buffer when the caller guarantees it outlives the work (the synchronous wrapper).
    struct Input {
        std::span<const std::uint8_t> bytes;
        std::shared_ptr<const void> owner;
        Input subspan(std::size_t offset, std::size_t count) const {
            return {bytes.subspan(offset, count), owner};
        }
    };

    /// Size of the pieces large inputs are cut into.
    static constexpr std::size_t kChunkSize = 256 * 1024;

    /// Sets up the queues (labelled "net.tolvarn.<className>" and
    /// "net.tolvarn.response.<className>") and the handler.
    TZCryptor(std::string className, TZCryptorHandler handler);

    /// What the synchronous forms return for a cryptor whose set-up failed: nothing, with the
    /// error it finished with.
    static std::optional<std::vector<std::uint8_t>> failedSetUp(const TZCryptor& cryptor,
                                                                KXError* error);

    /// Where addData() lands; subclasses override. Does nothing in the base class.
    virtual void addInput(Input input);

    /// An upper bound of the output for `inputLength` bytes of input, so the synchronous
    /// wrapper can reserve its result once.
    virtual std::size_t expectedOutputLength(std::size_t inputLength) const;

    /// Finishes the cryptor: sets error() (none for success) and isFinished(), then hands the
    /// pending output to the handler on the response queue and drops the handler. Called from
    /// a work step it takes effect within that step; called elsewhere the handler call is queued
    /// behind the work already submitted.
    void cleanupAndNotifyWithError(std::optional<KXError> error);

    /// Queues `step` on the work queue, behind everything submitted before.
    void enqueue(std::function<void()> step);

    /// From a work step: hands the output buffer to the handler once the step is over, and
    /// empties it afterwards.
    void deliverOutput();

    /// Output produced by the work queue and not yet handed to the handler. Only work steps
    /// use these.
    void appendOutput(std::span<const std::uint8_t> bytes);
    std::size_t outputLength() const noexcept;
    /// The pending output from `offset` on (to feed freshly produced bytes into an HMAC).
    std::span<const std::uint8_t> outputFrom(std::size_t offset) const noexcept;
    /// Appends the engine's output for `data`; false with the engine's error when it fails.
    bool engineUpdate(std::span<const std::uint8_t> data, KXError& error);
    /// Appends the engine's final output; false with the engine's error when it fails (or when
    /// there is no engine: then `error` is left alone).
    bool engineFinish(KXError& error);

    void setHMACLength(std::uint64_t length) noexcept;
    void setOptions(std::uint8_t options) noexcept;

    /// True once finish() was called (further input and finish() calls are ignored).
    bool markFinishCalled() noexcept;
    bool finishCalled() const noexcept;

    /// The cipher; null until the key is known. Set from the caller's thread before any work
    /// that uses it is queued.
    std::unique_ptr<TZCryptorEngine> engine_;

private:
    struct Core;
    friend struct Core;
    void pump();
    bool startDelivery(std::size_t index);
    void runDelivery(std::size_t index);
    bool acceptsInput() const noexcept;

    std::unique_ptr<Core> core_;
};

/// Removes the first `index` bytes of `data` (the rest moves to the front) and returns them.
/// An index past the end takes everything.
KX_EXPORT std::vector<std::uint8_t> TZConsumeToIndex(std::vector<std::uint8_t>& data,
                                                     std::size_t index);

/// Compares `a` and `b` in a time that does not depend on where they differ: it always reads all
/// of `b`. Two empty buffers are equal; an empty `a` never equals a non-empty `b`.
KX_EXPORT bool tzc_isEqualInConsistentTime(std::span<const std::uint8_t> a,
                                           std::span<const std::uint8_t> b);

/// PBKDF2 (RFC 2898) written out on top of HMAC, with the argument order of the platform
/// derivation it stands in for. Returns 0, or -1 (nothing written) unless `algorithm` is 2
/// (PBKDF2), the salt is 1 to 132 bytes long, `rounds` is not 0 and `derivedKeyLength` is not 0.
/// `prf` 1..5 selects HMAC-SHA1, -SHA224, -SHA256, -SHA384, -SHA512; any other value works
/// with a one-byte block of HMAC-SHA1.
KX_EXPORT int TZ_CCKeyDerivationPBKDF(std::uint32_t algorithm, const char* password,
                                      std::size_t passwordLength, const std::uint8_t* salt,
                                      std::size_t saltLength, std::uint32_t prf,
                                      std::uint32_t rounds, std::uint8_t* derivedKey,
                                      std::size_t derivedKeyLength);
