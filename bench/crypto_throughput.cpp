// Throughput of the sealed-data cryptors on 64 MiB against raw OpenSSL EVP in the same run.
//
// Baselines: AES-256-CBC through EVP (the salted format), plus HMAC-SHA256 over header and
// ciphertext (the container), each once into a fresh output vector ("cold", what the
// synchronous calls return) and once into a buffer kept across iterations ("warm", what a
// streaming consumer writes into). The library's forms: the synchronous calls, and the streaming
// cryptors fed 1 MiB at a time with a handler that copies into the warm buffer.
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

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <span>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kSize = 64 * 1024 * 1024;
constexpr std::size_t kPiece = 1024 * 1024;
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

Bytes rawCipher(bool encrypt, std::span<const std::uint8_t> input, const Bytes& key = kKey, const Bytes& IV = kIV) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    Bytes output(input.size() + 16);
    int written = 0;
    int last = 0;
    require(EVP_CipherInit_ex2(context, EVP_aes_256_cbc(), key.data(), IV.data(), encrypt ? 1 : 0, nullptr) == 1);
    require(EVP_CipherUpdate(context, output.data(), &written, input.data(), static_cast<int>(input.size())) == 1);
    require(EVP_CipherFinal_ex(context, output.data() + written, &last) == 1);
    EVP_CIPHER_CTX_free(context);
    output.resize(static_cast<std::size_t>(written + last));
    return output;
}

// EVP into `output` (already large enough); returns the bytes written.
std::size_t rawCipherInto(bool encrypt, std::span<const std::uint8_t> input, std::uint8_t* output,
                          const Bytes& key = kKey, const Bytes& IV = kIV) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    int written = 0;
    int last = 0;
    require(EVP_CipherInit_ex2(context, EVP_aes_256_cbc(), key.data(), IV.data(), encrypt ? 1 : 0, nullptr) == 1);
    require(EVP_CipherUpdate(context, output, &written, input.data(), static_cast<int>(input.size())) == 1);
    require(EVP_CipherFinal_ex(context, output + written, &last) == 1);
    EVP_CIPHER_CTX_free(context);
    return static_cast<std::size_t>(written + last);
}

Bytes rawHMAC(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second) {
    static EVP_MAC* mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    EVP_MAC_CTX* context = EVP_MAC_CTX_new(mac);
    OSSL_PARAM params[2] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>("SHA256"), 0),
                            OSSL_PARAM_construct_end()};
    require(EVP_MAC_init(context, kHMACKey.data(), kHMACKey.size(), params) == 1);
    require(EVP_MAC_update(context, first.data(), first.size()) == 1);
    require(EVP_MAC_update(context, second.data(), second.size()) == 1);
    Bytes digest(32);
    std::size_t length = 0;
    require(EVP_MAC_final(context, digest.data(), &length, digest.size()) == 1);
    EVP_MAC_CTX_free(context);
    return digest;
}

// The raw container: header, ciphertext and HMAC in one output buffer.
Bytes rawContainerSeal(std::span<const std::uint8_t> input) {
    Bytes sealed(18 + input.size() + 16 + 32);
    sealed[0] = 3;
    sealed[1] = 0;
    std::memcpy(sealed.data() + 2, kIV.data(), kIV.size());
    const std::size_t written = rawCipherInto(true, input, sealed.data() + 18);
    const Bytes digest = rawHMAC(std::span(sealed).first(18), std::span(sealed).subspan(18, written));
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
    static const Bytes sealed = *TZOpenSSLEncryptor::encryptData(plain(), kTZCryptorAES256Settings, kPassword);
    return sealed;
}

const Bytes& sealedContainer() {
    static const Bytes sealed = rawContainerSeal(plain());
    return sealed;
}

// MARK: - Streaming helper

// Feeds `input` to `cryptor` 1 MiB at a time; the handler appends to one reserved vector.
template <typename Make>
std::size_t stream(Make make, std::span<const std::uint8_t> input) {
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
        cryptor->addData(input.subspan(at, std::min(kPiece, input.size() - at)));
    }
    cryptor->finish();
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return finished; });
    require(!failed);
    return length;
}

void finishRun(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(kSize));
}

// MARK: - Salted format

