// The salted format read back from what the `openssl` tool writes, and its failures.
#include "TZCryptoTestSupport.h"

#include <KXClientFramework/TZOpenSSLDecryptor.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

using namespace tztest;

namespace {

TZCryptorSettings settingsWithKeySize(std::uint64_t keySize) {
    TZCryptorSettings settings = kTZCryptorAES256Settings;
    settings.keySettings.keySize = keySize;
    return settings;
}

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

// Collects what a streaming cryptor hands to its handler.
struct Collector {
    std::mutex mutex;
    std::condition_variable changed;
    Bytes output;
    int calls = 0;
    bool finished = false;
    bool everOffQueue = false;
    bool finishedBeforeLastCall = false;
    std::optional<KXError> error;

    TZCryptorHandler handler() {
        return [this](TZCryptor& cryptor, std::span<const std::uint8_t> data) {
            std::lock_guard lock(mutex);
            ++calls;
            if (!cryptor.responseQueue().running_in_this_thread()) {
                everOffQueue = true;
            }
            if (finished) {
                finishedBeforeLastCall = true;  // a call after the last one
            }
            output.insert(output.end(), data.begin(), data.end());
            if (cryptor.isFinished()) {
                finished = true;
                error = cryptor.error();
                changed.notify_all();
            }
        };
    }

    void waitUntilFinished() {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(30), [this] { return finished; }));
    }
};

}  // namespace

TEST(TZOpenSSLDecryptor, OpensWhatTheToolSealsWithAPassword) {
    const std::string password = "application key 1";
    for (const std::size_t length : {0u, 1u, 15u, 16u, 17u, 1000u, 300u * 1024u + 5u}) {
        const auto plain = patternBytes(length, static_cast<std::uint32_t>(length));
        const auto sealed = sealWithTool(plain, password);
        ASSERT_EQ(std::string(sealed.begin(), sealed.begin() + 8), "Salted__");

        KXError error;
        const auto opened =
            TZOpenSSLDecryptor::decryptData(sealed, kTZCryptorAES256Settings, password, &error);
        ASSERT_TRUE(opened.has_value()) << length << ": " << error.description();
        EXPECT_EQ(*opened, plain) << length;
    }
}

TEST(TZOpenSSLDecryptor, PasswordBytesAreTakenAsTheyAre) {
    // Non-ASCII text and characters a shell would interpret reach the derivation unchanged.
    for (const std::string password :
         {"p\xC3\xA4ssw\xC3\xB6rd \xF0\x9F\x94\x91", "$(x) 'quote' \"q\" \\", ""}) {
        const auto plain = bytesOf("<plist>configuration</plist>");
        const auto sealed = sealWithTool(plain, password);
        const auto opened =
            TZOpenSSLDecryptor::decryptData(sealed, kTZCryptorAES256Settings, password);
        ASSERT_TRUE(opened.has_value()) << password;
        EXPECT_EQ(*opened, plain);
    }
}

