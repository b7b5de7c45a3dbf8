#include "TZCryptoTestSupport.h"

#include <KXClientFramework/TZDecryptor.h>
#include <KXClientFramework/TZEncryptor.h>

#include <gtest/gtest.h>

using namespace tztest;

namespace {

constexpr unsigned kRounds = 10000;

const Bytes kIV = patternBytes(16, 100);
const Bytes kEncryptionSalt = patternBytes(8, 101);
const Bytes kHMACSalt = patternBytes(8, 102);
const Bytes kEncryptionKey = patternBytes(32, 103);
const Bytes kHMACKey = patternBytes(32, 104);

// A password container: version | 1 | salts | IV | AES-256-CBC | HMAC-SHA256. `passwordBytes`
// are the bytes the keys are derived from.
Bytes passwordContainer(std::uint8_t version, std::string_view passwordBytes, const Bytes& plain,
                        bool headerInHMAC = true) {
    const auto encryptionKey = pbkdf2(passwordBytes, kEncryptionSalt, kRounds, 32);
    const auto HMACKey = pbkdf2(passwordBytes, kHMACSalt, kRounds, 32);
    const auto header = concat({Bytes{version, 1}, kEncryptionSalt, kHMACSalt, kIV});
    const auto ciphertext = aesCBC(encryptionKey, kIV, plain);
    const auto body = concat({header, ciphertext});
    return concat({body, hmac("SHA256", HMACKey, headerInHMAC ? body : ciphertext)});
}

// A key container: 3 | 0 | IV | AES-256-CBC | HMAC-SHA256, the HMAC left out when there is no
// HMAC key.
Bytes keyContainer(const Bytes& plain, bool withHMAC = true) {
    const auto body = concat({Bytes{3, 0}, kIV, aesCBC(kEncryptionKey, kIV, plain)});
    return withHMAC ? concat({body, hmac("SHA256", kHMACKey, body)}) : body;
}

// Opens `sealed` with `password`, or with `key` and kHMACKey when there is none.
std::optional<Bytes> open(std::span<const std::uint8_t> sealed, const char* password,
                          KXError* error = nullptr, const Bytes& key = kEncryptionKey) {
    return password ? TZDecryptor::decryptData(sealed, password, error)
                    : TZDecryptor::decryptData(sealed, key, kHMACKey, error);
}

// Opening fails with `code`, and the text of that code or no user info at all.
testing::AssertionResult failsToOpen(std::span<const std::uint8_t> sealed, const char* password,
                                     std::int64_t code, const Bytes& key = kEncryptionKey) {
    KXError error;
    const auto opened = open(sealed, password, &error, key);
    return failedWith(opened, error, code,
                      code == TZCryptorErrorHMACMismatch    ? "HMAC Mismatch"
                      : code == TZCryptorErrorUnknownHeader ? "Unknown header"
                                                            : "");
}

}  // namespace

TEST(TZContainer, BothFormsAreExactlyTheDocumentedLayout) {
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{15}, std::size_t{16}, std::size_t{700000}}) {
        const auto plain = patternBytes(length, 7);
        KXError error;
        const auto withPassword = TZEncryptor::encryptData(plain, kAES, "pass word", kIV,
                                                           kEncryptionSalt, kHMACSalt, &error);
        ASSERT_TRUE(withPassword.has_value()) << error.description();
        EXPECT_EQ(*withPassword, passwordContainer(3, "pass word", plain)) << length;
        const auto withKeys = TZEncryptor::encryptData(plain, kAES, kEncryptionKey, kHMACKey, kIV);
        ASSERT_TRUE(withKeys.has_value());
        EXPECT_EQ(*withKeys, keyContainer(plain)) << length;
        // Containers made without the library open.
        EXPECT_EQ(TZDecryptor::decryptData(passwordContainer(3, "pw", plain), "pw", &error), plain)
            << error.description();
        EXPECT_EQ(open(keyContainer(plain), nullptr, &error), plain) << error.description();
        EXPECT_EQ(TZEncryptor::encryptData(plain, kAES, kEncryptionKey, Bytes{}, kIV),
                  keyContainer(plain, false));
        EXPECT_EQ(TZDecryptor::decryptData(keyContainer(plain, false), kEncryptionKey, Bytes{}),
                  plain);
    }
    // The ciphertext between header and HMAC is what the openssl tool makes of the same input.
    const auto plain = patternBytes(1000, 8);
    const auto sealed = TZEncryptor::encryptData(plain, kAES, kEncryptionKey, kHMACKey, kIV);
    const auto tools =
        openssl("enc -aes-256-cbc -nosalt -K " + hex(kEncryptionKey) + " -iv " + hex(kIV), plain);
    ASSERT_EQ(tools.status, 0) << tools.errors;
    EXPECT_EQ(Bytes(sealed->begin() + 18, sealed->end() - 32), tools.output);
}

