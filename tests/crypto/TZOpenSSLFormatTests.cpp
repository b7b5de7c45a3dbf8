#include "TZCryptoTestSupport.h"

#include <KXClientFramework/TZOpenSSLDecryptor.h>
#include <KXClientFramework/TZOpenSSLEncryptor.h>

#include <gtest/gtest.h>

using namespace tztest;

namespace {

// The tool's salted AES-CBC with MD5 key derivation: seals, or with `-d` opens.
ToolResult tool(const std::string& options, std::span<const std::uint8_t> input,
                const std::string& password, const std::string& cipher = "aes-256-cbc") {
    return openssl("enc " + options + " -" + cipher + " -md md5 -pass env:KX_TEST_PASSWORD", input,
                   &password);
}

}  // namespace

// A round trip through the tool also proves the key and IV derivation (TZOpenSSLCryptorGetKey
// and GetIV): neither side could open the other's data with a different key or first IV block.
TEST(TZOpenSSLFormat, TheToolAndTheLibraryOpenWhatTheOtherSeals) {
    const std::size_t chunk = std::size_t{256} * 1024;
    const std::vector<std::size_t> lengths = {0,  1,         15,    16,        17,
                                              31, chunk - 1, chunk, chunk + 1, 3 * chunk + 100};
    struct Case {
        const char* name;
        std::string cipher, password;
        std::uint64_t keySize;  // 16 and 24 both take the tool's AES-128 derivation
        std::vector<std::size_t> lengths;
    };
    const std::vector<Case> cases = {
        {"lengths", "aes-256-cbc", "app key \xE2\x82\xAC", 32, lengths},
        // Non-ASCII text and characters a shell would interpret reach the derivation unchanged.
        {"non-ASCII", "aes-256-cbc", "p\xC3\xA4ssw\xC3\xB6rd \xF0\x9F\x94\x91", 32, {28}},
        {"shell characters", "aes-256-cbc", "$(x) 'quote' \"q\" \\", 32, {28}},
        {"empty password", "aes-256-cbc", "", 32, {28}},
        {"AES-128", "aes-128-cbc", "short key", 16, {777}},
        {"24 bytes asked, AES-128 given", "aes-128-cbc", "short key", 24, {777}},
    };
    for (const Case& c : cases) {
        TZCryptorSettings settings = kAES;
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
            const auto again = TZOpenSSLEncryptor::encryptData(plain, settings, c.password);
            EXPECT_NE(Bytes(again->begin() + 8, again->begin() + 16),
                      Bytes(sealed->begin() + 8, sealed->begin() + 16));
        }
    }
}

TEST(TZOpenSSLFormat, RawKeyAndIVGiveAndTakeTheToolsCiphertext) {
    const auto key = patternBytes(32, 20);
    const auto IV = patternBytes(16, 21);
    const auto longIV = concat({IV, Bytes(16, 0xEE)});  // only its first block counts
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{5}, std::size_t{48}, std::size_t{300000}}) {
        const auto plain = patternBytes(length, 22);
        const auto tools =
            openssl("enc -aes-256-cbc -nosalt -K " + hex(key) + " -iv " + hex(IV), plain);
        ASSERT_EQ(tools.status, 0) << tools.errors;
        EXPECT_EQ(TZOpenSSLEncryptor::encryptData(plain, kAES, key, IV), tools.output) << length;
        for (const auto* anIV : {&IV, &longIV}) {
            EXPECT_EQ(TZOpenSSLDecryptor::decryptData(tools.output, kAES, key, *anIV), plain)
                << length;
        }
    }
}

