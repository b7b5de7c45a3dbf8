// The salted format, both ways against the `openssl` tool, and its failures.
#include "TZCryptoTestSupport.h"

#include <KXClientFramework/TZOpenSSLDecryptor.h>
#include <KXClientFramework/TZOpenSSLEncryptor.h>

#include <gtest/gtest.h>

#include <functional>

using namespace tztest;

namespace {

// The tool's salted AES-CBC with MD5 key derivation: seals, or with `-d` opens.
ToolResult tool(const std::string& options, std::span<const std::uint8_t> input,
                const std::string& password, const std::string& cipher = "aes-256-cbc") {
    return openssl("enc " + options + " -" + cipher + " -md md5 -pass env:KX_TEST_PASSWORD", input,
                   &password);
}

// Sealed by the tool with a fixed salt, so the result is the same on every run. Given the salt,
// the tool writes the ciphertext alone; the header is put in front here.
Bytes sealWithToolAndSalt(std::span<const std::uint8_t> plain, const std::string& password,
                          const Bytes& salt) {
    const auto result = tool("-S " + hex(salt), plain, password);
    EXPECT_EQ(result.status, 0) << result.errors;
    return concat({bytesOf("Salted__"), salt, result.output});
}

}  // namespace

TEST(TZOpenSSLFormat, TheToolAndTheLibraryOpenWhatTheOtherSeals) {
    const std::size_t chunk = std::size_t{256} * 1024;
    struct Case {
        const char* name;
        std::string cipher, password;
        std::uint64_t keySize;  // 16 and 24 both take the tool's AES-128 derivation
        std::vector<std::size_t> lengths;
    };
    const std::vector<Case> cases = {
        {"lengths",
         "aes-256-cbc",
         "app key \xE2\x82\xAC",
         32,
         {0, 1, 15, 16, 17, 31, chunk - 1, chunk, chunk + 1, 3 * chunk + 100}},
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
            SCOPED_TRACE(testing::Message() << c.name << ", " << length << " bytes");
            const auto plain = patternBytes(length, static_cast<std::uint32_t>(length));
            const auto bySealed = tool("", plain, c.password, c.cipher);
            ASSERT_EQ(bySealed.status, 0) << bySealed.errors;
            KXError error;
            EXPECT_EQ(
                TZOpenSSLDecryptor::decryptData(bySealed.output, settings, c.password, &error),
                plain)
                << error.description();

            // "Salted__", 8 bytes of salt, then whole blocks, at least one.
            const auto sealed =
                TZOpenSSLEncryptor::encryptData(plain, settings, c.password, &error);
            ASSERT_TRUE(sealed.has_value()) << error.description();
            ASSERT_EQ(sealed->size(), 16 + (length / 16 + 1) * 16);
            EXPECT_EQ(std::string(sealed->begin(), sealed->begin() + 8), "Salted__");
            const auto opened = tool("-d", *sealed, c.password, c.cipher);
            ASSERT_EQ(opened.status, 0) << opened.errors;
            EXPECT_EQ(opened.output, plain);
            EXPECT_EQ(TZOpenSSLDecryptor::decryptData(*sealed, settings, c.password), plain);
            // Every sealing has its own salt.
            const auto again = TZOpenSSLEncryptor::encryptData(plain, settings, c.password);
            EXPECT_NE(Bytes(again->begin() + 8, again->begin() + 16),
                      Bytes(sealed->begin() + 8, sealed->begin() + 16));
        }
    }
}

