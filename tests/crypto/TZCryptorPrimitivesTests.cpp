#include "TZCryptoTestSupport.h"

#include <KXClientFramework/TZCryptor.h>
#include <KXClientFramework/TZCryptorEngine.h>

#include <gtest/gtest.h>

using namespace tztest;

namespace {

int fallback(std::uint32_t algorithm, std::string_view password, std::span<const std::uint8_t> salt,
             std::uint32_t prf, std::uint32_t rounds, Bytes& out) {
    return TZ_CCKeyDerivationPBKDF(algorithm, password.data(), password.size(), salt.data(),
                                   salt.size(), prf, rounds, out.data(), out.size());
}

const Bytes kKey = patternBytes(32, 1);
const Bytes kIV = patternBytes(16, 2);

// A fresh engine's output for `input` fed in pieces of 99 bytes, or nothing when it fails.
std::optional<Bytes> runEngine(TZCryptorOperation operation, const TZCryptorSettings& settings,
                               std::span<const std::uint8_t> key,
                               std::span<const std::uint8_t> input, KXError* error = nullptr) {
    auto engine = TZCryptorEngine::initWithOperation(operation, settings, key, kIV, error);
    Bytes output;
    for (std::size_t at = 0; engine && at < input.size(); at += 99) {
        const auto piece =
            engine->addData(input.subspan(at, std::min<std::size_t>(99, input.size() - at)), error);
        if (!piece) {
            return std::nullopt;
        }
        EXPECT_EQ(piece->size() % 16, 0u);  // whole blocks only
        output.insert(output.end(), piece->begin(), piece->end());
    }
    const auto last = engine ? engine->finishWithError(error) : std::nullopt;
    if (!last) {
        return std::nullopt;
    }
    output.insert(output.end(), last->begin(), last->end());
    return output;
}

}  // namespace

TEST(TZ_CCKeyDerivationPBKDF, MatchesOpenSSLForEveryPRF) {
    const char* digests[] = {"SHA1", "SHA224", "SHA256", "SHA384", "SHA512"};
    const auto shortSalt = patternBytes(1, 1);
    const auto longSalt = patternBytes(132, 2);
    for (std::uint32_t prf = 1; prf <= 5; ++prf) {
        for (const std::size_t length : {1u, 20u, 21u, 28u, 32u, 48u, 64u, 65u, 150u}) {
            for (const std::uint32_t rounds : {1u, 2u, 1000u}) {
                for (const auto* salt : {&shortSalt, &longSalt}) {
                    // An empty password is a valid one.
                    for (const std::string_view password : {"password", ""}) {
                        Bytes derived(length, 0xAA);
                        ASSERT_EQ(fallback(2, password, *salt, prf, rounds, derived), 0);
                        EXPECT_EQ(derived,
                                  pbkdf2(password, *salt, rounds, length, digests[prf - 1]))
                            << prf << " " << length << " " << rounds << " " << salt->size();
                    }
                }
            }
        }
    }
}

TEST(TZ_CCKeyDerivationPBKDF, RefusesWhatItCannotDoAndWritesNothing) {
    const auto salt = patternBytes(133, 4);
    // Algorithm, salt length, rounds, output length; a refusal writes nothing.
    const int cases[][5] = {{0, 8, 1, 32, -1}, {1, 8, 1, 32, -1},   {3, 8, 1, 32, -1},
                            {2, 0, 1, 32, -1}, {2, 133, 1, 32, -1}, {2, 8, 0, 32, -1},
                            {2, 8, 1, 0, -1},  {2, 132, 1, 16, 0},  {2, 1, 1, 16, 0}};
    for (const auto& [algorithm, saltLength, rounds, length, status] : cases) {
        Bytes derived(std::max(length, 1), 0x5A);
        EXPECT_EQ(TZ_CCKeyDerivationPBKDF(algorithm, "pw", 2, salt.data(), saltLength, 1, rounds,
                                          derived.data(), length),
                  status)
            << algorithm << " " << saltLength << " " << rounds << " " << length;
        if (status != 0) {
            EXPECT_EQ(derived, Bytes(derived.size(), 0x5A));
        }
    }
    // An unknown PRF works in blocks of one byte: with one round, byte i is the first byte of
    // HMAC-SHA1(P, S || INT(i+1)).
    Bytes derived(5);
    ASSERT_EQ(fallback(2, "pw", std::span(salt).first(8), 0, 1, derived), 0);
    for (std::uint8_t i = 0; i < derived.size(); ++i) {
        const auto block = concat({std::span(salt).first(8), Bytes{0, 0, 0, std::uint8_t(i + 1)}});
        EXPECT_EQ(derived[i], hmac("SHA1", bytesOf("pw"), block)[0]) << int(i);
    }
}