TEST(TZEncryptor, RandomIVAndSaltsDifferEveryTimeAndFollowTheSettings) {
    // Other key derivation settings: SHA-256, few rounds, a longer HMAC salt.
    TZCryptorSettings settings = kAES;
    settings.keySettings.rounds = 3;
    settings.keySettings.PRF = 3;
    settings.HMACKeySettings.rounds = 5;
    settings.HMACKeySettings.saltSize = 16;
    const auto plain = patternBytes(100, 12);
    const auto first = TZEncryptor::encryptData(plain, settings, "pw");
    const auto second = TZEncryptor::encryptData(plain, settings, "pw");
    const auto keyed = TZEncryptor::encryptData(plain, settings, kEncryptionKey, kHMACKey);
    const auto keyedAgain = TZEncryptor::encryptData(plain, settings, kEncryptionKey, kHMACKey);
    ASSERT_TRUE(first && second && keyed && keyedAgain);
    // Headers of 2 + 8 + 16 + 16 bytes and 2 + 16; 112 bytes of ciphertext, 32 of HMAC.
    EXPECT_EQ(first->size(), 42u + 112 + 32);
    EXPECT_EQ(keyed->size(), 18u + 112 + 32);
    EXPECT_NE(Bytes(first->begin(), first->begin() + 42),
              Bytes(second->begin(), second->begin() + 42));
    EXPECT_NE(Bytes(keyed->begin(), keyed->begin() + 18),
              Bytes(keyedAgain->begin(), keyedAgain->begin() + 18));
    EXPECT_EQ(TZDecryptor::decryptData(*first, settings, "pw"), plain);
    EXPECT_FALSE(TZDecryptor::decryptData(*first, kAES, "pw"));
    EXPECT_EQ(open(*keyed, nullptr), plain);
}

TEST(TZEncryptor, KeyFormWithOtherSettingsTakesOnlyTheIVLength) {
    // Everything but the IV length comes from kAES.
    TZCryptorSettings settings = kAES;
    settings.IVSize = 24;
    settings.HMACAlgorithm = 0;
    settings.HMACLength = 20;
    settings.options = 0;
    Collector collector;
    auto encryptor =
        TZEncryptor::initWithSettings(settings, kEncryptionKey, kHMACKey, collector.handler());
    ASSERT_NE(encryptor, nullptr);
    const auto IV = encryptor->IV();
    ASSERT_EQ(IV.size(), 24u);
    const auto plain = patternBytes(33, 9);
    ASSERT_TRUE(collector.run(*encryptor, plain));
    // Padded AES-256-CBC with the first block of the IV, and HMAC-SHA256.
    const auto body =
        concat({Bytes{3, 0}, IV, aesCBC(kEncryptionKey, std::span(IV).first(16), plain)});
    EXPECT_EQ(collector.output, concat({body, hmac("SHA256", kHMACKey, body)}));
    TZCryptorSettings reading = kAES;
    reading.IVSize = 24;
    EXPECT_EQ(TZDecryptor::decryptData(collector.output, reading, kEncryptionKey, kHMACKey), plain);
}

