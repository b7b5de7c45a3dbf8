// The versioned container, checked against containers the tests put together themselves from
// OpenSSL's PBKDF2, HMAC-SHA256 and AES-256-CBC.
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
    const auto ciphertext = aesCBC(true, encryptionKey, kIV, plain);
    const auto body = concat({header, ciphertext});
    return concat({body, hmac("SHA256", HMACKey, headerInHMAC ? body : ciphertext)});
}

// A key container: 3 | 0 | IV | AES-256-CBC | HMAC-SHA256.
Bytes keyContainer(const Bytes& plain) {
    const auto body = concat({Bytes{3, 0}, kIV, aesCBC(true, kEncryptionKey, kIV, plain)});
    return concat({body, hmac("SHA256", kHMACKey, body)});
}

std::optional<Bytes> openWithKeys(std::span<const std::uint8_t> sealed, KXError* error = nullptr) {
    return TZDecryptor::decryptData(sealed, kEncryptionKey, kHMACKey, error);
}

testing::AssertionResult HMACMismatch(const std::optional<Bytes>& opened, const KXError& error) {
    return failedWith(opened, error, TZCryptorErrorHMACMismatch, "HMAC Mismatch");
}

}  // namespace

// MARK: - Writing

TEST(TZContainer, BothFormsAreExactlyTheDocumentedLayout) {
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{15}, std::size_t{16}, std::size_t{700000}}) {
        const auto plain = patternBytes(length, 7);
        KXError error;
        const auto withPassword = TZEncryptor::encryptData(
            plain, kTZCryptorAES256Settings, "pass word", kIV, kEncryptionSalt, kHMACSalt, &error);
        ASSERT_TRUE(withPassword.has_value()) << error.description();
        EXPECT_EQ(*withPassword, passwordContainer(3, "pass word", plain)) << length;
        const auto withKeys = TZEncryptor::encryptData(plain, kTZCryptorAES256Settings,
                                                       kEncryptionKey, kHMACKey, kIV);
        ASSERT_TRUE(withKeys.has_value());
        EXPECT_EQ(*withKeys, keyContainer(plain)) << length;
        // Containers made without the library open.
        EXPECT_EQ(TZDecryptor::decryptData(passwordContainer(3, "pw", plain), "pw", &error), plain)
            << error.description();
        EXPECT_EQ(openWithKeys(keyContainer(plain), &error), plain) << error.description();
    }
    // The ciphertext between header and HMAC is what the openssl tool makes of the same input.
    const auto plain = patternBytes(1000, 8);
    const auto sealed =
        TZEncryptor::encryptData(plain, kTZCryptorAES256Settings, kEncryptionKey, kHMACKey, kIV);
    const auto tools =
        openssl("enc -aes-256-cbc -nosalt -K " + hex(kEncryptionKey) + " -iv " + hex(kIV), plain);
    ASSERT_EQ(tools.status, 0) << tools.errors;
    EXPECT_EQ(Bytes(sealed->begin() + 18, sealed->end() - 32), tools.output);
}

TEST(TZEncryptor, RandomIVAndSaltsDifferEveryTime) {
    // One byte: header, one block, HMAC: 34 + 16 + 32 with a password, 18 + 16 + 32 with keys.
    const auto first = TZEncryptor::encryptData(bytesOf("x"), kTZCryptorAES256Settings, "pw");
    const auto second = TZEncryptor::encryptData(bytesOf("x"), kTZCryptorAES256Settings, "pw");
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->size(), 82u);
    EXPECT_EQ(Bytes(first->begin(), first->begin() + 2), (Bytes{3, TZCryptorOptionHasPassword}));
    EXPECT_NE(Bytes(first->begin() + 2, first->begin() + 34),
              Bytes(second->begin() + 2, second->begin() + 34));
    EXPECT_EQ(TZDecryptor::decryptData(*first, "pw"), bytesOf("x"));
    EXPECT_EQ(TZDecryptor::decryptData(*second, "pw"), bytesOf("x"));

    const auto withKeys =
        TZEncryptor::encryptData(bytesOf("x"), kTZCryptorAES256Settings, kEncryptionKey, kHMACKey);
    ASSERT_TRUE(withKeys.has_value());
    EXPECT_EQ(withKeys->size(), 66u);
    EXPECT_EQ(Bytes(withKeys->begin(), withKeys->begin() + 2), (Bytes{3, 0}));
    EXPECT_EQ(openWithKeys(*withKeys), bytesOf("x"));
}

