// Throughput of the sealed-data cryptors on 64 MiB against raw OpenSSL EVP in the same run.
//
// Baselines: AES-256-CBC through EVP (the salted format), plus HMAC-SHA256 over header and
// ciphertext (the container), each once into a fresh output vector ("cold", what the
// synchronous calls return), once into a buffer kept across iterations ("warm"), and once as a
// raw streaming program does it ("chunked": each 1 MiB piece copied into a read buffer as a
// read would, EVP-updated into an output buffer, copied out into the warm buffer as a write
// would). The library's forms: the synchronous calls, and the streaming cryptors fed 1 MiB at a
// time with a handler that copies into the warm buffer, either through addData(span) or by
// handing over a freshly filled vector per piece through addData(vector&&).
// Key derivation is left out: the container runs in key mode, and the salted format's MD5
// derivation is a few microseconds. Real time is measured, since the work runs on the cryptors'
// queues, not on the calling thread.
#include <KXClientFramework/TZDecryptor.h>
#include <KXClientFramework/TZEncryptor.h>
#include <KXClientFramework/TZOpenSSLDecryptor.h>
#include <KXClientFramework/TZOpenSSLEncryptor.h>

#include <benchmark/benchmark.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <span>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kSize = std::size_t{64} * 1024 * 1024;
constexpr std::size_t kPiece = std::size_t{1024} * 1024;
constexpr const char* kPassword = "benchmark password";

const Bytes& plain() {
    static const Bytes bytes = [] {
        Bytes data(kSize);
        std::uint32_t state = 12345;
        for (auto& byte : data) {
            state = state * 1664525u + 1013904223u;
            byte = static_cast<std::uint8_t>(state >> 24);
        }
        return data;
    }();
    return bytes;
}

const Bytes kKey(32, 0x11);
const Bytes kHMACKey(32, 0x22);
const Bytes kIV(16, 0x33);

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// MARK: - Raw OpenSSL

Bytes rawCipher(bool encrypt, std::span<const std::uint8_t> input, const Bytes& key = kKey,
                const Bytes& IV = kIV) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    Bytes output(input.size() + 16);
    int written = 0;
    int last = 0;
    require(EVP_CipherInit_ex2(context, EVP_aes_256_cbc(), key.data(), IV.data(), encrypt ? 1 : 0,
                               nullptr) == 1);
    require(EVP_CipherUpdate(context, output.data(), &written, input.data(),
                             static_cast<int>(input.size())) == 1);
    require(EVP_CipherFinal_ex(context, output.data() + written, &last) == 1);
    EVP_CIPHER_CTX_free(context);
    output.resize(static_cast<std::size_t>(written) + static_cast<std::size_t>(last));
    return output;
}

// EVP into `output` (already large enough); returns the bytes written.
std::size_t rawCipherInto(bool encrypt, std::span<const std::uint8_t> input, std::uint8_t* output,
                          const Bytes& key = kKey, const Bytes& IV = kIV) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    int written = 0;
    int last = 0;
    require(EVP_CipherInit_ex2(context, EVP_aes_256_cbc(), key.data(), IV.data(), encrypt ? 1 : 0,
                               nullptr) == 1);
    require(EVP_CipherUpdate(context, output, &written, input.data(),
                             static_cast<int>(input.size())) == 1);
    require(EVP_CipherFinal_ex(context, output + written, &last) == 1);
    EVP_CIPHER_CTX_free(context);
    return static_cast<std::size_t>(written) + static_cast<std::size_t>(last);
}

EVP_CIPHER_CTX* startCipher(bool encrypt, const Bytes& key = kKey, const Bytes& IV = kIV) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    require(EVP_CipherInit_ex2(context, EVP_aes_256_cbc(), key.data(), IV.data(), encrypt ? 1 : 0,
                               nullptr) == 1);
    return context;
}

std::size_t cipherUpdate(EVP_CIPHER_CTX* context, std::span<const std::uint8_t> input,
                         std::uint8_t* output) {
    int written = 0;
    require(EVP_CipherUpdate(context, output, &written, input.data(),
                             static_cast<int>(input.size())) == 1);
    return static_cast<std::size_t>(written);
}