TEST(TZOpenSSLDecryptor, SixteenByteKeysFollowTheSameDerivation) {
    // With a 16-byte key, key = MD5(D) and IV = MD5(key || D): the tool's AES-128 derivation.
    const std::string password = "short key";
    const auto plain = patternBytes(777, 3);
    const auto sealed =
        openssl("enc -aes-128-cbc -md md5 -pass env:KX_TEST_PASSWORD", plain, &password);
    ASSERT_EQ(sealed.status, 0) << sealed.errors;

    const auto opened =
        TZOpenSSLDecryptor::decryptData(sealed.output, settingsWithKeySize(16), password);
    ASSERT_TRUE(opened.has_value());
    EXPECT_EQ(*opened, plain);

    // A 24-byte request still gets the 16-byte key (AES-128).
    const auto opened24 =
        TZOpenSSLDecryptor::decryptData(sealed.output, settingsWithKeySize(24), password);
    ASSERT_TRUE(opened24.has_value());
    EXPECT_EQ(*opened24, plain);
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

TEST(TZOpenSSLDecryptor, BadKeyOrIVIsReportedNotUsed) {
    const auto ciphertext = patternBytes(32, 1);
    KXError error;
    EXPECT_FALSE(TZOpenSSLDecryptor::decryptData(ciphertext, kTZCryptorAES256Settings,
                                                 patternBytes(20, 2), patternBytes(16, 3), &error));
    EXPECT_EQ(error.domain, kTZCryptorErrorDomain);
    EXPECT_EQ(error.code, TZCryptorStatusKeySizeError);
    EXPECT_TRUE(error.userInfo.is_null());

    error = {};
    EXPECT_FALSE(TZOpenSSLDecryptor::decryptData(ciphertext, kTZCryptorAES256Settings,
                                                 patternBytes(32, 2), patternBytes(8, 3), &error));
    EXPECT_EQ(error.code, TZCryptorStatusParamError);

    // The streaming form returns null and tells its handler.
    Collector collector;
    EXPECT_EQ(TZOpenSSLDecryptor::initWithSettings(kTZCryptorAES256Settings, patternBytes(5, 2),
                                                   patternBytes(16, 3), collector.handler()),
              nullptr);
    collector.waitUntilFinished();
    ASSERT_TRUE(collector.error.has_value());
    EXPECT_EQ(collector.error->code, TZCryptorStatusKeySizeError);
}

TEST(TZOpenSSLDecryptor, WrongPasswordEndsInAPaddingFailure) {
    // Fixed salt and plain text, so the outcome is the same on every run.
    const auto plain = patternBytes(100, 5);
    const auto sealed =
        sealWithToolAndSalt(plain, "right", Bytes{0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77});
    KXError error;
    const auto opened =
        TZOpenSSLDecryptor::decryptData(sealed, kTZCryptorAES256Settings, "wrong", &error);
    ASSERT_FALSE(opened.has_value());
    EXPECT_EQ(error.domain, kTZCryptorErrorDomain);
    EXPECT_EQ(error.code, TZCryptorStatusDecodeError);
    EXPECT_TRUE(error.userInfo.is_null());
}

TEST(TZOpenSSLDecryptor, DamagedDataIsReported) {
    const std::string password = "pw";
    const auto plain = patternBytes(64, 6);
    const auto sealed = sealWithToolAndSalt(plain, password, patternBytes(8, 77));

    // Not starting with "Salted__": code 2, "Unknown header".
    auto renamed = sealed;
    renamed[7] = 'X';
    KXError error;
    EXPECT_FALSE(
        TZOpenSSLDecryptor::decryptData(renamed, kTZCryptorAES256Settings, password, &error));
    EXPECT_EQ(error.domain, kTZCryptorErrorDomain);
    EXPECT_EQ(error.code, TZCryptorErrorUnknownHeader);
    EXPECT_EQ(descriptionOf(error), "Unknown header");
    EXPECT_EQ(error.localizedDescription(), "Unknown header");

    // Ciphertext cut off inside a block.
    const Bytes cut(sealed.begin(), sealed.end() - 5);
    error = {};
    EXPECT_FALSE(TZOpenSSLDecryptor::decryptData(cut, kTZCryptorAES256Settings, password, &error));
    EXPECT_EQ(error.code, TZCryptorStatusAlignmentError);

    // A header and no ciphertext at all.
    const Bytes headerOnly(sealed.begin(), sealed.begin() + 16);
    error = {};
    EXPECT_FALSE(
        TZOpenSSLDecryptor::decryptData(headerOnly, kTZCryptorAES256Settings, password, &error));
    EXPECT_EQ(error.code, TZCryptorStatusAlignmentError);
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
    collector.waitUntilFinished();
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
    streamed.waitUntilFinished();
    EXPECT_FALSE(streamed.error.has_value());
    EXPECT_EQ(streamed.output, plain);
    EXPECT_GT(streamed.calls, 2);
    EXPECT_FALSE(streamed.everOffQueue);
    EXPECT_FALSE(streamed.finishedBeforeLastCall);
}
