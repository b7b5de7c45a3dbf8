// The salted format read back from what the `openssl` tool writes, and its failures.
#include "TZCryptoTestSupport.h"

#include <KXClientFramework/TZOpenSSLDecryptor.h>

#include <gtest/gtest.h>

#include <functional>

using namespace tztest;

namespace {

// Seals `plain` with the tool's salted AES-256-CBC and MD5 key derivation.
Bytes sealWithTool(std::span<const std::uint8_t> plain, const std::string& password) {
    const auto result =
        openssl("enc -aes-256-cbc -md md5 -pass env:KX_TEST_PASSWORD", plain, &password);
    EXPECT_EQ(result.status, 0) << result.errors;
    return result.output;
}

// The same with a fixed salt, so the result is the same on every run. Given the salt, the tool
// writes the ciphertext alone; the header is put in front here.
Bytes sealWithToolAndSalt(std::span<const std::uint8_t> plain, const std::string& password,
                          const Bytes& salt) {
    const auto result = openssl(
        "enc -aes-256-cbc -md md5 -pass env:KX_TEST_PASSWORD -S " + hex(salt), plain, &password);
    EXPECT_EQ(result.status, 0) << result.errors;
    return concat({bytesOf("Salted__"), salt, result.output});
}

}  // namespace

TEST(TZOpenSSLDecryptor, OpensWhatTheToolSealsWithAPassword) {
    struct Case {
        const char* name;
        std::string cipher, password;
        std::uint64_t keySize;  // 16 and 24 both take the tool's AES-128 derivation
        std::vector<std::size_t> lengths;
    };
    const std::vector<Case> cases = {
        {"lengths",
         "aes-256-cbc",
         "application key 1",
         32,
         {0, 1, 15, 16, 17, 1000, 300 * 1024 + 5}},
        // Non-ASCII text and characters a shell would interpret reach the derivation unchanged.
        {"non-ASCII", "aes-256-cbc", "p\xC3\xA4ssw\xC3\xB6rd \xF0\x9F\x94\x91", 32, {28}},
        {"shell characters", "aes-256-cbc", "$(x) 'quote' \"q\" \\", 32, {28}},
        {"empty password", "aes-256-cbc", "", 32, {28}},
        {"AES-128", "aes-128-cbc", "short key", 16, {777}},
        {"24 bytes asked, AES-128 given", "aes-128-cbc", "short key", 24, {777}},
    };
    for (const Case& c : cases) {
        TZCryptorSettings settings = kTZCryptorAES256Settings;
        settings.keySettings.keySize = c.keySize;
        for (const std::size_t length : c.lengths) {
            const auto plain = patternBytes(length, static_cast<std::uint32_t>(length));
            const auto sealed = openssl("enc -" + c.cipher + " -md md5 -pass env:KX_TEST_PASSWORD",
                                        plain, &c.password);
            ASSERT_EQ(sealed.status, 0) << c.name << ": " << sealed.errors;
            ASSERT_EQ(std::string(sealed.output.begin(), sealed.output.begin() + 8), "Salted__");
            KXError error;
            const auto opened =
                TZOpenSSLDecryptor::decryptData(sealed.output, settings, c.password, &error);
            ASSERT_TRUE(opened.has_value())
                << c.name << " " << length << ": " << error.description();
            EXPECT_EQ(*opened, plain) << c.name << " " << length;
        }
    }
}

TEST(TZOpenSSLDecryptor, KeyAndIVDerivationMatchesTheTool) {
    // `openssl enc -P` prints the salt, key and IV it derives.
    const std::string password = "derive me";
    const auto salt = Bytes{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};
    for (const std::string cipher : {"aes-256-cbc", "aes-128-cbc"}) {
        const auto printed =
            openssl("enc -" + cipher + " -md md5 -P -pass env:KX_TEST_PASSWORD -S " + hex(salt),
                    Bytes{}, &password);
        ASSERT_EQ(printed.status, 0) << printed.errors;
        const std::string& text = printed.printed;

        TZCryptorKeyDerivationSettings keySettings = kTZCryptorAES256Settings.keySettings;
        keySettings.keySize = cipher == "aes-256-cbc" ? 32 : 16;
        const auto key = TZOpenSSLCryptorGetKey(password, salt, keySettings);
        const auto IV = TZOpenSSLCryptorGetIV(key, password, salt, keySettings);
        std::string upperKey = hex(key);
        std::string upperIV = hex(std::span(IV).first(16));
        for (auto& c : upperKey)
            c = static_cast<char>(std::toupper(c));
        for (auto& c : upperIV)
            c = static_cast<char>(std::toupper(c));
        EXPECT_NE(text.find("key=" + upperKey), std::string::npos) << text;
        EXPECT_NE(text.find("iv =" + upperIV), std::string::npos) << text;
    }
}