TEST(TZEncryptor, BadAndHugeSettingsAreRefusedNotAllocated) {
    const auto x = bytesOf("x");
    const auto sealed = passwordContainer(3, "pw", x);
    const auto with = [](auto change) {
        TZCryptorSettings settings = kAES;
        change(settings);
        return settings;
    };
    const auto hugeIV = with([](auto& s) { s.IVSize = std::uint64_t{1} << 40; });
    const auto noSuchHMAC = with([](auto& s) { s.HMACAlgorithm = 9; });
    KXError error;
    const auto refused = [&](const std::optional<Bytes>& result) {
        return failedWith(result, error, TZCryptorStatusParamError, "");
    };
    for (const auto& settings :
         {hugeIV, noSuchHMAC,
          with([](auto& s) { s.keySettings.saltSize = std::uint64_t{1} << 50; }),
          with([](auto& s) { s.HMACKeySettings.keySize = std::uint64_t{1} << 62; }),
          with([](auto& s) { s.HMACLength = std::uint64_t{1} << 40; }),
          with([](auto& s) { s.IVSize = 8; })}) {
        EXPECT_TRUE(refused(TZEncryptor::encryptData(x, settings, "pw", &error)));
        EXPECT_EQ(TZEncryptor::initWithSettings(settings, "pw", {}), nullptr);
        // Opening: refused once the header is there.
        EXPECT_TRUE(refused(TZDecryptor::decryptData(sealed, settings, "pw", &error)));
    }
    // The random-IV key forms take nothing but the IV length from the settings.
    EXPECT_TRUE(refused(TZEncryptor::encryptData(x, hugeIV, kEncryptionKey, kHMACKey, &error)));
    EXPECT_EQ(TZEncryptor::initWithSettings(hugeIV, kEncryptionKey, kHMACKey, {}), nullptr);
    EXPECT_TRUE(
        refused(TZEncryptor::encryptData(x, noSuchHMAC, kEncryptionKey, kHMACKey, kIV, &error)));
    EXPECT_EQ(TZEncryptor::initWithSettings(noSuchHMAC, kEncryptionKey, kHMACKey, kIV, {}),
              nullptr);
    EXPECT_TRUE(
        failedWith(TZEncryptor::encryptData(x, kAES, patternBytes(17, 1), kHMACKey, kIV, &error),
                   error, TZCryptorStatusKeySizeError, ""));

    // The header and the cipher's output buffer come with the first addData().
    Collector collector;
    TZEncryptor::initWithSettings(kAES, kEncryptionKey, kHMACKey, kIV, collector.handler())
        ->finish();
    ASSERT_TRUE(collector.waitUntilFinished());
    ASSERT_TRUE(collector.error.has_value());
    EXPECT_EQ(collector.error->code, TZCryptorStatusBufferTooSmall);
}

TEST(TZDecryptor, DamagedOrWronglyOpenedContainersFail) {
    const auto byPassword = passwordContainer(3, "pw", bytesOf("abc"));
    const auto byKeys = keyContainer(patternBytes(50, 15));
    for (std::size_t position = 0; position < byKeys.size(); ++position) {
        // At byte 0 these make versions 2, 131, 0, 1, 4 and 255: all but 2 are unknown ones.
        for (const std::uint8_t mask : {0x01, 0x80, 0x03, 0x02, 0x07, 0xFC}) {
            auto changed = byKeys;
            changed[position] ^= mask;
            EXPECT_TRUE(failsToOpen(changed, nullptr,
                                    position == 0 && changed[0] != 2 ? TZCryptorErrorUnknownHeader
                                                                     : TZCryptorErrorHMACMismatch))
                << "byte " << position << " mask " << int(mask);
        }
    }
    // Shorter than the header: nothing, and no error; any longer cut: the HMAC no longer matches.
    for (const char* password : {static_cast<const char*>(nullptr), "pw"}) {
        const auto& sealed = password ? byPassword : byKeys;
        const std::size_t headerLength = password ? 34 : 18;
        // Each opening past the header derives keys: a few lengths of the password form do.
        for (std::size_t length = 0; length < sealed.size();
             length += password && length >= headerLength ? 15 : 1) {
            KXError error{"untouched", 42};
            if (length < headerLength) {
                EXPECT_EQ(open(std::span(sealed).first(length), password, &error), Bytes{});
                EXPECT_EQ(error.domain, "untouched") << length;
            } else {
                EXPECT_TRUE(failsToOpen(std::span(sealed).first(length), password,
                                        TZCryptorErrorHMACMismatch))
                    << length;
            }
        }
    }
    // The version-1 HMAC leaves the header out: read as a current one it does not match.
    const auto plain = bytesOf("first version");
    const auto versionOne = passwordContainer(3, "pw", plain, /*headerInHMAC=*/false);
    EXPECT_TRUE(failsToOpen(versionOne, "pw", TZCryptorErrorHMACMismatch));
    EXPECT_TRUE(failsToOpen(concat({byKeys, Bytes{0}}), nullptr, TZCryptorErrorHMACMismatch));
    EXPECT_TRUE(failsToOpen(byPassword, "wrong", TZCryptorErrorHMACMismatch));
    // Authentic data that does not decrypt: the padding check reports it.
    EXPECT_TRUE(failsToOpen(byKeys, nullptr, TZCryptorStatusDecodeError, patternBytes(32, 99)));
    EXPECT_TRUE(failsToOpen(byKeys, nullptr, TZCryptorStatusKeySizeError, patternBytes(7, 99)));

    // With the version-1 rule it opens.
    Collector collector;
    auto decryptor = TZDecryptor::initWithPassword("pw", collector.handler());
    decryptor->setHasV1HMAC(true);
    ASSERT_TRUE(collector.run(*decryptor, versionOne));
    EXPECT_FALSE(collector.error.has_value());
    EXPECT_EQ(collector.output, plain);
}

