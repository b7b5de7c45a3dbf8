#include "TZCryptoTestSupport.h"

#include <KXClientFramework/TZDecryptor.h>
#include <KXClientFramework/TZEncryptor.h>
#include <KXClientFramework/TZOpenSSLDecryptor.h>
#include <KXClientFramework/TZOpenSSLEncryptor.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/strand.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <thread>

using namespace tztest;

namespace {

const Bytes kKey = patternBytes(32, 1);
const Bytes kHMACKey = patternBytes(32, 2);
const Bytes kIV = patternBytes(16, 7);

}  // namespace

TEST(TZCryptorQueues, HandlerRunsOnAForeignResponseQueueOneCallAtATime) {
    // Every handler call happens on this thread's strand, in order, one at a time. The context
    // lives on: the cryptor's worker may still be returning from its last handover at the end.
    static asio::io_context& context = *new asio::io_context;
    auto keepRunning = asio::make_work_guard(context);
    const auto plain = patternBytes(900 * 1024, 3);
    const auto sealed = TZEncryptor::encryptData(plain, kAES, kKey, kHMACKey);
    ASSERT_TRUE(sealed.has_value());
    Collector collector;
    auto decryptor = TZDecryptor::initWithEncryptionKey(kKey, kHMACKey, collector.handler());
    EXPECT_EQ(decryptor->queueLabel(), "net.tolvarn.TZDecryptor");
    EXPECT_EQ(decryptor->responseQueueLabel(), "net.tolvarn.response.TZDecryptor");
    decryptor->setResponseQueue(KXSerialQueue(asio::make_strand(context)), "test");
    decryptor->addData(*sealed);
    decryptor->finish();
    for (int i = 0; i < 600 && !collector.finished; ++i) {
        context.run_for(std::chrono::milliseconds(100));
    }
    ASSERT_TRUE(collector.finished);
    EXPECT_FALSE(collector.error.has_value());
    EXPECT_EQ(collector.output, plain);
    EXPECT_GE(collector.chunks.size(), 4u);
    EXPECT_FALSE(collector.everOffQueue);
    EXPECT_FALSE(collector.calledAfterFinishing);
}

TEST(TZCryptorQueues, ManyStreamsAtOnceWhileCallersOverwriteTheirBuffers) {
    // addData(span) copies into memory recycled between pieces and between cryptors. Several
    // threads at once seal and open both formats, small and large, in one call and streamed in
    // pieces of changing sizes from one buffer scribbled over after every addData(): all agree.
    const auto stream = [](std::shared_ptr<TZCryptor> cryptor,
                           std::span<const std::uint8_t> input) {
        const std::size_t pieceSizes[] = {1024 * 1024, 70 * 1024, 5, 300 * 1024, 64 * 1024};
        Collector collector;
        cryptor->setHandler(collector.handler());
        Bytes piece;
        for (std::size_t at = 0, turn = 0; at < input.size(); ++turn) {
            const std::size_t size = std::min(pieceSizes[turn % 5], input.size() - at);
            piece.assign(input.begin() + static_cast<std::ptrdiff_t>(at),
                         input.begin() + static_cast<std::ptrdiff_t>(at + size));
            cryptor->addData(piece);
            std::fill(piece.begin(), piece.end(), std::uint8_t{0xEE});
            at += size;
        }
        cryptor->finish();
        return collector.waitUntilFinished() && !collector.error ? std::optional(collector.output)
                                                                 : std::nullopt;
    };
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (std::uint32_t t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            const auto plain =
                patternBytes(t % 2 == 0 ? 1000 * t + 37 : 3 * 1024 * 1024 + 4099 * t, 20 + t);
            const auto container = TZEncryptor::encryptData(plain, kAES, kKey, kHMACKey, kIV);
            const auto salted = TZOpenSSLEncryptor::encryptData(plain, kAES, kKey, kIV);
            if (!container || !salted ||
                TZDecryptor::decryptData(*container, kKey, kHMACKey) != plain ||
                TZOpenSSLDecryptor::decryptData(*salted, kAES, kKey, kIV) != plain ||
                stream(TZEncryptor::initWithSettings(kAES, kKey, kHMACKey, kIV, {}), plain) !=
                    container ||
                stream(TZDecryptor::initWithEncryptionKey(kKey, kHMACKey, {}), *container) !=
                    plain ||
                stream(TZOpenSSLEncryptor::initWithSettings(kAES, kKey, kIV, {}), plain) !=
                    salted ||
                stream(TZOpenSSLDecryptor::initWithSettings(kAES, kKey, kIV, {}), *salted) !=
                    plain) {
                ++failures;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
}

TEST(TZCryptorQueues, AHandlerCanFeedAnotherCryptorWithoutTheCallersReference) {
    // Encrypt and decrypt as one pipeline: the encryptor's handler feeds the decryptor, and the
    // encryptor carries on after the caller has let go of it.
    const auto plain = patternBytes(700 * 1024 + 9, 4);
    Collector opened;
    auto decryptor = TZDecryptor::initWithEncryptionKey(kKey, kHMACKey, opened.handler());
    {
        auto encryptor = TZEncryptor::initWithSettings(
            kAES, kKey, kHMACKey,
            [decryptor](TZCryptor& cryptor, std::span<const std::uint8_t> data) {
                decryptor->addData(data);
                if (cryptor.isFinished()) {
                    decryptor->finish();
                }
            });
        for (std::size_t at = 0; at < plain.size(); at += 100000) {
            encryptor->addData(
                std::span(plain).subspan(at, std::min<std::size_t>(100000, plain.size() - at)));
        }
        encryptor->finish();
    }
    ASSERT_TRUE(opened.waitUntilFinished());
    EXPECT_FALSE(opened.error.has_value());
    EXPECT_EQ(opened.output, plain);
}

TEST(TZCryptorQueues, AThrowingHandlerDoesNotStopTheCryptor) {
    Collector collector;
    auto encryptor = TZEncryptor::initWithSettings(kAES, kKey, kHMACKey, kIV, {});
    encryptor->setHandler(
        [collect = collector.handler()](TZCryptor& cryptor, std::span<const std::uint8_t> data) {
            collect(cryptor, data);
            if (!cryptor.isFinished()) {
                throw std::runtime_error("handler failure");
            }
        });
    const auto plain = patternBytes(100, 6);
    ASSERT_TRUE(collector.run(*encryptor, plain));
    EXPECT_EQ(collector.chunks.size(), 2u);
    EXPECT_FALSE(collector.error.has_value());
    EXPECT_EQ(TZDecryptor::decryptData(collector.output, kKey, kHMACKey), plain);
}

TEST(TZCryptorQueues, SynchronousWrapperWithoutOrWithAFinishedCryptor) {
    KXError error{"untouched", 42};
    EXPECT_FALSE(TZCryptor::synchronousResultForCryptor(nullptr, patternBytes(10, 1), &error));
    EXPECT_EQ(error.domain, "untouched");

    // A cryptor that already failed delivers nothing more; the wrapper reports how it ended.
    auto decryptor = TZDecryptor::initWithEncryptionKey(kKey, kHMACKey, {});
    decryptor->addData(Bytes{9, 0});
    ASSERT_TRUE(decryptor->isFinished());
    EXPECT_FALSE(TZCryptor::synchronousResultForCryptor(decryptor, patternBytes(100, 1), &error));
    EXPECT_EQ(error.code, TZCryptorErrorUnknownHeader);
}