TEST(TZOpenSSLDecryptor, DecryptsRawCiphertextWithKeyAndIV) {
    const auto key = patternBytes(32, 10);
    const auto IV = patternBytes(16, 11);
    const auto plain = patternBytes(70000, 12);
    const auto sealed =
        openssl("enc -aes-256-cbc -nosalt -K " + hex(key) + " -iv " + hex(IV), plain);
    ASSERT_EQ(sealed.status, 0) << sealed.errors;

    const auto opened =
        TZOpenSSLDecryptor::decryptData(sealed.output, kTZCryptorAES256Settings, key, IV);
    ASSERT_TRUE(opened.has_value());
    EXPECT_EQ(*opened, plain);

    // A longer IV is accepted; only its first block counts.
    auto longIV = IV;
    longIV.resize(32, 0xEE);
    const auto openedLong =
        TZOpenSSLDecryptor::decryptData(sealed.output, kTZCryptorAES256Settings, key, longIV);
    ASSERT_TRUE(openedLong.has_value());
    EXPECT_EQ(*openedLong, plain);
}

TEST(TZOpenSSLDecryptor, FailuresAreReportedWithTheirCode) {
    const std::string password = "pw";
    const auto sealed = sealWithToolAndSalt(patternBytes(64, 6), password, patternBytes(8, 77));
    auto renamed = sealed;  // not starting with "Salted__"
    renamed[7] = 'X';
    // Fixed salt and plain text, so the outcome is the same on every run.
    const auto sealedRight = sealWithToolAndSalt(
        patternBytes(100, 5), "right", Bytes{0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77});
    const auto ciphertext = patternBytes(32, 1);
    const auto withPassword = [](const Bytes& data, std::string pw) {
        return [data, pw](KXError* error) {
            return TZOpenSSLDecryptor::decryptData(data, kTZCryptorAES256Settings, pw, error);
        };
    };
    const auto withKey = [&](std::size_t keyLength, std::size_t IVLength) {
        return [&, keyLength, IVLength](KXError* error) {
            return TZOpenSSLDecryptor::decryptData(ciphertext, kTZCryptorAES256Settings,
                                                   patternBytes(keyLength, 2),
                                                   patternBytes(IVLength, 3), error);
        };
    };
    struct Case {
        const char* name;
        std::function<std::optional<Bytes>(KXError*)> open;
        int code;
        const char* description;  // the error's text, where it has one
    };
    const std::vector<Case> cases = {
        {"bad key", withKey(20, 16), TZCryptorStatusKeySizeError, nullptr},
        {"bad IV", withKey(32, 8), TZCryptorStatusParamError, nullptr},
        {"wrong password", withPassword(sealedRight, "wrong"), TZCryptorStatusDecodeError, nullptr},
        {"unknown header", withPassword(renamed, password), TZCryptorErrorUnknownHeader,
         "Unknown header"},
        {"cut inside a block", withPassword(Bytes(sealed.begin(), sealed.end() - 5), password),
         TZCryptorStatusAlignmentError, nullptr},
        {"header alone", withPassword(Bytes(sealed.begin(), sealed.begin() + 16), password),
         TZCryptorStatusAlignmentError, nullptr},
    };
    for (const Case& c : cases) {
        KXError error;
        EXPECT_FALSE(c.open(&error).has_value()) << c.name;
        EXPECT_EQ(error.domain, kTZCryptorErrorDomain) << c.name;
        EXPECT_EQ(error.code, c.code) << c.name;
        if (c.description) {
            EXPECT_EQ(descriptionOf(error), c.description) << c.name;
            EXPECT_EQ(error.localizedDescription(), c.description) << c.name;
        } else if (c.code != TZCryptorStatusParamError && c.code != TZCryptorStatusAlignmentError) {
            EXPECT_TRUE(error.userInfo.is_null()) << c.name;
        }
    }

    // The streaming form returns null and tells its handler.
    Collector collector;
    EXPECT_EQ(TZOpenSSLDecryptor::initWithSettings(kTZCryptorAES256Settings, patternBytes(5, 2),
                                                   patternBytes(16, 3), collector.handler()),
              nullptr);
    ASSERT_TRUE(collector.waitUntilFinished());
    ASSERT_TRUE(collector.error.has_value());
    EXPECT_EQ(collector.error->code, TZCryptorStatusKeySizeError);
}