std::size_t cipherFinal(EVP_CIPHER_CTX* context, std::uint8_t* output) {
    int written = 0;
    require(EVP_CipherFinal_ex(context, output, &written) == 1);
    EVP_CIPHER_CTX_free(context);
    return static_cast<std::size_t>(written);
}

EVP_MAC_CTX* startHMAC() {
    static EVP_MAC* mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    EVP_MAC_CTX* context = EVP_MAC_CTX_new(mac);
    std::array<OSSL_PARAM, 2> params{
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>("SHA256"), 0),
        OSSL_PARAM_construct_end()};
    require(EVP_MAC_init(context, kHMACKey.data(), kHMACKey.size(), params.data()) == 1);
    return context;
}

void finishHMAC(EVP_MAC_CTX* context, std::uint8_t* digest) {
    std::size_t length = 0;
    require(EVP_MAC_final(context, digest, &length, 32) == 1 && length == 32);
    EVP_MAC_CTX_free(context);
}

Bytes rawHMAC(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second) {
    EVP_MAC_CTX* context = startHMAC();
    require(EVP_MAC_update(context, first.data(), first.size()) == 1);
    require(EVP_MAC_update(context, second.data(), second.size()) == 1);
    Bytes digest(32);
    finishHMAC(context, digest.data());
    return digest;
}

// The raw container: header, ciphertext and HMAC in one output buffer.
Bytes rawContainerSeal(std::span<const std::uint8_t> input) {
    Bytes sealed(18 + input.size() + 16 + 32);
    sealed[0] = 3;
    sealed[1] = 0;
    std::memcpy(sealed.data() + 2, kIV.data(), kIV.size());
    const std::size_t written = rawCipherInto(true, input, sealed.data() + 18);
    const Bytes digest =
        rawHMAC(std::span(sealed).first(18), std::span(sealed).subspan(18, written));
    std::memcpy(sealed.data() + 18 + written, digest.data(), digest.size());
    sealed.resize(18 + written + 32);
    return sealed;
}

Bytes rawContainerOpen(std::span<const std::uint8_t> sealed) {
    const auto header = sealed.first(18);
    const auto ciphertext = sealed.subspan(18, sealed.size() - 18 - 32);
    const Bytes digest = rawHMAC(header, ciphertext);
    require(std::equal(digest.begin(), digest.end(), sealed.end() - 32));
    return rawCipher(false, ciphertext);
}

// An output buffer that stays allocated (and paged in) across iterations, as a streaming
// consumer's own buffer would.
Bytes& warmBuffer() {
    static Bytes buffer = [] {
        Bytes bytes(kSize + 4096, 1);
        return bytes;
    }();
    return buffer;
}

const Bytes& sealedSalted() {
    static const Bytes sealed =
        *TZOpenSSLEncryptor::encryptData(plain(), kTZCryptorAES256Settings, kPassword);
    return sealed;
}

const Bytes& sealedContainer() {
    static const Bytes sealed = rawContainerSeal(plain());
    return sealed;
}

// MARK: - Raw streaming

// Buffers a raw streaming program keeps: where a piece is read into, and where EVP writes it.
struct PieceBuffers {
    Bytes read = Bytes(kPiece, 1);
    Bytes written = Bytes(kPiece + 16, 1);
};

PieceBuffers& pieceBuffers() {
    static PieceBuffers buffers;
    return buffers;
}

// One raw pass over `input` in 1 MiB pieces: each piece is copied into the read buffer,
// `process` turns it into output in the piece output buffer, and that is copied to the warm
// buffer. `process(piece, output)` returns the bytes it wrote; `finish(output)` the last ones.
// The output starts `length` bytes into the warm buffer (after a header already written).
template <typename Process, typename Finish>
std::size_t rawChunked(std::span<const std::uint8_t> input, Process process, Finish finish,
                       std::size_t length = 0) {
    PieceBuffers& buffers = pieceBuffers();
    std::uint8_t* out = warmBuffer().data();
    for (std::size_t at = 0; at < input.size(); at += kPiece) {
        const std::size_t size = std::min(kPiece, input.size() - at);
        std::memcpy(buffers.read.data(), input.data() + at, size);
        const std::size_t written =
            process(std::span(buffers.read).first(size), buffers.written.data());
        std::memcpy(out + length, buffers.written.data(), written);
        length += written;
    }
    const std::size_t written = finish(buffers.written.data());
    std::memcpy(out + length, buffers.written.data(), written);
    return length + written;
}