TEST(TZEncryptor, KeyFormWithOtherSettingsTakesOnlyTheIVLength) {
    // Everything but the IV length comes from kTZCryptorAES256Settings.
    TZCryptorSettings settings = kTZCryptorAES256Settings;
    settings.IVSize = 24;
    settings.HMACAlgorithm = 0;
    settings.HMACLength = 20;
    settings.options = 0;
    Collector collector;
    auto encryptor =
        TZEncryptor::initWithSettings(settings, kEncryptionKey, kHMACKey, collector.handler());
    ASSERT_NE(encryptor, nullptr);
    EXPECT_EQ(encryptor->IV().size(), 24u);
    EXPECT_EQ(encryptor->HMACLength(), 32u);
    const auto plain = patternBytes(33, 9);
    ASSERT_TRUE(collector.run(*encryptor, plain));
    ASSERT_FALSE(collector.error.has_value());
    const Bytes& sealed = collector.output;

    const Bytes IV(sealed.begin() + 2, sealed.begin() + 26);
    EXPECT_EQ(IV, encryptor->IV());
    const auto body = Bytes(sealed.begin(), sealed.end() - 32);
    EXPECT_EQ(Bytes(sealed.end() - 32, sealed.end()), hmac("SHA256", kHMACKey, body));
    // Padded AES-256-CBC with the first block of the IV.
    EXPECT_EQ(Bytes(body.begin() + 26, body.end()),
              aesCBC(true, kEncryptionKey, std::span(IV).first(16), plain));

    TZCryptorSettings reading = kTZCryptorAES256Settings;
    reading.IVSize = 24;
    EXPECT_EQ(TZDecryptor::decryptData(sealed, reading, kEncryptionKey, kHMACKey), plain);
}

TEST(TZEncryptor, WithoutAnHMACKeyNoHMACIsWritten) {
    const auto plain = patternBytes(40, 10);
    const auto sealed =
        TZEncryptor::encryptData(plain, kTZCryptorAES256Settings, kEncryptionKey, Bytes{}, kIV);
    ASSERT_TRUE(sealed.has_value());
    EXPECT_EQ(*sealed, concat({Bytes{3, 0}, kIV, aesCBC(true, kEncryptionKey, kIV, plain)}));
    EXPECT_EQ(TZDecryptor::decryptData(*sealed, kEncryptionKey, Bytes{}), plain);
}