TEST(TZOpenSSLFormat, KeyAndIVDerivationMatchesTheTool) {
    // `openssl enc -P` prints the salt, key and IV it derives.
    const std::string password = "derive me";
    const auto salt = Bytes{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};
    for (const std::string cipher : {"aes-256-cbc", "aes-128-cbc"}) {
        const auto printed = tool("-P -S " + hex(salt), Bytes{}, password, cipher);
        ASSERT_EQ(printed.status, 0) << printed.errors;
        const std::string text(printed.output.begin(), printed.output.end());

        TZCryptorKeyDerivationSettings keySettings = kTZCryptorAES256Settings.keySettings;
        keySettings.keySize = cipher == "aes-256-cbc" ? 32 : 16;
        const auto key = TZOpenSSLCryptorGetKey(password, salt, keySettings);
        const auto IV = TZOpenSSLCryptorGetIV(key, password, salt, keySettings);
        EXPECT_NE(text.find("key=" + hex(key)), std::string::npos) << text;
        EXPECT_NE(text.find("iv =" + hex(std::span(IV).first(16))), std::string::npos) << text;
    }
}

TEST(TZOpenSSLFormat, RawKeyAndIVGiveAndTakeTheToolsCiphertext) {
    const auto key = patternBytes(32, 20);
    const auto IV = patternBytes(16, 21);
    auto longIV = IV;  // a longer IV is accepted; only its first block counts
    longIV.resize(32, 0xEE);
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{5}, std::size_t{48}, std::size_t{300000}}) {
        const auto plain = patternBytes(length, 22);
        const auto tools =
            openssl("enc -aes-256-cbc -nosalt -K " + hex(key) + " -iv " + hex(IV), plain);
        ASSERT_EQ(tools.status, 0) << tools.errors;
        EXPECT_EQ(TZOpenSSLEncryptor::encryptData(plain, kTZCryptorAES256Settings, key, IV),
                  tools.output)
            << length;
        EXPECT_EQ(TZOpenSSLDecryptor::decryptData(tools.output, kTZCryptorAES256Settings, key, IV),
                  plain)
            << length;
        EXPECT_EQ(
            TZOpenSSLDecryptor::decryptData(tools.output, kTZCryptorAES256Settings, key, longIV),
            plain)
            << length;
    }
}

TEST(TZOpenSSLFormat, FailuresAreReportedWithTheirCode) {
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
    const auto sealWithKey = [](KXError* error) {
        return TZOpenSSLEncryptor::encryptData(bytesOf("x"), kTZCryptorAES256Settings,
                                               patternBytes(31, 1), patternBytes(16, 2), error);
    };
    struct Case {
        const char* name;
        std::function<std::optional<Bytes>(KXError*)> run;
        int code;
        const char* description;  // the error's text, where it has one
    };
    const std::vector<Case> cases = {
        {"bad key", withKey(20, 16), TZCryptorStatusKeySizeError, nullptr},
        {"bad IV", withKey(32, 8), TZCryptorStatusParamError, nullptr},
        {"sealing with a bad key", sealWithKey, TZCryptorStatusKeySizeError, nullptr},
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
        EXPECT_TRUE(failedWith(c.run(&error), error, c.code, c.description)) << c.name;
        if (c.description) {
            EXPECT_EQ(error.localizedDescription(), c.description) << c.name;
        } else if (c.code != TZCryptorStatusParamError && c.code != TZCryptorStatusAlignmentError) {
            EXPECT_TRUE(error.userInfo.is_null()) << c.name;
        }
    }

    // The streaming forms return null; the decryptor also tells its handler.
    EXPECT_EQ(TZOpenSSLEncryptor::initWithSettings(kTZCryptorAES256Settings, patternBytes(31, 1),
                                                   patternBytes(16, 2), {}),
              nullptr);
    Collector collector;
    EXPECT_EQ(TZOpenSSLDecryptor::initWithSettings(kTZCryptorAES256Settings, patternBytes(5, 2),
                                                   patternBytes(16, 3), collector.handler()),
              nullptr);
    ASSERT_TRUE(collector.waitUntilFinished());
    ASSERT_TRUE(collector.error.has_value());
    EXPECT_EQ(collector.error->code, TZCryptorStatusKeySizeError);
}