// The salted format's stream, opened by hand: header, then ciphertext.
std::size_t rawSaltedOpenChunked(std::span<const std::uint8_t> sealed, const Bytes& key,
                                 const Bytes& IV) {
    EVP_CIPHER_CTX* cipher = startCipher(false, key, IV);
    std::size_t offset = 0;  // of the piece in the stream
    return rawChunked(
        sealed,
        [&](std::span<const std::uint8_t> piece, std::uint8_t* output) {
            const std::size_t skip = offset == 0 ? 16 : 0;
            offset += piece.size();
            return cipherUpdate(cipher, piece.subspan(skip), output);
        },
        [&](std::uint8_t* output) { return cipherFinal(cipher, output); });
}

// The container, sealed by hand: header, ciphertext, HMAC over both.
std::size_t rawContainerSealChunked(std::span<const std::uint8_t> input) {
    std::uint8_t* out = warmBuffer().data();
    out[0] = 3;
    out[1] = 0;
    std::memcpy(out + 2, kIV.data(), kIV.size());
    EVP_MAC_CTX* hmac = startHMAC();
    require(EVP_MAC_update(hmac, out, 18) == 1);
    EVP_CIPHER_CTX* cipher = startCipher(true);
    return rawChunked(
        input,
        [&](std::span<const std::uint8_t> piece, std::uint8_t* output) {
            const std::size_t written = cipherUpdate(cipher, piece, output);
            require(EVP_MAC_update(hmac, output, written) == 1);
            return written;
        },
        [&](std::uint8_t* output) {
            const std::size_t written = cipherFinal(cipher, output);
            require(EVP_MAC_update(hmac, output, written) == 1);
            finishHMAC(hmac, output + written);
            return written + 32;
        },
        18);
}

// The container, opened by hand: the HMAC over header and ciphertext checked against the last
// 32 bytes. Unlike the library it knows the stream's length up front, so it need not hold back
// a tail that might be the HMAC.
std::size_t rawContainerOpenChunked(std::span<const std::uint8_t> sealed) {
    EVP_MAC_CTX* hmac = startHMAC();
    EVP_CIPHER_CTX* cipher = startCipher(false);
    const std::size_t cipherEnd = sealed.size() - 32;
    std::size_t offset = 0;  // of the piece in the stream
    const std::size_t length = rawChunked(
        sealed,
        [&](std::span<const std::uint8_t> piece, std::uint8_t* output) {
            const std::size_t begin = offset == 0 ? 18 : 0;
            const std::size_t end = std::min(piece.size(), cipherEnd - std::min(cipherEnd, offset));
            if (offset == 0) {
                require(EVP_MAC_update(hmac, piece.data(), 18) == 1);
            }
            offset += piece.size();
            if (end <= begin) {
                return std::size_t{0};
            }
            require(EVP_MAC_update(hmac, piece.data() + begin, end - begin) == 1);
            return cipherUpdate(cipher, piece.subspan(begin, end - begin), output);
        },
        [&](std::uint8_t* output) { return cipherFinal(cipher, output); });
    std::array<std::uint8_t, 32> digest{};
    finishHMAC(hmac, digest.data());
    require(std::equal(digest.begin(), digest.end(), sealed.end() - 32));
    return length;
}

// Checks once, outside the timing, that a baseline wrote what it should.
void requireWarmBufferHolds(std::span<const std::uint8_t> expected) {
    require(std::equal(expected.begin(), expected.end(), warmBuffer().begin()));
}

// MARK: - Streaming through the library