TEST(TZEncryptor, BadAndHugeSettingsAreRefusedNotAllocated) {
    using Change = void (*)(TZCryptorSettings&);
    const auto changed = [](Change change) {
        TZCryptorSettings settings = kTZCryptorAES256Settings;
        change(settings);
        return settings;
    };
    const auto x = bytesOf("x");
    KXError error;
    for (const Change change :
         {+[](TZCryptorSettings& s) { s.IVSize = std::uint64_t{1} << 40; },
          +[](TZCryptorSettings& s) { s.keySettings.saltSize = std::uint64_t{1} << 50; },
          +[](TZCryptorSettings& s) { s.HMACKeySettings.keySize = std::uint64_t{1} << 62; },
          +[](TZCryptorSettings& s) { s.HMACLength = std::uint64_t{1} << 40; }}) {
        const auto settings = changed(change);
        EXPECT_TRUE(failedWith(TZEncryptor::encryptData(x, settings, "pw", &error), error,
                               TZCryptorStatusParamError));
        EXPECT_EQ(TZEncryptor::initWithSettings(settings, "pw", {}), nullptr);
        // Opening: refused once the header is there.
        EXPECT_TRUE(failedWith(
            TZDecryptor::decryptData(passwordContainer(3, "pw", x), settings, "pw", &error), error,
            TZCryptorStatusParamError));
    }
    const auto hugeIV = changed([](auto& s) { s.IVSize = std::uint64_t{1} << 40; });
    EXPECT_TRUE(failedWith(TZEncryptor::encryptData(x, hugeIV, kEncryptionKey, kHMACKey, &error),
                           error, TZCryptorStatusParamError));
    EXPECT_EQ(TZEncryptor::initWithSettings(hugeIV, kEncryptionKey, kHMACKey, {}), nullptr);
    const auto noSuchHMAC = changed([](auto& s) { s.HMACAlgorithm = 9; });
    EXPECT_TRUE(
        failedWith(TZEncryptor::encryptData(x, noSuchHMAC, kEncryptionKey, kHMACKey, kIV, &error),
                   error, TZCryptorStatusParamError));
    EXPECT_EQ(TZEncryptor::initWithSettings(noSuchHMAC, kEncryptionKey, kHMACKey, kIV, {}),
              nullptr);
    EXPECT_TRUE(failedWith(
        TZEncryptor::encryptData(x, changed([](auto& s) { s.IVSize = 8; }), "pw", &error), error,
        TZCryptorStatusParamError));
    EXPECT_TRUE(failedWith(TZEncryptor::encryptData(x, kTZCryptorAES256Settings,
                                                    patternBytes(17, 1), kHMACKey, kIV, &error),
                           error, TZCryptorStatusKeySizeError));

    TZCryptorKeyDerivationSettings hugeKey = kTZCryptorAES256Settings.keySettings;
    hugeKey.keySize = std::uint64_t{1} << 40;
    EXPECT_TRUE(TZCryptor::keyForPassword("pw", kEncryptionSalt, hugeKey).empty());
}

TEST(TZEncryptor, FinishingBeforeAnyDataFails) {
    // The header and the cipher's output buffer come with the first addData().
    Collector collector;
    auto encryptor = TZEncryptor::initWithSettings(kTZCryptorAES256Settings, kEncryptionKey,
                                                   kHMACKey, kIV, collector.handler());
    encryptor->finish();
    ASSERT_TRUE(collector.waitUntilFinished());
    ASSERT_TRUE(collector.error.has_value());
    EXPECT_EQ(collector.error->code, TZCryptorStatusBufferTooSmall);
}

// MARK: - Reading

TEST(TZDecryptor, RoundTripsWithOtherKeyDerivationSettings) {
    const auto plain = patternBytes(1 << 20, 12);
    TZCryptorSettings settings = kTZCryptorAES256Settings;
    settings.keySettings.rounds = 3;
    settings.keySettings.PRF = 3;
    settings.HMACKeySettings.rounds = 5;
    settings.HMACKeySettings.saltSize = 16;
    const auto custom = TZEncryptor::encryptData(plain, settings, "round trip");
    ASSERT_TRUE(custom.has_value());
    EXPECT_EQ(custom->size(), 2 + 8 + 16 + 16 + plain.size() + 16 + 32);
    EXPECT_EQ(TZDecryptor::decryptData(*custom, settings, "round trip"), plain);
    EXPECT_FALSE(TZDecryptor::decryptData(*custom, kTZCryptorAES256Settings, "round trip"));
}

TEST(TZDecryptor, EveryChangedByteIsCaught) {
    const auto sealed = keyContainer(patternBytes(40, 13));
    ASSERT_EQ(sealed.size(), 18u + 48u + 32u);
    for (std::size_t position = 0; position < sealed.size(); ++position) {
        // At byte 0 these make versions 2, 131, 0, 1, 4 and 255.
        for (const std::uint8_t mask : {0x01, 0x80, 0x03, 0x02, 0x07, 0xFC}) {
            auto changed = sealed;
            changed[position] ^= mask;
            KXError error;
            const auto opened = openWithKeys(changed, &error);
            // An unknown version is refused before anything else.
            EXPECT_TRUE(
                position == 0 && changed[0] != 2
                    ? failedWith(opened, error, TZCryptorErrorUnknownHeader, "Unknown header")
                    : HMACMismatch(opened, error))
                << "byte " << position << " mask " << int(mask);
        }
    }
}

