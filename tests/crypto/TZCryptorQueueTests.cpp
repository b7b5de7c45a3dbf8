// The cryptors' two serial queues: ordering, foreign response queues, concurrency, lifetime.
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
#include <future>
#include <optional>
#include <thread>

using namespace tztest;

namespace {

const Bytes kKey = patternBytes(32, 1);
const Bytes kHMACKey = patternBytes(32, 2);

}  // namespace

TEST(TZCryptorQueues, HandlerRunsOnAForeignResponseQueueOneCallAtATime) {
    // The response queue lives on an io_context this thread runs: every handler call happens
    // here, in order, and the work queue waits for each one.
    // The cryptor's worker may still be returning from handing over the last piece when the
    // test ends, so the context it hands pieces to lives until the process ends.
    static asio::io_context& context = *new asio::io_context;
    auto keepRunning = asio::make_work_guard(context);
    auto strand = asio::make_strand(context);
    const auto plain = patternBytes(900 * 1024, 3);
    const auto sealed = TZEncryptor::encryptData(plain, kTZCryptorAES256Settings, kKey, kHMACKey);
    ASSERT_TRUE(sealed.has_value());

    Bytes output;
    int calls = 0;
    bool finished = false;
    std::atomic<int> inside{0};
    bool overlapped = false;
    bool wrongThread = false;
    const auto thisThread = std::this_thread::get_id();
    auto decryptor = TZDecryptor::initWithEncryptionKey(
        kKey, kHMACKey, [&](TZCryptor& cryptor, std::span<const std::uint8_t> data) {
            if (inside.fetch_add(1) != 0) {
                overlapped = true;
            }
            wrongThread |= std::this_thread::get_id() != thisThread;
            EXPECT_FALSE(finished) << "a call after the last one";
            output.insert(output.end(), data.begin(), data.end());
            ++calls;
            finished = cryptor.isFinished();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            inside.fetch_sub(1);
        });
    EXPECT_EQ(decryptor->queueLabel(), "net.tolvarn.TZDecryptor");
    EXPECT_EQ(decryptor->responseQueueLabel(), "net.tolvarn.response.TZDecryptor");
    decryptor->setResponseQueue(KXSerialQueue(strand), "test");
    EXPECT_EQ(decryptor->responseQueueLabel(), "test");
    decryptor->addData(*sealed);
    decryptor->finish();
    for (int i = 0; i < 600 && !finished; ++i) {
        context.run_for(std::chrono::milliseconds(100));
    }
    ASSERT_TRUE(finished);
    EXPECT_FALSE(decryptor->error().has_value());
    EXPECT_EQ(output, plain);
    EXPECT_GE(calls, 4);
    EXPECT_FALSE(overlapped);
    EXPECT_FALSE(wrongThread);
}

namespace {

// Streams `input` through the cryptor `make` builds, in pieces of changing sizes copied one after
// the other into the same buffer, which is scribbled over as soon as addData() returns. Returns
// the output, or nothing when the cryptor failed or did not finish in time.
template <typename Make>
std::optional<Bytes> streamThroughOneReusedBuffer(Make make, std::span<const std::uint8_t> input) {
    const std::size_t pieceSizes[] = {1024 * 1024, 70 * 1024, 5, 300 * 1024, 64 * 1024};
    Collector collector;
    auto cryptor = make(collector.handler());
    Bytes piece;
    for (std::size_t at = 0, turn = 0; at < input.size(); ++turn) {
        const std::size_t size =
            std::min(pieceSizes[turn % std::size(pieceSizes)], input.size() - at);
        piece.assign(input.begin() + static_cast<std::ptrdiff_t>(at),
                     input.begin() + static_cast<std::ptrdiff_t>(at + size));
        cryptor->addData(piece);
        std::fill(piece.begin(), piece.end(), std::uint8_t{0xEE});
        at += size;
    }
    cryptor->finish();
    if (!collector.waitUntilFinished() || collector.error) {
        return std::nullopt;
    }
    return collector.output;
}

}  // namespace