// Feeds `input` to `cryptor` 1 MiB at a time, through addData(span) or, with `handOver`, as a
// freshly filled vector per piece through addData(vector&&); the handler copies each chunk into
// the warm buffer.
template <typename Make>
std::size_t stream(Make make, std::span<const std::uint8_t> input, bool handOver) {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    bool failed = false;
    std::uint8_t* output = warmBuffer().data();
    std::size_t length = 0;
    auto cryptor = make([&](TZCryptor& c, std::span<const std::uint8_t> data) {
        std::memcpy(output + length, data.data(), data.size());
        length += data.size();
        if (c.isFinished()) {
            std::lock_guard lock(mutex);
            failed = c.error().has_value();
            finished = true;
            done.notify_all();
        }
    });
    for (std::size_t at = 0; at < input.size(); at += kPiece) {
        const auto piece = input.subspan(at, std::min(kPiece, input.size() - at));
        if (handOver) {
            cryptor->addData(Bytes(piece.begin(), piece.end()));
        } else {
            cryptor->addData(piece);
        }
    }
    cryptor->finish();
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return finished; });
    require(!failed);
    return length;
}

void finishRun(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(kSize));
}

// The streaming benchmarks: `make` builds the cryptor around the handler `stream` gives it.
template <typename Make>
void runStreaming(benchmark::State& state, Make make, std::span<const std::uint8_t> input,
                  std::size_t expectedLength, bool handOver) {
    for (auto _ : state) {
        const std::size_t length = stream(make, input, handOver);
        require(length == expectedLength);
        benchmark::DoNotOptimize(length);
    }
    finishRun(state);
}

// The salted format's key and IV for the sealed input, derived once, outside the timing.
std::pair<Bytes, Bytes> saltedKeyAndIV() {
    const auto salt = std::span(sealedSalted()).subspan(8, 8);
    Bytes key(32);
    Bytes IV(16);
    require(EVP_BytesToKey(EVP_aes_256_cbc(), EVP_md5(), salt.data(),
                           reinterpret_cast<const unsigned char*>(kPassword),
                           static_cast<int>(std::strlen(kPassword)), 1, key.data(),
                           IV.data()) == 32);
    return {std::move(key), std::move(IV)};
}

// MARK: - Salted format

void RawEVP_Decrypt(benchmark::State& state) {
    const auto [key, IV] = saltedKeyAndIV();
    const auto ciphertext = std::span(sealedSalted()).subspan(16);
    for (auto _ : state) {
        benchmark::DoNotOptimize(rawCipher(false, ciphertext, key, IV));
    }
    finishRun(state);
}

void RawEVP_DecryptWarm(benchmark::State& state) {
    const auto [key, IV] = saltedKeyAndIV();
    const auto ciphertext = std::span(sealedSalted()).subspan(16);
    for (auto _ : state) {
        benchmark::DoNotOptimize(rawCipherInto(false, ciphertext, warmBuffer().data(), key, IV));
    }
    finishRun(state);
}

void RawEVP_EncryptWarm(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(rawCipherInto(true, plain(), warmBuffer().data()));
    }
    finishRun(state);
}

void RawEVP_Encrypt(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(rawCipher(true, plain()));
    }
    finishRun(state);
}

void RawEVP_DecryptChunked(benchmark::State& state) {
    const auto [key, IV] = saltedKeyAndIV();
    require(rawSaltedOpenChunked(sealedSalted(), key, IV) == kSize);
    requireWarmBufferHolds(plain());
    for (auto _ : state) {
        require(rawSaltedOpenChunked(sealedSalted(), key, IV) == kSize);
    }
    finishRun(state);
}

std::size_t rawEncryptChunked(std::span<const std::uint8_t> input) {
    EVP_CIPHER_CTX* cipher = startCipher(true);
    return rawChunked(
        input,
        [&](std::span<const std::uint8_t> piece, std::uint8_t* output) {
            return cipherUpdate(cipher, piece, output);
        },
        [&](std::uint8_t* output) { return cipherFinal(cipher, output); });
}