TEST(TZDecryptor, TruncatedExtendedOrWronglyOpenedContainersAreCaught) {
    // Shorter than the header: nothing, and no error; longer: the HMAC no longer matches.
    for (const bool withPassword : {false, true}) {
        const auto sealed = withPassword ? passwordContainer(3, "pw", bytesOf("abc"))
                                         : keyContainer(patternBytes(50, 15));
        const std::size_t headerLength = withPassword ? 34 : 18;
        const auto open = [&](std::span<const std::uint8_t> data, KXError* error) {
            return withPassword ? TZDecryptor::decryptData(data, "pw", error)
                                : openWithKeys(data, error);
        };
        // Each opening past the header derives keys: a few lengths of the password form do.
        for (std::size_t length = 0; length < sealed.size();
             length += withPassword && length >= headerLength ? 15 : 1) {
            KXError error{"untouched", 42};
            const auto opened = open(std::span(sealed).first(length), &error);
            if (length < headerLength) {
                ASSERT_TRUE(opened.has_value()) << length;
                EXPECT_TRUE(opened->empty());
                EXPECT_EQ(error.domain, "untouched");
            } else {
                EXPECT_TRUE(HMACMismatch(opened, error)) << "length " << length;
            }
        }
        KXError error;
        EXPECT_TRUE(HMACMismatch(open(concat({sealed, Bytes{0}}), &error), error));
        if (withPassword) {
            EXPECT_TRUE(HMACMismatch(TZDecryptor::decryptData(sealed, "wrong", &error), error));
        }
    }
}

TEST(TZDecryptor, AnUnknownVersionIsRefusedAsSoonAsTheFirstTwoBytesAreThere) {
    auto decryptor = TZDecryptor::initWithEncryptionKey(kEncryptionKey, kHMACKey, {});
    decryptor->addData(Bytes{7});
    EXPECT_FALSE(decryptor->isFinished());
    decryptor->addData(Bytes{0});
    EXPECT_TRUE(decryptor->isFinished());
    EXPECT_EQ(decryptor->error()->code, TZCryptorErrorUnknownHeader);
}

TEST(TZDecryptor, VersionTwoTakesThePasswordCutToItsUTF16Length) {
    // "pässwörd" is 8 UTF-16 units and 10 UTF-8 bytes; "🔑key" is 5 units and 7 bytes.
    const std::vector<std::pair<std::string, std::size_t>> passwords = {
        {"p\xC3\xA4ssw\xC3\xB6rd", 8}, {"\xF0\x9F\x94\x91key", 5}};
    const auto plain = bytesOf("version two");
    for (const auto& [password, cut] : passwords) {
        const std::string_view oldBytes = std::string_view(password).substr(0, cut);
        KXError error;
        EXPECT_EQ(TZDecryptor::decryptData(passwordContainer(2, oldBytes, plain), password, &error),
                  plain)
            << error.description();
        // The same container marked version 3 needs the full password bytes.
        EXPECT_TRUE(HMACMismatch(
            TZDecryptor::decryptData(passwordContainer(3, oldBytes, plain), password, &error),
            error));
        EXPECT_EQ(TZDecryptor::decryptData(passwordContainer(3, password, plain), password), plain);
        // A version-2 container cannot have been made from the full bytes.
        EXPECT_TRUE(HMACMismatch(
            TZDecryptor::decryptData(passwordContainer(2, password, plain), password, &error),
            error));
    }
    // ASCII passwords are the same either way.
    EXPECT_EQ(TZDecryptor::decryptData(passwordContainer(2, "ascii", plain), "ascii"), plain);

    // Reading a version-2 header switches the decryptor's key settings to that rule.
    auto decryptor = TZDecryptor::initWithPassword("ascii", {});
    decryptor->addData(passwordContainer(2, "ascii", plain));
    EXPECT_TRUE(decryptor->settings().keySettings.hasV2Password);
    EXPECT_TRUE(decryptor->settings().HMACKeySettings.hasV2Password);
}