TEST(TZOpenSSLFormat, ShortInputAndUnsupportedEntryPointsGiveNothingAndNoError) {
    const auto sealed = tool("", patternBytes(40, 7), "pw").output;
    ASSERT_EQ(sealed.size(), 64u);
    KXError error{"untouched", 42};
    for (std::size_t length = 0; length < 16; ++length) {
        const auto opened = TZOpenSSLDecryptor::decryptData(std::span(sealed).first(length),
                                                            kTZCryptorAES256Settings, "pw", &error);
        ASSERT_TRUE(opened.has_value()) << length;
        EXPECT_TRUE(opened->empty());
    }
    EXPECT_FALSE(TZOpenSSLDecryptor::decryptData(sealed, "pw", &error));
    EXPECT_FALSE(
        TZOpenSSLDecryptor::decryptData(sealed, patternBytes(32, 1), patternBytes(32, 2), &error));
    EXPECT_EQ(error.domain, "untouched");
    EXPECT_EQ(TZOpenSSLDecryptor::initWithPassword("pw", {}), nullptr);
    EXPECT_EQ(
        TZOpenSSLDecryptor::initWithEncryptionKey(patternBytes(32, 1), patternBytes(32, 2), {}),
        nullptr);
}

TEST(TZOpenSSLFormat, TheDecryptorParsesAHeaderArrivingByteByByteOnItsLastByte) {
    // A wrong magic shows when the header is complete: not before its 16th byte, right at it.
    const auto header = concat({bytesOf("Salted_!"), patternBytes(8, 9)});
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
    const auto plain = patternBytes(600 * 1024 + 3, 10);
    const auto sealed = tool("", plain, "streamed").output;
    Collector streamed;
    auto streaming = TZOpenSSLDecryptor::initWithSettings(kTZCryptorAES256Settings, "streamed",
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

TEST(TZOpenSSLFormat, StreamingPutsTheHeaderInFrontOfTheFirstChunk) {
    Collector collector;
    auto encryptor = TZOpenSSLEncryptor::initWithSettings(kTZCryptorAES256Settings, "streaming",
                                                          collector.handler());
    ASSERT_NE(encryptor, nullptr);
    EXPECT_EQ(encryptor->options() & TZCryptorOptionHasPassword, TZCryptorOptionHasPassword);
    const auto header = encryptor->header();
    ASSERT_EQ(header.size(), 16u);
    EXPECT_EQ(header, concat({bytesOf("Salted__"), encryptor->encryptionSalt()}));

    const auto plain = patternBytes(100000, 30);
    encryptor->addData(std::span(plain).first(10));
    encryptor->addData(std::span(plain).subspan(10, 50000));
    encryptor->addData(Bytes(plain.begin() + 50010, plain.end()));
    encryptor->finish();
    ASSERT_TRUE(collector.waitUntilFinished());
    EXPECT_FALSE(collector.error.has_value());

    ASSERT_EQ(collector.chunks.size(), 4u);  // three pieces and the final block
    EXPECT_EQ(collector.chunks[0], header);  // 10 bytes make no block yet: the header alone
    const auto opened = tool("-d", collector.output, "streaming");
    ASSERT_EQ(opened.status, 0) << opened.errors;
    EXPECT_EQ(opened.output, plain);
}

TEST(TZOpenSSLFormat, DataAfterFinishIsIgnored) {
    Collector collector;
    const auto key = patternBytes(32, 1);
    const auto IV = patternBytes(16, 2);
    auto encryptor = TZOpenSSLEncryptor::initWithSettings(kTZCryptorAES256Settings, key, IV,
                                                          collector.handler());
    encryptor->addData(bytesOf("kept"));
    encryptor->finish();
    encryptor->addData(bytesOf("dropped"));
    encryptor->finish();
    ASSERT_TRUE(collector.waitUntilFinished());
    EXPECT_FALSE(collector.calledAfterFinishing);
    EXPECT_EQ(TZOpenSSLDecryptor::decryptData(collector.output, kTZCryptorAES256Settings, key, IV),
              bytesOf("kept"));
}