void RawEVP_Decrypt(benchmark::State& state) {
    // The baseline's key and IV come from EVP_BytesToKey once, outside the timing.
    const auto salt = std::span(sealedSalted()).subspan(8, 8);
    Bytes key(32);
    Bytes IV(16);
    require(EVP_BytesToKey(EVP_aes_256_cbc(), EVP_md5(), salt.data(), reinterpret_cast<const unsigned char*>(kPassword),
                           static_cast<int>(std::strlen(kPassword)), 1, key.data(), IV.data()) == 32);
    const auto ciphertext = std::span(sealedSalted()).subspan(16);
    for (auto _ : state) {
        benchmark::DoNotOptimize(rawCipher(false, ciphertext, key, IV));
    }
    finishRun(state);
}

void RawEVP_DecryptWarm(benchmark::State& state) {
    const auto salt = std::span(sealedSalted()).subspan(8, 8);
    Bytes key(32);
    Bytes IV(16);
    require(EVP_BytesToKey(EVP_aes_256_cbc(), EVP_md5(), salt.data(), reinterpret_cast<const unsigned char*>(kPassword),
                           static_cast<int>(std::strlen(kPassword)), 1, key.data(), IV.data()) == 32);
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

void Salted_Decrypt(benchmark::State& state) {
    for (auto _ : state) {
        auto opened = TZOpenSSLDecryptor::decryptData(sealedSalted(), kTZCryptorAES256Settings, kPassword);
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

void Salted_DecryptStreaming(benchmark::State& state) {
    for (auto _ : state) {
        auto opened = stream(
            [](TZCryptorHandler handler) {
                return TZOpenSSLDecryptor::initWithSettings(kTZCryptorAES256Settings, kPassword, std::move(handler));
            },
            sealedSalted());
        require(opened == kSize);
        benchmark::DoNotOptimize(opened);
    }
    finishRun(state);
}

void Salted_EncryptStreaming(benchmark::State& state) {
    for (auto _ : state) {
        auto sealed = stream(
            [](TZCryptorHandler handler) {
                return TZOpenSSLEncryptor::initWithSettings(kTZCryptorAES256Settings, kPassword, std::move(handler));
            },
            plain());
        benchmark::DoNotOptimize(sealed);
    }
    finishRun(state);
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
        benchmark::DoNotOptimize(rawCipherInto(false, sealed.subspan(18, sealed.size() - 50), warmBuffer().data()));
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
        auto sealed = TZEncryptor::encryptData(plain(), kTZCryptorAES256Settings, kKey, kHMACKey, kIV);
        require(sealed.has_value() && *sealed == sealedContainer());
        benchmark::DoNotOptimize(sealed);
    }
    finishRun(state);
}

void Container_DecryptStreaming(benchmark::State& state) {
    for (auto _ : state) {
        auto opened = stream(
            [](TZCryptorHandler handler) {
                return TZDecryptor::initWithEncryptionKey(kKey, kHMACKey, std::move(handler));
            },
            sealedContainer());
        require(opened == kSize);
        benchmark::DoNotOptimize(opened);
    }
    finishRun(state);
}

void Container_EncryptStreaming(benchmark::State& state) {
    for (auto _ : state) {
        auto sealed = stream(
            [](TZCryptorHandler handler) {
                return TZEncryptor::initWithSettings(kTZCryptorAES256Settings, kKey, kHMACKey, kIV, std::move(handler));
            },
            plain());
        benchmark::DoNotOptimize(sealed);
    }
    finishRun(state);
}

}  // namespace

#define KX_CRYPTO_BENCHMARK(name) BENCHMARK(name)->Unit(benchmark::kMillisecond)->UseRealTime()

KX_CRYPTO_BENCHMARK(RawEVP_Decrypt);
KX_CRYPTO_BENCHMARK(RawEVP_DecryptWarm);
KX_CRYPTO_BENCHMARK(Salted_Decrypt);
KX_CRYPTO_BENCHMARK(Salted_DecryptStreaming);
KX_CRYPTO_BENCHMARK(RawEVP_Encrypt);
KX_CRYPTO_BENCHMARK(RawEVP_EncryptWarm);
KX_CRYPTO_BENCHMARK(Salted_Encrypt);
KX_CRYPTO_BENCHMARK(Salted_EncryptStreaming);
KX_CRYPTO_BENCHMARK(RawEVPHMAC_Open);
KX_CRYPTO_BENCHMARK(RawEVPHMAC_OpenWarm);
KX_CRYPTO_BENCHMARK(Container_Decrypt);
KX_CRYPTO_BENCHMARK(Container_DecryptStreaming);
KX_CRYPTO_BENCHMARK(RawEVPHMAC_Seal);
KX_CRYPTO_BENCHMARK(RawEVPHMAC_SealWarm);
KX_CRYPTO_BENCHMARK(Container_Encrypt);
KX_CRYPTO_BENCHMARK(Container_EncryptStreaming);