TEST(TZCryptorKeyForPassword, IsPBKDF2AsTheSettingsSayAndZeroWhenRefused) {
    const auto salt = patternBytes(8, 6);
    struct Case {
        const char *name, *password, *used;  // `used`: the bytes PBKDF2 is expected to take
        std::uint32_t algorithm, PRF, rounds, keySize;
        bool v2;
        Bytes salt;
        const char* digest;  // or a zero key
    };
    // Version 2 cuts the password to its number of UTF-16 units.
    const Case cases[] = {
        {"defaults", "pw", "pw", 2, 1, 10000, 32, false, salt, "SHA1"},
        {"SHA256, 7 rounds, 40 bytes", "pw", "pw", 2, 3, 7, 40, false, salt, "SHA256"},
        {"empty salt", "pw", "pw", 2, 1, 2, 32, false, {}, "SHA1"},
        {"zero rounds", "pw", "pw", 2, 1, 0, 32, false, salt, nullptr},
        {"unknown algorithm", "pw", "pw", 1, 1, 2, 32, false, salt, nullptr},
        {"unknown PRF", "pw", "pw", 2, 6, 2, 32, false, salt, nullptr},
        {"v2, 3 units in 5 bytes", "\xC3\xA9t\xC3\xA9", "\xC3\xA9t", 2, 1, 5, 32, true, salt,
         "SHA1"},
        {"v2, 2 units in 4 bytes", "\xE2\x82\xAC\x31", "\xE2\x82", 2, 1, 5, 32, true, salt, "SHA1"},
        {"v2, a surrogate pair and 1 unit in 5 bytes", "\xF0\x9F\x94\x91\x61", "\xF0\x9F\x94", 2, 1,
         5, 32, true, salt, "SHA1"},
        {"v2, bytes that are not UTF-8 count one unit each", "\xFF\xFE\x61\x62", "\xFF\xFE\x61\x62",
         2, 1, 5, 32, true, salt, "SHA1"},
        {"v2, empty", "", "", 2, 1, 5, 32, true, salt, "SHA1"},
    };
    for (const Case& c : cases) {
        TZCryptorKeyDerivationSettings settings = kAES.keySettings;
        settings.PBKDFAlgorithm = c.algorithm;
        settings.PRF = c.PRF;
        settings.rounds = c.rounds;
        settings.keySize = c.keySize;
        settings.hasV2Password = c.v2;
        EXPECT_EQ(
            TZCryptor::keyForPassword(c.password, c.salt, settings),
            c.digest ? pbkdf2(c.used, c.salt, c.rounds, c.keySize, c.digest) : Bytes(c.keySize, 0))
            << c.name;
    }
    TZCryptorKeyDerivationSettings huge = kAES.keySettings;
    huge.keySize = std::uint64_t{1} << 40;
    EXPECT_TRUE(TZCryptor::keyForPassword("pw", salt, huge).empty());
}

TEST(TZCryptorSmallHelpers, RandomDataConsumeAndConsistentTimeComparison) {
    EXPECT_TRUE(TZCryptor::randomDataOfLength(0).empty());
    const auto random = TZCryptor::randomDataOfLength(32);
    EXPECT_EQ(random.size(), 32u);
    EXPECT_NE(random, TZCryptor::randomDataOfLength(32));

    Bytes data{1, 2, 3, 4, 5};
    EXPECT_EQ(TZConsumeToIndex(data, 2), (Bytes{1, 2}));
    EXPECT_EQ(TZConsumeToIndex(data, 0), Bytes{});
    EXPECT_EQ(data, (Bytes{3, 4, 5}));
    EXPECT_EQ(TZConsumeToIndex(data, 10), (Bytes{3, 4, 5}));
    EXPECT_TRUE(data.empty());

    // Equal only when both are; repetitions of the shorter one still differ by length.
    EXPECT_TRUE(tzc_isEqualInConsistentTime(Bytes{}, Bytes{}));
    EXPECT_TRUE(tzc_isEqualInConsistentTime(bytesOf("ab"), bytesOf("ab")));
    const char* const differing[][2] = {{"", "ab"}, {"ab", ""}, {"ab", "abab"}, {"abab", "ab"}};
    for (const auto& [a, b] : differing) {
        EXPECT_FALSE(tzc_isEqualInConsistentTime(bytesOf(a), bytesOf(b))) << a << " " << b;
    }
    const auto mac = patternBytes(32, 1);
    for (std::size_t i = 0; i < mac.size(); ++i) {
        auto changed = mac;
        changed[i] ^= 0x10;
        EXPECT_FALSE(tzc_isEqualInConsistentTime(mac, changed)) << i;
    }
}

