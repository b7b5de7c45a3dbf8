// Key derivation, the fallback PBKDF2, random bytes, the byte helpers and the cipher engine.
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

// A fresh engine's output for `input` in one piece, or nothing when it fails.
std::optional<Bytes> runEngine(TZCryptorOperation operation, const TZCryptorSettings& settings,
                               std::span<const std::uint8_t> key,
                               std::span<const std::uint8_t> input, KXError* error = nullptr) {
    auto engine = TZCryptorEngine::initWithOperation(operation, settings, key, kIV, error);
    auto output = !engine         ? std::nullopt
                  : input.empty() ? std::optional<Bytes>(Bytes{})
                                  : engine->addData(input, error);
    const auto last = output ? engine->finishWithError(error) : std::nullopt;
    if (!last) {
        return std::nullopt;
    }
    output->insert(output->end(), last->begin(), last->end());
    return output;
}

}  // namespace

// MARK: - Fallback PBKDF2

TEST(TZ_CCKeyDerivationPBKDF, MatchesOpenSSLForEveryPRF) {
    const char* digests[] = {"SHA1", "SHA224", "SHA256", "SHA384", "SHA512"};
    const auto shortSalt = patternBytes(1, 1);
    const auto longSalt = patternBytes(132, 2);
    for (std::uint32_t prf = 1; prf <= 5; ++prf) {
        for (const std::size_t length : {1u, 20u, 21u, 28u, 32u, 48u, 64u, 65u, 150u}) {
            for (const std::uint32_t rounds : {1u, 2u, 1000u}) {
                for (const auto* salt : {&shortSalt, &longSalt}) {
                    Bytes derived(length, 0xAA);
                    ASSERT_EQ(fallback(2, "password", *salt, prf, rounds, derived), 0);
                    EXPECT_EQ(derived, pbkdf2("password", *salt, rounds, length, digests[prf - 1]))
                        << "prf " << prf << " length " << length << " rounds " << rounds << " salt "
                        << salt->size();
                }
            }
        }
    }
    // An empty password is a valid one.
    Bytes derived(32);
    ASSERT_EQ(fallback(2, "", shortSalt, 1, 10, derived), 0);
    EXPECT_EQ(derived, pbkdf2("", shortSalt, 10, 32));
}

TEST(TZ_CCKeyDerivationPBKDF, RefusesWhatItCannotDoAndWritesNothing) {
    const auto salt = patternBytes(8, 3);
    struct Case {
        const char* name;
        std::uint32_t algorithm;
        std::size_t saltLength;
        std::uint32_t rounds;
        std::size_t length;
    };
    const Case refused[] = {
        {"algorithm 0", 0, 8, 1, 32}, {"algorithm 1", 1, 8, 1, 32},   {"algorithm 3", 3, 8, 1, 32},
        {"empty salt", 2, 0, 1, 32},  {"salt of 133", 2, 133, 1, 32}, {"zero rounds", 2, 8, 0, 32},
        {"empty output", 2, 8, 1, 0},
    };
    const auto bigSalt = patternBytes(133, 4);
    for (const auto& c : refused) {
        Bytes derived(std::max<std::size_t>(c.length, 1), 0x5A);
        const std::uint8_t* saltBytes = c.saltLength > 8 ? bigSalt.data() : salt.data();
        EXPECT_EQ(TZ_CCKeyDerivationPBKDF(c.algorithm, "pw", 2, saltBytes, c.saltLength, 1,
                                          c.rounds, derived.data(), c.length),
                  -1)
            << c.name;
        EXPECT_EQ(derived, Bytes(derived.size(), 0x5A)) << c.name;
    }
    // The limits themselves are accepted.
    Bytes derived(16);
    EXPECT_EQ(fallback(2, "pw", std::span(bigSalt).first(132), 1, 1, derived), 0);
    EXPECT_EQ(fallback(2, "pw", std::span(bigSalt).first(1), 1, 1, derived), 0);
}

TEST(TZ_CCKeyDerivationPBKDF, UnknownPRFWorksOneByteAtATime) {
    // Blocks of one byte: with one round, byte i is the first byte of HMAC-SHA1(P, S || INT(i+1)).
    const auto salt = patternBytes(8, 5);
    Bytes derived(5);
    ASSERT_EQ(fallback(2, "pw", salt, 0, 1, derived), 0);
    for (std::uint32_t i = 0; i < derived.size(); ++i) {
        const auto block = concat({salt, Bytes{0, 0, 0, static_cast<std::uint8_t>(i + 1)}});
        EXPECT_EQ(derived[i], hmac("SHA1", bytesOf("pw"), block)[0]) << i;
    }
}

// MARK: - Password keys