TEST(TZOpenSSLFormat, FailuresAreReportedWithTheirCodeAndShortInputIsNoFailure) {
    // Sealed by the tool with a fixed salt, so the outcome is the same on every run. Given the
    // salt, the tool writes the ciphertext alone.
    const auto salt = patternBytes(8, 77);
    const auto sealed = concat(
        {bytesOf("Salted__"), salt, tool("-S " + hex(salt), patternBytes(64, 6), "right").output});
    ASSERT_EQ(sealed.size(), 96u);
    auto renamed = sealed;  // not starting with "Salted__"
    renamed[7] = 'X';
    KXError error;
    const auto fails = [&](const std::optional<Bytes>& result, std::int64_t code) {
        return failedWith(result, error, code,
                          code == TZCryptorErrorUnknownHeader ? "Unknown header" : "");
    };
    const auto withPassword = [&](std::span<const std::uint8_t> data, const char* password) {
        return TZOpenSSLDecryptor::decryptData(data, kAES, password, &error);
    };
    const auto withKey = [&](std::size_t keyLength, std::size_t IVLength) {
        return TZOpenSSLDecryptor::decryptData(patternBytes(32, 1), kAES,
                                               patternBytes(keyLength, 2),
                                               patternBytes(IVLength, 3), &error);
    };
    EXPECT_TRUE(fails(withKey(20, 16), TZCryptorStatusKeySizeError));
    EXPECT_TRUE(fails(withKey(32, 8), TZCryptorStatusParamError));
    EXPECT_TRUE(fails(withPassword(sealed, "wrong"), TZCryptorStatusDecodeError));
    EXPECT_TRUE(fails(withPassword(renamed, "right"), TZCryptorErrorUnknownHeader));
    EXPECT_TRUE(fails(withPassword(std::span(sealed).first(91), "right"),
                      TZCryptorStatusAlignmentError));  // cut inside a block
    EXPECT_TRUE(fails(withPassword(std::span(sealed).first(16), "right"),
                      TZCryptorStatusAlignmentError));  // the header alone
    EXPECT_TRUE(fails(TZOpenSSLEncryptor::encryptData(bytesOf("x"), kAES, patternBytes(31, 1),
                                                      patternBytes(16, 2), &error),
                      TZCryptorStatusKeySizeError));

    // Shorter than the header: nothing, and no error; nor from the entry points the format has no
    // use for.
    error = KXError{"untouched", 42};
    for (std::size_t length = 0; length < 16; ++length) {
        EXPECT_EQ(withPassword(std::span(sealed).first(length), "right"), Bytes{}) << length;
    }
    EXPECT_FALSE(TZOpenSSLDecryptor::decryptData(sealed, "right", &error));
    EXPECT_FALSE(
        TZOpenSSLDecryptor::decryptData(sealed, patternBytes(32, 1), patternBytes(32, 2), &error));
    EXPECT_EQ(error.domain, "untouched");
    EXPECT_EQ(TZOpenSSLDecryptor::initWithPassword("right", {}), nullptr);
    EXPECT_EQ(
        TZOpenSSLDecryptor::initWithEncryptionKey(patternBytes(32, 1), patternBytes(32, 2), {}),
        nullptr);

    // The streaming forms return null; the decryptor also tells its handler.
    EXPECT_EQ(
        TZOpenSSLEncryptor::initWithSettings(kAES, patternBytes(31, 1), patternBytes(16, 2), {}),
        nullptr);
    Collector collector;
    EXPECT_EQ(TZOpenSSLDecryptor::initWithSettings(kAES, patternBytes(5, 2), patternBytes(16, 3),
                                                   collector.handler()),
              nullptr);
    ASSERT_TRUE(collector.waitUntilFinished());
    ASSERT_TRUE(collector.error.has_value());
    EXPECT_EQ(collector.error->code, TZCryptorStatusKeySizeError);
}

TEST(TZOpenSSLFormat, TheDecryptorParsesAHeaderArrivingByteByByteOnItsLastByte) {
    // A wrong magic shows when the header is complete: not before its 16th byte, right at it.
    const auto header = concat({bytesOf("Salted_!"), patternBytes(8, 9)});
    Collector collector;
    auto decryptor = TZOpenSSLDecryptor::initWithSettings(kAES, "pw", collector.handler());
    for (std::size_t i = 0; i < 16; ++i) {
        EXPECT_FALSE(decryptor->isFinished()) << i;
        decryptor->addData(std::span(header).subspan(i, 1));
    }
    EXPECT_TRUE(decryptor->isFinished());
    ASSERT_TRUE(collector.waitUntilFinished());
    EXPECT_EQ(collector.error->code, TZCryptorErrorUnknownHeader);

    // A good header byte by byte, then the ciphertext in uneven pieces, decrypts in order.
    const auto plain = patternBytes(600 * 1024 + 3, 10);
    const auto sealed = tool("", plain, "streamed").output;
    Collector streamed;
    auto streaming = TZOpenSSLDecryptor::initWithSettings(kAES, "streamed", streamed.handler());
    std::size_t at = 0;
    for (std::size_t piece = 1; at < sealed.size(); piece = at < 16 ? 1 : piece * 3 + 7) {
        const std::size_t length = std::min(piece, sealed.size() - at);
        streaming->addData(std::span(sealed).subspan(at, length));
        at += length;
    }
    streaming->finish();
    ASSERT_TRUE(streamed.waitUntilFinished());
    EXPECT_FALSE(streamed.error.has_value());
    EXPECT_EQ(streamed.output, plain);
    EXPECT_GT(streamed.chunks.size(), 2u);
}

TEST(TZOpenSSLFormat, StreamingPutsTheHeaderInFrontOfTheFirstChunk) {
    Collector collector;
    auto encryptor = TZOpenSSLEncryptor::initWithSettings(kAES, "streaming", collector.handler());
    ASSERT_NE(encryptor, nullptr);
    const auto header = encryptor->header();
    EXPECT_EQ(header, concat({bytesOf("Salted__"), encryptor->encryptionSalt()}));
    ASSERT_EQ(header.size(), 16u);

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