TEST(TZCryptorQueues, ManyStreamsAtOnceWhileCallersOverwriteTheirBuffers) {
    // addData(span) copies into memory recycled between pieces and between cryptors. Several
    // threads at once seal and open both formats, small and large, in one call and streamed
    // from one buffer refilled after every addData(): all must agree.
    const Bytes IV = patternBytes(16, 7);
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (std::uint32_t t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            const auto plain =
                patternBytes(t % 2 == 0 ? 1000 * t + 37 : 3 * 1024 * 1024 + 4099 * t, 20 + t);
            const auto container =
                TZEncryptor::encryptData(plain, kTZCryptorAES256Settings, kKey, kHMACKey, IV);
            const auto salted =
                TZOpenSSLEncryptor::encryptData(plain, kTZCryptorAES256Settings, kKey, IV);
            if (!container || !salted ||
                TZDecryptor::decryptData(*container, kKey, kHMACKey) != plain ||
                TZOpenSSLDecryptor::decryptData(*salted, kTZCryptorAES256Settings, kKey, IV) !=
                    plain) {
                ++failures;
                return;
            }
            const auto containerSealed = streamThroughOneReusedBuffer(
                [&](TZCryptorHandler handler) {
                    return TZEncryptor::initWithSettings(kTZCryptorAES256Settings, kKey, kHMACKey,
                                                         IV, std::move(handler));
                },
                plain);
            const auto containerOpened = streamThroughOneReusedBuffer(
                [&](TZCryptorHandler handler) {
                    return TZDecryptor::initWithEncryptionKey(kKey, kHMACKey, std::move(handler));
                },
                *container);
            const auto saltedSealed = streamThroughOneReusedBuffer(
                [&](TZCryptorHandler handler) {
                    return TZOpenSSLEncryptor::initWithSettings(kTZCryptorAES256Settings, kKey, IV,
                                                                std::move(handler));
                },
                plain);
            const auto saltedOpened = streamThroughOneReusedBuffer(
                [&](TZCryptorHandler handler) {
                    return TZOpenSSLDecryptor::initWithSettings(kTZCryptorAES256Settings, kKey, IV,
                                                                std::move(handler));
                },
                *salted);
            if (containerSealed != container || containerOpened != plain ||
                saltedSealed != salted || saltedOpened != plain) {
                ++failures;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
}

TEST(TZCryptorQueues, AHandlerCanFeedAnotherCryptor) {
    // Encrypt and decrypt as one pipeline: the encryptor's handler feeds the decryptor.
    const auto plain = patternBytes(700 * 1024 + 9, 4);
    Collector opened;
    auto decryptor = TZDecryptor::initWithEncryptionKey(kKey, kHMACKey, opened.handler());
    auto encryptor = TZEncryptor::initWithSettings(
        kTZCryptorAES256Settings, kKey, kHMACKey,
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
    ASSERT_TRUE(opened.waitUntilFinished());
    EXPECT_FALSE(opened.error.has_value());
    EXPECT_EQ(opened.output, plain);
}

TEST(TZCryptorQueues, WorkGoesOnWithoutTheCallersReference) {
    Collector collector;
    {
        auto encryptor = TZEncryptor::initWithSettings(kTZCryptorAES256Settings, kKey, kHMACKey,
                                                       collector.handler());
        encryptor->addData(patternBytes(400000, 5));
        encryptor->finish();
    }
    ASSERT_TRUE(collector.waitUntilFinished());
    EXPECT_FALSE(collector.error.has_value());
    EXPECT_EQ(collector.output.size(), 18u + 400000u + 16u - 400000u % 16u + 32u);
}

TEST(TZCryptorQueues, AThrowingHandlerDoesNotStopTheCryptor) {
    std::promise<void> ended;
    int calls = 0;
    auto encryptor =
        TZEncryptor::initWithSettings(kTZCryptorAES256Settings, kKey, kHMACKey,
                                      [&](TZCryptor& cryptor, std::span<const std::uint8_t>) {
                                          ++calls;
                                          if (cryptor.isFinished()) {
                                              ended.set_value();
                                          } else {
                                              throw std::runtime_error("handler failure");
                                          }
                                      });
    encryptor->addData(patternBytes(100, 6));
    encryptor->finish();
    ASSERT_EQ(ended.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(calls, 2);
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