TEST(TZCryptorKeyForPassword, IsPBKDF2AsTheSettingsSayAndZeroWhenRefused) {
    const auto salt = patternBytes(8, 6);
    struct Case {
        const char* name;
        void (*change)(TZCryptorKeyDerivationSettings&);
        Bytes salt, expected;
    };
    const Case cases[] = {
        {"defaults", [](auto&) {}, salt, pbkdf2("pw", salt, 10000, 32, "SHA1")},
        {"SHA256, 7 rounds, 40 bytes",
         [](auto& s) {
             s.PRF = 3;
             s.rounds = 7;
             s.keySize = 40;
         },
         salt, pbkdf2("pw", salt, 7, 40, "SHA256")},
        {"empty salt", [](auto& s) { s.rounds = 2; }, Bytes{}, pbkdf2("pw", Bytes{}, 2, 32)},
        {"zero rounds", [](auto& s) { s.rounds = 0; }, salt, Bytes(32, 0)},
        {"unknown algorithm", [](auto& s) { s.PBKDFAlgorithm = 1; }, salt, Bytes(32, 0)},
        {"unknown PRF", [](auto& s) { s.PRF = 6; }, salt, Bytes(32, 0)},
    };
    for (const Case& c : cases) {
        TZCryptorKeyDerivationSettings settings = kTZCryptorAES256Settings.keySettings;
        c.change(settings);
        EXPECT_EQ(TZCryptor::keyForPassword("pw", c.salt, settings), c.expected) << c.name;
    }
}