void RawEVP_EncryptChunked(benchmark::State& state) {
    const std::size_t length = rawEncryptChunked(plain());
    require(length == kSize + 16);
    requireWarmBufferHolds(rawCipher(true, plain()));
    for (auto _ : state) {
        require(rawEncryptChunked(plain()) == length);
    }
    finishRun(state);
}

void Salted_Decrypt(benchmark::State& state) {
    for (auto _ : state) {
        auto opened =
            TZOpenSSLDecryptor::decryptData(sealedSalted(), kTZCryptorAES256Settings, kPassword);
        require(opened.has_value() && opened->size() == kSize);
        benchmark::DoNotOptimize(opened);
    }
    finishRun(state);
}

void Salted_Encrypt(benchmark::State& state) {
    for (auto _ : state) {
        auto sealed = TZOpenSSLEncryptor::encryptData(plain(), kTZCryptorAES256Settings, kPassword);
        require(sealed.has_value());
        benchmark::DoNotOptimize(sealed);
    }
    finishRun(state);
}

std::shared_ptr<TZCryptor> makeSaltedDecryptor(TZCryptorHandler handler) {
    return TZOpenSSLDecryptor::initWithSettings(kTZCryptorAES256Settings, kPassword,
                                                std::move(handler));
}

std::shared_ptr<TZCryptor> makeSaltedEncryptor(TZCryptorHandler handler) {
    return TZOpenSSLEncryptor::initWithSettings(kTZCryptorAES256Settings, kPassword,
                                                std::move(handler));
}

void Salted_DecryptStreaming(benchmark::State& state) {
    runStreaming(state, makeSaltedDecryptor, sealedSalted(), kSize, false);
}

void Salted_DecryptStreamingOwned(benchmark::State& state) {
    runStreaming(state, makeSaltedDecryptor, sealedSalted(), kSize, true);
}

void Salted_EncryptStreaming(benchmark::State& state) {
    runStreaming(state, makeSaltedEncryptor, plain(), sealedSalted().size(), false);
}

void Salted_EncryptStreamingOwned(benchmark::State& state) {
    runStreaming(state, makeSaltedEncryptor, plain(), sealedSalted().size(), true);
}

// MARK: - Container (key mode)

void RawEVPHMAC_Open(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(rawContainerOpen(sealedContainer()));
    }
    finishRun(state);
}

void RawEVPHMAC_OpenWarm(benchmark::State& state) {
    const auto sealed = std::span(sealedContainer());
    for (auto _ : state) {
        const auto digest = rawHMAC(sealed.first(18), sealed.subspan(18, sealed.size() - 50));
        require(std::equal(digest.begin(), digest.end(), sealed.end() - 32));
        benchmark::DoNotOptimize(
            rawCipherInto(false, sealed.subspan(18, sealed.size() - 50), warmBuffer().data()));
    }
    finishRun(state);
}

void RawEVPHMAC_SealWarm(benchmark::State& state) {
    for (auto _ : state) {
        std::uint8_t* out = warmBuffer().data();
        out[0] = 3;
        out[1] = 0;
        std::memcpy(out + 2, kIV.data(), kIV.size());
        const std::size_t written = rawCipherInto(true, plain(), out + 18);
        const auto digest = rawHMAC(std::span(out, 18), std::span(out + 18, written));
        std::memcpy(out + 18 + written, digest.data(), digest.size());
        benchmark::DoNotOptimize(out);
    }
    finishRun(state);
}

void RawEVPHMAC_Seal(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(rawContainerSeal(plain()));
    }
    finishRun(state);
}

void RawEVPHMAC_OpenChunked(benchmark::State& state) {
    require(rawContainerOpenChunked(sealedContainer()) == kSize);
    requireWarmBufferHolds(plain());
    for (auto _ : state) {
        require(rawContainerOpenChunked(sealedContainer()) == kSize);
    }
    finishRun(state);
}

void RawEVPHMAC_SealChunked(benchmark::State& state) {
    require(rawContainerSealChunked(plain()) == sealedContainer().size());
    requireWarmBufferHolds(sealedContainer());
    for (auto _ : state) {
        require(rawContainerSealChunked(plain()) == sealedContainer().size());
    }
    finishRun(state);
}

