// The salted format as written by the library, opened by the `openssl` tool.
#include "TZCryptoTestSupport.h"

#include <KXClientFramework/TZOpenSSLDecryptor.h>
#include <KXClientFramework/TZOpenSSLEncryptor.h>

#include <gtest/gtest.h>

using namespace tztest;

namespace {

ToolResult openWithTool(std::span<const std::uint8_t> sealed, const std::string& password,
                        const std::string& cipher = "aes-256-cbc") {
    return openssl("enc -d -" + cipher + " -md md5 -pass env:KX_TEST_PASSWORD", sealed, &password);
}

}  // namespace

TEST(TZOpenSSLEncryptor, TheToolOpensWhatItSeals) {
    const std::string password = "app key \xE2\x82\xAC";
    const std::size_t chunk = 256 * 1024;
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{1}, std::size_t{16}, std::size_t{31}, chunk - 1, chunk,
          chunk + 1, 3 * chunk + 100}) {
        const auto plain = patternBytes(length, static_cast<std::uint32_t>(length) + 1);
        KXError error;
        const auto sealed =
            TZOpenSSLEncryptor::encryptData(plain, kTZCryptorAES256Settings, password, &error);
        ASSERT_TRUE(sealed.has_value()) << error.description();

        // "Salted__", 8 bytes of salt, then whole blocks, at least one.
        ASSERT_GE(sealed->size(), 32u);
        EXPECT_EQ(std::string(sealed->begin(), sealed->begin() + 8), "Salted__");
        EXPECT_EQ((sealed->size() - 16) % 16, 0u);
        EXPECT_EQ(sealed->size() - 16, (length / 16 + 1) * 16) << length;

        const auto opened = openWithTool(*sealed, password);
        ASSERT_EQ(opened.status, 0) << length << ": " << opened.errors;
        EXPECT_EQ(opened.output, plain) << length;

        const auto roundTrip =
            TZOpenSSLDecryptor::decryptData(*sealed, kTZCryptorAES256Settings, password);
        ASSERT_TRUE(roundTrip.has_value());
        EXPECT_EQ(*roundTrip, plain);
    }
}

TEST(TZOpenSSLEncryptor, EverySealingHasItsOwnSalt) {
    const auto plain = bytesOf("same input");
    const auto first = TZOpenSSLEncryptor::encryptData(plain, kTZCryptorAES256Settings, "pw");
    const auto second = TZOpenSSLEncryptor::encryptData(plain, kTZCryptorAES256Settings, "pw");
    ASSERT_TRUE(first && second);
    EXPECT_NE(Bytes(first->begin() + 8, first->begin() + 16),
              Bytes(second->begin() + 8, second->begin() + 16));
    EXPECT_NE(*first, *second);
}

TEST(TZOpenSSLEncryptor, SixteenByteKeysSealForAES128) {
    TZCryptorSettings settings = kTZCryptorAES256Settings;
    settings.keySettings.keySize = 16;
    const auto plain = patternBytes(1234, 4);
    const auto sealed = TZOpenSSLEncryptor::encryptData(plain, settings, "aes128");
    ASSERT_TRUE(sealed.has_value());
    const auto opened = openWithTool(*sealed, "aes128", "aes-128-cbc");
    ASSERT_EQ(opened.status, 0) << opened.errors;
    EXPECT_EQ(opened.output, plain);
}

TEST(TZOpenSSLEncryptor, RawKeyAndIVGiveTheToolsCiphertext) {
    const auto key = patternBytes(32, 20);
    const auto IV = patternBytes(16, 21);
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{5}, std::size_t{48}, std::size_t{300000}}) {
        const auto plain = patternBytes(length, 22);
        const auto ours = TZOpenSSLEncryptor::encryptData(plain, kTZCryptorAES256Settings, key, IV);
        ASSERT_TRUE(ours.has_value());
        const auto tools =
            openssl("enc -aes-256-cbc -nosalt -K " + hex(key) + " -iv " + hex(IV), plain);
        ASSERT_EQ(tools.status, 0) << tools.errors;
        EXPECT_EQ(*ours, tools.output) << length;
    }
}

TEST(TZOpenSSLEncryptor, BadKeyIsReported) {
    KXError error;
    EXPECT_FALSE(TZOpenSSLEncryptor::encryptData(bytesOf("x"), kTZCryptorAES256Settings,
                                                 patternBytes(31, 1), patternBytes(16, 2), &error));
    EXPECT_EQ(error.domain, kTZCryptorErrorDomain);
    EXPECT_EQ(error.code, TZCryptorStatusKeySizeError);
    EXPECT_EQ(TZOpenSSLEncryptor::initWithSettings(kTZCryptorAES256Settings, patternBytes(31, 1),
                                                   patternBytes(16, 2), {}),
              nullptr);
}

TEST(TZOpenSSLEncryptor, StreamingPutsTheHeaderInFrontOfTheFirstChunk) {
    Collector collector;
    auto encryptor = TZOpenSSLEncryptor::initWithSettings(kTZCryptorAES256Settings, "streaming",
                                                          collector.handler());
    ASSERT_NE(encryptor, nullptr);
    EXPECT_EQ(encryptor->options() & TZCryptorOptionHasPassword, TZCryptorOptionHasPassword);
    const auto header = encryptor->header();
    ASSERT_EQ(header.size(), 16u);
    EXPECT_EQ(std::string(header.begin(), header.begin() + 8), "Salted__");
    EXPECT_EQ(Bytes(header.begin() + 8, header.end()), encryptor->encryptionSalt());

    const auto plain = patternBytes(100000, 30);
    encryptor->addData(std::span(plain).first(10));
    encryptor->addData(std::span(plain).subspan(10, 50000));
    encryptor->addData(Bytes(plain.begin() + 50010, plain.end()));
    encryptor->finish();
    ASSERT_TRUE(collector.waitUntilFinished());
    EXPECT_FALSE(collector.error.has_value());

    ASSERT_EQ(collector.chunks.size(), 4u);  // three pieces and the final block
    EXPECT_EQ(collector.chunks[0], header);  // 10 bytes make no block yet: the header alone
    const auto opened = openWithTool(collector.output, "streaming");
    ASSERT_EQ(opened.status, 0) << opened.errors;
    EXPECT_EQ(opened.output, plain);
}

TEST(TZOpenSSLEncryptor, DataAfterFinishIsIgnored) {
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
    const auto opened =
        TZOpenSSLDecryptor::decryptData(collector.output, kTZCryptorAES256Settings, key, IV);
    ASSERT_TRUE(opened.has_value());
    EXPECT_EQ(*opened, bytesOf("kept"));
}