TEST(TZCryptorKeyForPassword, VersionTwoRuleCutsNonASCIIPasswords) {
    const auto salt = patternBytes(8, 7);
    TZCryptorKeyDerivationSettings v2 = kTZCryptorAES256Settings.keySettings;
    v2.rounds = 5;
    v2.hasV2Password = true;
    struct Case {
        std::string password;
        std::string used;
    };
    const Case cases[] = {
        {"plain", "plain"},
        {"\xC3\xA9t\xC3\xA9", "\xC3\xA9t"},  // "été": 3 units, 5 bytes
        {"\xE2\x82\xAC"
         "1",
         "\xE2\x82"},  // "€1": 2 units, 4 bytes
        {"\xF0\x9F\x94\x91"
         "a",
         "\xF0\x9F\x94"},  // "🔑a": 3 units (a surrogate pair), 5 bytes
        {"\xFF\xFE"
         "ab",
         "\xFF\xFE"
         "ab"},  // bytes that are not UTF-8 count one unit each
        {"", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(TZCryptor::keyForPassword(c.password, salt, v2), pbkdf2(c.used, salt, 5, 32))
            << c.used;
    }
}

// MARK: - Small helpers

TEST(TZCryptorRandomData, HasTheLengthAskedForAndVaries) {
    EXPECT_TRUE(TZCryptor::randomDataOfLength(0).empty());
    const auto first = TZCryptor::randomDataOfLength(32);
    const auto second = TZCryptor::randomDataOfLength(32);
    EXPECT_EQ(first.size(), 32u);
    EXPECT_NE(first, second);
    EXPECT_NE(first, Bytes(32, 0));
    EXPECT_EQ(TZCryptor::randomDataOfLength(100000).size(), 100000u);
}

TEST(TZConsumeToIndex, TakesTheFrontAndKeepsTheRest) {
    Bytes data{1, 2, 3, 4, 5};
    EXPECT_EQ(TZConsumeToIndex(data, 2), (Bytes{1, 2}));
    EXPECT_EQ(data, (Bytes{3, 4, 5}));
    EXPECT_EQ(TZConsumeToIndex(data, 0), Bytes{});
    EXPECT_EQ(data, (Bytes{3, 4, 5}));
    EXPECT_EQ(TZConsumeToIndex(data, 10), (Bytes{3, 4, 5}));
    EXPECT_TRUE(data.empty());
}

TEST(TZConsistentTimeComparison, Results) {
    const Bytes empty;
    const Bytes ab{'a', 'b'};
    EXPECT_TRUE(tzc_isEqualInConsistentTime(empty, empty));
    EXPECT_FALSE(tzc_isEqualInConsistentTime(empty, ab));
    EXPECT_FALSE(tzc_isEqualInConsistentTime(ab, empty));
    EXPECT_TRUE(tzc_isEqualInConsistentTime(ab, Bytes{'a', 'b'}));
    EXPECT_FALSE(tzc_isEqualInConsistentTime(ab, Bytes{'a', 'c'}));
    EXPECT_FALSE(tzc_isEqualInConsistentTime(ab, Bytes{'b', 'b'}));
    // Repetitions of the shorter one still differ by length.
    EXPECT_FALSE(tzc_isEqualInConsistentTime(ab, Bytes{'a', 'b', 'a', 'b'}));
    EXPECT_FALSE(tzc_isEqualInConsistentTime(Bytes{'a', 'b', 'a', 'b'}, ab));
    const auto mac = patternBytes(32, 1);
    for (std::size_t i = 0; i < mac.size(); ++i) {
        auto changed = mac;
        changed[i] ^= 0x10;
        EXPECT_FALSE(tzc_isEqualInConsistentTime(mac, changed)) << i;
    }
}

// MARK: - Engine

TEST(TZCryptorEngine, StreamsLikeOneCall) {
    const auto plain = patternBytes(1000, 3);
    auto encryptor = TZCryptorEngine::initWithOperation(TZCryptorOperation::Encrypt,
                                                        kTZCryptorAES256Settings, kKey, kIV);
    ASSERT_NE(encryptor, nullptr);
    Bytes sealed;
    for (std::size_t at = 0; at < plain.size(); at += 99) {
        const auto piece = encryptor->addData(
            std::span(plain).subspan(at, std::min<std::size_t>(99, plain.size() - at)));
        ASSERT_TRUE(piece.has_value());
        EXPECT_EQ(piece->size() % 16, 0u);
        sealed.insert(sealed.end(), piece->begin(), piece->end());
    }
    const auto last = encryptor->finishWithError();
    ASSERT_TRUE(last.has_value());
    sealed.insert(sealed.end(), last->begin(), last->end());
    EXPECT_EQ(sealed, aesCBC(true, kKey, kIV, plain));
    EXPECT_EQ(runEngine(TZCryptorOperation::Decrypt, kTZCryptorAES256Settings, kKey, sealed),
              plain);

    KXError error;
    EXPECT_FALSE(encryptor->addData(plain, &error));
    EXPECT_EQ(error.code, TZCryptorStatusCallSequenceError);
}

TEST(TZCryptorEngine, OtherModesMatchTheTool) {
    const auto plain = patternBytes(64, 4);
    for (const std::size_t keyLength : {16u, 24u, 32u}) {
        const auto key = patternBytes(keyLength, 5);
        const std::string bits = std::to_string(keyLength * 8);
        const std::vector<std::pair<std::uint32_t, std::string>> modes = {
            {0, "aes-" + bits + "-cbc -nopad"},
            {2, "aes-" + bits + "-ecb -nopad"},
            {3, "aes-" + bits + "-ecb"},
            {1, "aes-" + bits + "-cbc"}};
        for (const auto& [options, tool] : modes) {
            TZCryptorSettings settings = kTZCryptorAES256Settings;
            settings.options = options;
            std::string arguments = "enc -" + tool;
            arguments += " -nosalt -K " + hex(key);
            if ((options & 2) == 0) {  // ECB has no IV
                arguments += " -iv " + hex(kIV);
            }
            const auto tools = openssl(arguments, plain);
            ASSERT_EQ(tools.status, 0) << tools.errors;
            EXPECT_EQ(runEngine(TZCryptorOperation::Encrypt, settings, key, plain), tools.output)
                << tool;
        }
    }
}

TEST(TZCryptorEngine, RefusesWhatItCannotDo) {
    struct Case {
        const char* name;
        std::uint32_t algorithm;
        std::uint32_t options;
        std::size_t keyLength;
        std::size_t IVLength;
        std::int64_t status;
    };
    for (const Case& c : {Case{"DES", 1, 1, 32, 16, TZCryptorStatusUnimplemented},
                          Case{"unknown option", 0, 4, 32, 16, TZCryptorStatusParamError},
                          Case{"key of 0", 0, 1, 0, 16, TZCryptorStatusKeySizeError},
                          Case{"key of 31", 0, 1, 31, 16, TZCryptorStatusKeySizeError},
                          Case{"IV of 15", 0, 1, 32, 15, TZCryptorStatusParamError}}) {
        TZCryptorSettings settings = kTZCryptorAES256Settings;
        settings.algorithm = c.algorithm;
        settings.options = c.options;
        KXError error;
        EXPECT_EQ(TZCryptorEngine::initWithOperation(TZCryptorOperation::Decrypt, settings,
                                                     std::span(kKey).first(c.keyLength),
                                                     std::span(kIV).first(c.IVLength), &error),
                  nullptr)
            << c.name;
        EXPECT_EQ(error.domain, kTZCryptorErrorDomain) << c.name;
        EXPECT_EQ(error.code, c.status) << c.name;
    }
    // ECB needs no IV.
    TZCryptorSettings ecb = kTZCryptorAES256Settings;
    ecb.options = 3;
    EXPECT_NE(TZCryptorEngine::initWithOperation(TZCryptorOperation::Encrypt, ecb, kKey, Bytes{}),
              nullptr);
}

TEST(TZCryptorEngine, FinalBlockFailures) {
    const auto sealed = aesCBC(true, kKey, kIV, patternBytes(40, 3));
    const auto finish = [](std::span<const std::uint8_t> input, std::span<const std::uint8_t> key,
                           TZCryptorOperation operation = TZCryptorOperation::Decrypt) {
        KXError error;
        EXPECT_FALSE(runEngine(operation, kTZCryptorAES256Settings, key, input, &error));
        return error.code;
    };
    EXPECT_EQ(finish(std::span(sealed).first(sealed.size() - 1), kKey),
              TZCryptorStatusAlignmentError);
    EXPECT_EQ(finish(Bytes{}, kKey), TZCryptorStatusAlignmentError);
    EXPECT_EQ(finish(sealed, patternBytes(32, 9)), TZCryptorStatusDecodeError);
    // An encryption finished without any input has no room for its padding block.
    EXPECT_EQ(finish(Bytes{}, kKey, TZCryptorOperation::Encrypt), TZCryptorStatusBufferTooSmall);
}