TEST(TZCryptorEngine, MatchesTheToolInEveryModeAndKeyLength) {
    const auto plain = patternBytes(63 * 16, 4);
    for (const std::size_t keyLength : {16u, 24u, 32u}) {
        const auto key = patternBytes(keyLength, 5);
        const std::string bits = std::to_string(keyLength * 8);
        // Options: 1 PKCS#7 padding, 2 ECB, which has no IV.
        for (const std::uint32_t options : {0u, 1u, 2u, 3u}) {
            TZCryptorSettings settings = kAES;
            settings.options = options;
            const bool ecb = (options & 2) != 0;
            const auto tools = openssl("enc -aes-" + bits + (ecb ? "-ecb" : "-cbc") +
                                           ((options & 1) != 0 ? "" : " -nopad") + " -nosalt -K " +
                                           hex(key) + (ecb ? "" : " -iv " + hex(kIV)),
                                       plain);
            ASSERT_EQ(tools.status, 0) << tools.errors;
            EXPECT_EQ(runEngine(TZCryptorOperation::Encrypt, settings, key, plain), tools.output)
                << bits << " options " << options;
            EXPECT_EQ(runEngine(TZCryptorOperation::Decrypt, settings, key, tools.output), plain)
                << bits << " options " << options;
        }
    }
}

TEST(TZCryptorEngine, RefusesWhatItCannotDoAndReportsFinalBlockFailures) {
    KXError error;
    const auto refused = [&](std::uint32_t algorithm, std::uint32_t options, std::size_t keyLength,
                             std::size_t IVLength, std::int64_t status) {
        TZCryptorSettings settings = kAES;
        settings.algorithm = algorithm;
        settings.options = options;
        const auto engine = TZCryptorEngine::initWithOperation(
            TZCryptorOperation::Decrypt, settings, std::span(kKey).first(keyLength),
            std::span(kIV).first(IVLength), &error);
        return engine == nullptr && failedWith(std::nullopt, error, status, "");
    };
    EXPECT_TRUE(refused(1, 1, 32, 16, TZCryptorStatusUnimplemented));  // DES
    EXPECT_TRUE(refused(0, 4, 32, 16, TZCryptorStatusParamError));     // no such option
    EXPECT_TRUE(refused(0, 1, 0, 16, TZCryptorStatusKeySizeError));
    EXPECT_TRUE(refused(0, 1, 31, 16, TZCryptorStatusKeySizeError));
    EXPECT_TRUE(refused(0, 1, 32, 15, TZCryptorStatusParamError));
    // ECB needs no IV. A finished engine takes nothing more.
    TZCryptorSettings ecb = kAES;
    ecb.options = 3;
    auto finished =
        TZCryptorEngine::initWithOperation(TZCryptorOperation::Encrypt, ecb, kKey, Bytes{});
    ASSERT_TRUE(finished && finished->addData(kKey) && finished->finishWithError());
    EXPECT_FALSE(finished->addData(kKey, &error));
    EXPECT_TRUE(
        failedWith(finished->finishWithError(&error), error, TZCryptorStatusCallSequenceError, ""));

    // A cut block and no block at all are alignment faults, a last block that does not unpad a
    // decode fault; an encryption finished without any input has no room for its padding block.
    const auto sealed = aesCBC(kKey, kIV, patternBytes(40, 3));
    const auto fails = [&](std::span<const std::uint8_t> input, const Bytes& key,
                           std::int64_t status,
                           TZCryptorOperation operation = TZCryptorOperation::Decrypt) {
        return failedWith(runEngine(operation, kAES, key, input, &error), error, status, "");
    };
    EXPECT_TRUE(fails(std::span(sealed).first(39), kKey, TZCryptorStatusAlignmentError));
    EXPECT_TRUE(fails({}, kKey, TZCryptorStatusAlignmentError));
    EXPECT_TRUE(fails(sealed, patternBytes(32, 9), TZCryptorStatusDecodeError));
    EXPECT_TRUE(fails({}, kKey, TZCryptorStatusBufferTooSmall, TZCryptorOperation::Encrypt));
}