void Container_Decrypt(benchmark::State& state) {
    for (auto _ : state) {
        auto opened = TZDecryptor::decryptData(sealedContainer(), kKey, kHMACKey);
        require(opened.has_value() && opened->size() == kSize);
        benchmark::DoNotOptimize(opened);
    }
    finishRun(state);
}

void Container_Encrypt(benchmark::State& state) {
    for (auto _ : state) {
        auto sealed =
            TZEncryptor::encryptData(plain(), kTZCryptorAES256Settings, kKey, kHMACKey, kIV);
        require(sealed.has_value() && *sealed == sealedContainer());
        benchmark::DoNotOptimize(sealed);
    }
    finishRun(state);
}

std::shared_ptr<TZCryptor> makeContainerDecryptor(TZCryptorHandler handler) {
    return TZDecryptor::initWithEncryptionKey(kKey, kHMACKey, std::move(handler));
}

std::shared_ptr<TZCryptor> makeContainerEncryptor(TZCryptorHandler handler) {
    return TZEncryptor::initWithSettings(kTZCryptorAES256Settings, kKey, kHMACKey, kIV,
                                         std::move(handler));
}

void Container_DecryptStreaming(benchmark::State& state) {
    runStreaming(state, makeContainerDecryptor, sealedContainer(), kSize, false);
}

void Container_DecryptStreamingOwned(benchmark::State& state) {
    runStreaming(state, makeContainerDecryptor, sealedContainer(), kSize, true);
}

void Container_EncryptStreaming(benchmark::State& state) {
    runStreaming(state, makeContainerEncryptor, plain(), sealedContainer().size(), false);
}

void Container_EncryptStreamingOwned(benchmark::State& state) {
    runStreaming(state, makeContainerEncryptor, plain(), sealedContainer().size(), true);
}

}  // namespace

#define KX_CRYPTO_BENCHMARK(name) BENCHMARK(name)->Unit(benchmark::kMillisecond)->UseRealTime()

KX_CRYPTO_BENCHMARK(RawEVP_Decrypt);
KX_CRYPTO_BENCHMARK(RawEVP_DecryptWarm);
KX_CRYPTO_BENCHMARK(RawEVP_DecryptChunked);
KX_CRYPTO_BENCHMARK(Salted_Decrypt);
KX_CRYPTO_BENCHMARK(Salted_DecryptStreaming);
KX_CRYPTO_BENCHMARK(Salted_DecryptStreamingOwned);
KX_CRYPTO_BENCHMARK(RawEVP_Encrypt);
KX_CRYPTO_BENCHMARK(RawEVP_EncryptWarm);
KX_CRYPTO_BENCHMARK(RawEVP_EncryptChunked);
KX_CRYPTO_BENCHMARK(Salted_Encrypt);
KX_CRYPTO_BENCHMARK(Salted_EncryptStreaming);
KX_CRYPTO_BENCHMARK(Salted_EncryptStreamingOwned);
KX_CRYPTO_BENCHMARK(RawEVPHMAC_Open);
KX_CRYPTO_BENCHMARK(RawEVPHMAC_OpenWarm);
KX_CRYPTO_BENCHMARK(RawEVPHMAC_OpenChunked);
KX_CRYPTO_BENCHMARK(Container_Decrypt);
KX_CRYPTO_BENCHMARK(Container_DecryptStreaming);
KX_CRYPTO_BENCHMARK(Container_DecryptStreamingOwned);
KX_CRYPTO_BENCHMARK(RawEVPHMAC_Seal);
KX_CRYPTO_BENCHMARK(RawEVPHMAC_SealWarm);
KX_CRYPTO_BENCHMARK(RawEVPHMAC_SealChunked);
KX_CRYPTO_BENCHMARK(Container_Encrypt);
KX_CRYPTO_BENCHMARK(Container_EncryptStreaming);
KX_CRYPTO_BENCHMARK(Container_EncryptStreamingOwned);