TEST(TZDecryptor, VersionTwoTakesThePasswordCutToItsUTF16Length) {
    // "pässwörd" is 8 UTF-16 units and 10 UTF-8 bytes; "🔑key" is 5 units and 7 bytes. Version 3
    // takes all the bytes.
    const std::vector<std::pair<std::string, std::size_t>> passwords = {
        {"p\xC3\xA4ssw\xC3\xB6rd", 8}, {"\xF0\x9F\x94\x91key", 5}, {"ascii", 5}};
    const auto plain = bytesOf("version two");
    for (const auto& [password, cut] : passwords) {
        const std::string_view cutBytes = std::string_view(password).substr(0, cut);
        KXError error;
        EXPECT_EQ(open(passwordContainer(2, cutBytes, plain), password.c_str(), &error), plain)
            << error.description();
        EXPECT_EQ(open(passwordContainer(3, password, plain), password.c_str()), plain);
    }
}

TEST(TZDecryptor, StreamedInputComesOutInOrderBeforeTheHMACVerdict) {
    // An unknown version is refused as soon as the first two bytes are there.
    auto refused = TZDecryptor::initWithEncryptionKey(kEncryptionKey, kHMACKey, {});
    refused->addData(Bytes{7});
    EXPECT_FALSE(refused->isFinished());
    refused->addData(Bytes{0});
    EXPECT_TRUE(refused->isFinished());
    EXPECT_EQ(refused->error()->code, TZCryptorErrorUnknownHeader);
    // Once finished, a decryptor takes nothing more.
    auto finished = TZDecryptor::initWithEncryptionKey(kEncryptionKey, kHMACKey, {});
    EXPECT_EQ(TZCryptor::synchronousResultForCryptor(finished, Bytes{7}), Bytes{});
    finished->addData(std::span<const std::uint8_t>(Bytes{0}));
    EXPECT_FALSE(finished->error().has_value());

    // The header byte by byte, 2000 bytes in pieces of 7, the rest in one moved piece. The
    // largest is decrypted in several chunks, all delivered although its HMAC was changed.
    for (const auto& [withPassword, length, changedHMAC] :
         std::initializer_list<std::tuple<bool, std::size_t, bool>>{
             {false, 5000, false}, {true, 5000, false}, {false, 600 * 1024, true}}) {
        const auto plain = patternBytes(length, 18);
        auto sealed = withPassword ? passwordContainer(3, "pw", plain) : keyContainer(plain);
        sealed.back() ^= changedHMAC ? 1 : 0;
        const std::size_t headerLength = withPassword ? 34 : 18;
        Collector collector;
        auto decryptor = withPassword ? TZDecryptor::initWithPassword("pw", collector.handler())
                                      : TZDecryptor::initWithEncryptionKey(kEncryptionKey, kHMACKey,
                                                                           collector.handler());
        for (std::size_t i = 0; i < headerLength; ++i) {
            EXPECT_EQ(decryptor->HMACLength(), 0u) << i;
            decryptor->addData(std::span(sealed).subspan(i, 1));
        }
        // The header is complete: the HMAC is running and its bytes will be held back.
        EXPECT_EQ(decryptor->HMACLength(), 32u);
        EXPECT_EQ(decryptor->options(), withPassword ? TZCryptorOptionHasPassword : 0);
        std::size_t at = headerLength;
        for (; at < headerLength + 2000; at += 7) {
            decryptor->addData(std::span(sealed).subspan(at, 7));
        }
        decryptor->addData(Bytes(sealed.begin() + static_cast<std::ptrdiff_t>(at), sealed.end()));
        decryptor->finish();
        ASSERT_TRUE(collector.waitUntilFinished());
        EXPECT_EQ(collector.error.has_value(), changedHMAC);
        if (changedHMAC) {
            EXPECT_EQ(collector.error->code, TZCryptorErrorHMACMismatch);
        }
        EXPECT_EQ(collector.output, plain);
    }
}