TEST(TZOpenSSLDecryptor, InputShorterThanTheHeaderGivesNothingAndNoError) {
    const auto sealed = sealWithTool(patternBytes(40, 7), "pw");
    for (std::size_t length = 0; length < 16; ++length) {
        KXError error{"untouched", 42};
        const auto opened = TZOpenSSLDecryptor::decryptData(std::span(sealed).first(length),
                                                            kTZCryptorAES256Settings, "pw", &error);
        ASSERT_TRUE(opened.has_value()) << length;
        EXPECT_TRUE(opened->empty());
        EXPECT_EQ(error.domain, "untouched");
    }
}

TEST(TZOpenSSLDecryptor, UnsupportedEntryPointsGiveNothing) {
    const auto sealed = sealWithTool(patternBytes(20, 8), "pw");
    KXError error{"untouched", 42};
    EXPECT_FALSE(TZOpenSSLDecryptor::decryptData(sealed, "pw", &error));
    EXPECT_FALSE(
        TZOpenSSLDecryptor::decryptData(sealed, patternBytes(32, 1), patternBytes(32, 2), &error));
    EXPECT_EQ(error.domain, "untouched");
    EXPECT_EQ(TZOpenSSLDecryptor::initWithPassword("pw", {}), nullptr);
    EXPECT_EQ(
        TZOpenSSLDecryptor::initWithEncryptionKey(patternBytes(32, 1), patternBytes(32, 2), {}),
        nullptr);
}

TEST(TZOpenSSLDecryptor, HeaderArrivingOneByteAtATimeIsParsedOnItsLastByte) {
    // A wrong magic shows when the header is complete: not before its 16th byte, right at it.
    auto header = bytesOf("Salted_!");
    const auto salt = patternBytes(8, 9);
    header.insert(header.end(), salt.begin(), salt.end());
    Collector collector;
    auto decryptor =
        TZOpenSSLDecryptor::initWithSettings(kTZCryptorAES256Settings, "pw", collector.handler());
    for (std::size_t i = 0; i < 15; ++i) {
        decryptor->addData(std::span(header).subspan(i, 1));
        EXPECT_FALSE(decryptor->isFinished()) << i;
    }
    decryptor->addData(std::span(header).subspan(15, 1));
    EXPECT_TRUE(decryptor->isFinished());
    ASSERT_TRUE(decryptor->error().has_value());
    EXPECT_EQ(decryptor->error()->code, TZCryptorErrorUnknownHeader);
    ASSERT_TRUE(collector.waitUntilFinished());
    EXPECT_EQ(collector.error->code, TZCryptorErrorUnknownHeader);

    // A good header byte by byte, then the ciphertext in uneven pieces, decrypts in order.
    const std::string password = "streamed";
    const auto plain = patternBytes(600 * 1024 + 3, 10);
    const auto sealed = sealWithTool(plain, password);
    Collector streamed;
    auto streaming = TZOpenSSLDecryptor::initWithSettings(kTZCryptorAES256Settings, password,
                                                          streamed.handler());
    std::size_t at = 0;
    for (; at < 16; ++at) {
        streaming->addData(std::span(sealed).subspan(at, 1));
    }
    for (std::size_t piece = 1; at < sealed.size(); piece = piece * 3 + 7) {
        const std::size_t length = std::min(piece, sealed.size() - at);
        streaming->addData(std::span(sealed).subspan(at, length));
        at += length;
    }
    streaming->finish();
    ASSERT_TRUE(streamed.waitUntilFinished());
    EXPECT_FALSE(streamed.error.has_value());
    EXPECT_EQ(streamed.output, plain);
    EXPECT_GT(streamed.calls, 2);
    EXPECT_FALSE(streamed.everOffQueue);
    EXPECT_FALSE(streamed.calledAfterFinishing);
}