TEST(TZDecryptor, VersionOneHMACLeavesTheHeaderOut) {
    const auto plain = bytesOf("first version");
    const auto sealed = passwordContainer(3, "pw", plain, /*headerInHMAC=*/false);
    KXError error;
    EXPECT_TRUE(HMACMismatch(TZDecryptor::decryptData(sealed, "pw", &error), error));

    Collector collector;
    auto decryptor = TZDecryptor::initWithPassword("pw", collector.handler());
    decryptor->setHasV1HMAC(true);
    ASSERT_TRUE(collector.run(*decryptor, sealed));
    EXPECT_FALSE(collector.error.has_value());
    EXPECT_EQ(collector.output, plain);
}

TEST(TZDecryptor, WrongEncryptionKeyWithTheRightHMACKeyIsACipherFailure) {
    // Authentic data that does not decrypt: the padding check reports it.
    const auto sealed = keyContainer(patternBytes(64, 16));
    KXError error;
    EXPECT_TRUE(failedWith(TZDecryptor::decryptData(sealed, patternBytes(32, 99), kHMACKey, &error),
                           error, TZCryptorStatusDecodeError));
    EXPECT_TRUE(error.userInfo.is_null());
    EXPECT_TRUE(failedWith(TZDecryptor::decryptData(sealed, patternBytes(7, 99), kHMACKey, &error),
                           error, TZCryptorStatusKeySizeError));
}

TEST(TZDecryptor, WithoutAnHMACKeyTheHMACIsTakenAsCiphertext) {
    const auto plain = patternBytes(48, 17);
    Collector collector;
    auto decryptor =
        TZDecryptor::initWithEncryptionKey(kEncryptionKey, Bytes{}, collector.handler());
    ASSERT_TRUE(collector.run(*decryptor, keyContainer(plain)));
    EXPECT_EQ(decryptor->HMACLength(), 0u);
    // Everything before the last block was delivered: the plain text, its padding block, and the
    // first HMAC block turned into garbage.
    ASSERT_GE(collector.output.size(), plain.size() + 16);
    EXPECT_EQ(Bytes(collector.output.begin(), collector.output.begin() + 48), plain);
    EXPECT_EQ(Bytes(collector.output.begin() + 48, collector.output.begin() + 64), Bytes(16, 16));
    if (collector.error) {
        EXPECT_EQ(collector.error->code, TZCryptorStatusDecodeError);
    }
}

TEST(TZDecryptor, HeaderArrivingOneByteAtATime) {
    const auto plain = patternBytes(5000, 18);
    for (const bool withPassword : {false, true}) {
        const auto sealed = withPassword ? passwordContainer(3, "pw", plain) : keyContainer(plain);
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
        for (std::size_t i = headerLength; i < sealed.size(); i += 7) {
            decryptor->addData(
                std::span(sealed).subspan(i, std::min<std::size_t>(7, sealed.size() - i)));
        }
        decryptor->finish();
        ASSERT_TRUE(collector.waitUntilFinished());
        EXPECT_FALSE(collector.error.has_value());
        EXPECT_EQ(collector.output, plain);
    }
}

TEST(TZDecryptor, PlainChunksArriveBeforeTheHMACVerdict) {
    const auto plain = patternBytes(600 * 1024, 19);
    auto sealed = keyContainer(plain);
    sealed.back() ^= 1;
    Collector collector;
    auto decryptor =
        TZDecryptor::initWithEncryptionKey(kEncryptionKey, kHMACKey, collector.handler());
    decryptor->addData(std::move(sealed));
    decryptor->finish();
    ASSERT_TRUE(collector.waitUntilFinished());
    ASSERT_TRUE(collector.error.has_value());
    EXPECT_EQ(collector.error->code, TZCryptorErrorHMACMismatch);
    EXPECT_EQ(collector.output, plain);
}
