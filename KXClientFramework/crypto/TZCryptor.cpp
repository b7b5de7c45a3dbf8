#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/TZCryptor.h>
#include <KXClientFramework/TZCryptorEngine.h>

#include "crypto/internal/TZCryptorErrors.h"
#include "crypto/internal/TZCryptorQueues.h"
#include "crypto/internal/TZPooledBuffer.h"

#include <asio/dispatch.hpp>
#include <asio/post.hpp>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <exception>
#include <future>
#include <mutex>
#include <utility>

namespace {

// The cryptor whose work step is running on this thread, if any.
thread_local const TZCryptor* tStepOwner = nullptr;

// The output buffer of a cryptor's work queue. Normally a scratch buffer from the buffer pool,
// emptied after every handler call and grown without zero-filling; the synchronous wrapper
// instead points it at its result vector, so output is produced in place and never copied.
class OutputBuffer {
public:
    std::span<const std::uint8_t> pending() const noexcept {
        if (external_ != nullptr) {
            return {external_->data() + start_, external_->size() - start_};
        }
        return {scratch_.data(), size_};
    }

    std::size_t size() const noexcept { return pending().size(); }

    // Room for `count` more bytes after the pending ones; commit() says how many were written.
    std::uint8_t* prepare(std::size_t count) {
        if (external_ != nullptr) {
            preparedAt_ = external_->size();
            external_->resize(preparedAt_ + count);
            return external_->data() + preparedAt_;
        }
        if (scratch_.capacity() - size_ < count) {
            TZPooledBuffer grown(std::max(size_ + count, scratch_.capacity() * 2));
            if (size_ != 0) {
                std::memcpy(grown.data(), scratch_.data(), size_);
            }
            scratch_ = std::move(grown);
        }
        return scratch_.data() + size_;
    }

    void commit(std::size_t count) {
        if (external_ != nullptr) {
            external_->resize(preparedAt_ + count);
        } else {
            size_ += count;
        }
    }

    void append(std::span<const std::uint8_t> bytes) {
        if (bytes.empty()) {
            return;
        }
        std::memcpy(prepare(bytes.size()), bytes.data(), bytes.size());
        commit(bytes.size());
    }

    // The handler has seen the pending bytes.
    void clear() noexcept {
        if (external_ != nullptr) {
            start_ = external_->size();
        } else {
            size_ = 0;
        }
    }

    // Output from now on goes to the end of `target` (or back to the scratch buffer when null).
    void redirect(std::vector<std::uint8_t>* target) {
        const auto carried = pending();
        if (target != nullptr) {
            target->insert(target->end(), carried.begin(), carried.end());
            start_ = target->size() - carried.size();
            size_ = 0;
            external_ = target;
        } else {
            std::vector<std::uint8_t> copy(carried.begin(), carried.end());
            external_ = nullptr;
            size_ = 0;
            append(copy);
        }
    }

private:
    std::vector<std::uint8_t>* external_ = nullptr;
    std::size_t start_ = 0;
    std::size_t preparedAt_ = 0;
    TZPooledBuffer scratch_;
    std::size_t size_ = 0;
};

}  // namespace

struct TZCryptor::Core {
    std::string className;
    std::string queueLabel;
    KXSerialQueue queue;

    // Everything the caller's thread, the work queue and the response queue share.
    mutable std::mutex mutex;
    KXSerialQueue responseQueue;
    std::string responseQueueLabel;
    std::shared_ptr<const TZCryptorHandler> handler;
    std::optional<KXError> error;
    std::deque<std::function<void()>> steps;
    bool pumping = false;

    std::atomic<bool> finished{false};
    std::atomic<bool> finishCalled{false};
    std::atomic<std::uint64_t> HMACLength{0};
    std::atomic<std::uint8_t> options{0};

    // Handler calls a step asked for, made in order once the step is over. Used by the work
    // queue only (and by a handler call while the work queue waits for it).
    struct Delivery {
        std::shared_ptr<const TZCryptorHandler> handler;
        bool pendingOutput = false;          // hand over (and then empty) the output buffer
        std::vector<std::uint8_t> snapshot;  // otherwise these bytes
    };
    std::vector<Delivery> deliveries;
    std::size_t nextDelivery = 0;
    OutputBuffer output;

    Core(std::string name, TZCryptorHandler handlerFunction)
        : className(std::move(name)),
          queueLabel("net.tolvarn." + className),
          queue(TZNewSerialQueue()),
          responseQueue(TZNewSerialQueue()),
          responseQueueLabel("net.tolvarn.response." + className) {
        if (handlerFunction) {
            handler = std::make_shared<const TZCryptorHandler>(std::move(handlerFunction));
        }
    }
};

TZCryptor::TZCryptor(std::string className, TZCryptorHandler handler)
    : core_(std::make_unique<Core>(std::move(className), std::move(handler))) {}

TZCryptor::~TZCryptor() = default;

// MARK: - Properties

KXSerialQueue TZCryptor::responseQueue() const {
    std::lock_guard lock(core_->mutex);
    return core_->responseQueue;
}

std::string TZCryptor::responseQueueLabel() const {
    std::lock_guard lock(core_->mutex);
    return core_->responseQueueLabel;
}

void TZCryptor::setResponseQueue(KXSerialQueue queue, std::string label) {
    std::lock_guard lock(core_->mutex);
    core_->responseQueue = std::move(queue);
    core_->responseQueueLabel = std::move(label);
}

KXSerialQueue TZCryptor::queue() const {
    return core_->queue;
}

const std::string& TZCryptor::queueLabel() const {
    return core_->queueLabel;
}

std::uint64_t TZCryptor::HMACLength() const noexcept {
    return core_->HMACLength.load(std::memory_order_acquire);
}

void TZCryptor::setHMACLength(std::uint64_t length) noexcept {
    core_->HMACLength.store(length, std::memory_order_release);
}

std::optional<KXError> TZCryptor::error() const {
    std::lock_guard lock(core_->mutex);
    return core_->error;
}

bool TZCryptor::isFinished() const noexcept {
    return core_->finished.load(std::memory_order_acquire);
}

std::uint8_t TZCryptor::options() const noexcept {
    return core_->options.load(std::memory_order_acquire);
}

void TZCryptor::setOptions(std::uint8_t options) noexcept {
    core_->options.store(options, std::memory_order_release);
}

TZCryptorHandler TZCryptor::handler() const {
    std::lock_guard lock(core_->mutex);
    return core_->handler ? *core_->handler : TZCryptorHandler();
}

void TZCryptor::setHandler(TZCryptorHandler handler) {
    auto shared = handler ? std::make_shared<const TZCryptorHandler>(std::move(handler)) : nullptr;
    std::lock_guard lock(core_->mutex);
    core_->handler = std::move(shared);
}

const std::string& TZCryptor::className() const noexcept {
    return core_->className;
}

bool TZCryptor::markFinishCalled() noexcept {
    return !core_->finishCalled.exchange(true);
}

bool TZCryptor::finishCalled() const noexcept {
    return core_->finishCalled.load();
}

bool TZCryptor::acceptsInput() const noexcept {
    return !isFinished() && !finishCalled();
}

// MARK: - Input

void TZCryptor::addData(std::span<const std::uint8_t> data) {
    if (!acceptsInput()) {
        return;
    }
    auto copy = std::make_shared<const TZPooledBuffer>(data.size());
    if (!data.empty()) {
        std::memcpy(copy->data(), data.data(), data.size());
    }
    addInput(Input{{copy->data(), data.size()}, std::move(copy)});
}

void TZCryptor::addData(std::vector<std::uint8_t>&& data) {
    if (!acceptsInput()) {
        return;
    }
    auto owner = std::make_shared<const std::vector<std::uint8_t>>(std::move(data));
    const std::span<const std::uint8_t> bytes(*owner);
    addInput(Input{bytes, std::move(owner)});
}

void TZCryptor::addInput(Input) {}

void TZCryptor::finish() {}

std::size_t TZCryptor::expectedOutputLength(std::size_t inputLength) const {
    return inputLength;
}

// MARK: - Work queue

void TZCryptor::enqueue(std::function<void()> step) {
    bool start = false;
    {
        std::lock_guard lock(core_->mutex);
        core_->steps.push_back(std::move(step));
        if (!core_->pumping) {
            core_->pumping = true;
            start = true;
        }
    }
    if (start) {
        asio::post(core_->queue, [self = shared_from_this()] { self->pump(); });
    }
}

// Runs the queued steps one after the other on the work queue. After each step the handler
// calls it asked for are made on the response queue before the next step starts. When the
// response queue is free and on the same pool, asio runs the call right here; otherwise the
// pump stops and the handler call restarts it when done, so no pool thread ever blocks waiting
// for another.
void TZCryptor::pump() {
    Core& core = *core_;
    for (;;) {
        while (core.nextDelivery < core.deliveries.size()) {
            if (!startDelivery(core.nextDelivery++)) {
                return;
            }
        }
        core.deliveries.clear();
        core.nextDelivery = 0;

        std::function<void()> step;
        {
            std::lock_guard lock(core.mutex);
            if (core.steps.empty()) {
                core.pumping = false;
                return;
            }
            step = std::move(core.steps.front());
            core.steps.pop_front();
        }
        tStepOwner = this;
        step();
        tStepOwner = nullptr;
    }
}

bool TZCryptor::startDelivery(std::size_t index) {
    // 0: under way; 1: the pump has moved on and waits to be restarted; 2: done.
    auto state = std::make_shared<std::atomic<int>>(0);
    auto self = shared_from_this();
    asio::dispatch(responseQueue(), [self, state, index] {
        self->runDelivery(index);
        int expected = 0;
        if (!state->compare_exchange_strong(expected, 2)) {
            asio::post(self->core_->queue, [self] { self->pump(); });
        }
    });
    int expected = 0;
    return !state->compare_exchange_strong(expected, 1);
}

void TZCryptor::runDelivery(std::size_t index) {
    Core::Delivery& delivery = core_->deliveries[index];
    const std::span<const std::uint8_t> data =
        delivery.pendingOutput ? core_->output.pending()
                               : std::span<const std::uint8_t>(delivery.snapshot);
    if (delivery.handler && *delivery.handler) {
        try {
            (*delivery.handler)(*this, data);
        } catch (const std::exception& exception) {
            KX_LOG_ERROR("{} handler threw: {}", core_->className, exception.what());
        } catch (...) {
            KX_LOG_ERROR("{} handler threw", core_->className);
        }
    }
    if (delivery.pendingOutput) {
        core_->output.clear();
    }
}

void TZCryptor::deliverOutput() {
    std::shared_ptr<const TZCryptorHandler> handler;
    {
        std::lock_guard lock(core_->mutex);
        handler = core_->handler;
    }
    core_->deliveries.push_back(Core::Delivery{std::move(handler), true, {}});
}

void TZCryptor::cleanupAndNotifyWithError(std::optional<KXError> error) {
    std::shared_ptr<const TZCryptorHandler> handler;
    {
        std::lock_guard lock(core_->mutex);
        core_->error = std::move(error);
        handler = std::move(core_->handler);
        core_->handler.reset();
    }
    core_->finished.store(true, std::memory_order_release);
    if (!handler) {
        return;
    }
    if (tStepOwner == this) {
        const auto pending = core_->output.pending();
        core_->deliveries.push_back(
            Core::Delivery{std::move(handler), false, {pending.begin(), pending.end()}});
    } else {
        enqueue([this, handler = std::move(handler)]() mutable {
            const auto pending = core_->output.pending();
            core_->deliveries.push_back(
                Core::Delivery{std::move(handler), false, {pending.begin(), pending.end()}});
        });
    }
}

void TZCryptor::appendOutput(std::span<const std::uint8_t> bytes) {
    core_->output.append(bytes);
}

std::size_t TZCryptor::outputLength() const noexcept {
    return core_->output.size();
}

std::span<const std::uint8_t> TZCryptor::outputFrom(std::size_t offset) const noexcept {
    return core_->output.pending().subspan(offset);
}

bool TZCryptor::engineUpdate(std::span<const std::uint8_t> data, KXError& error) {
    const std::size_t room = TZCryptorEngine::maxOutputLength(data.size());
    std::uint8_t* target = core_->output.prepare(room);
    const auto written = engine_->addData(data, std::span<std::uint8_t>(target, room), &error);
    core_->output.commit(written.value_or(0));
    return written.has_value();
}

bool TZCryptor::engineFinish(KXError& error) {
    if (!engine_) {
        return false;
    }
    const std::size_t room = TZCryptorEngine::maxOutputLength(0);
    std::uint8_t* target = core_->output.prepare(room);
    const auto written = engine_->finishWithError(std::span<std::uint8_t>(target, room), &error);
    core_->output.commit(written.value_or(0));
    return written.has_value();
}

// MARK: - Synchronous wrapper

std::optional<std::vector<std::uint8_t>> TZCryptor::failedSetUp(const TZCryptor& cryptor,
                                                                KXError* error) {
    TZReportError(error, cryptor.error().value_or(TZStatusError(TZCryptorStatusUnspecifiedError)));
    return std::nullopt;
}

std::optional<std::vector<std::uint8_t>> TZCryptor::synchronousResultForCryptor(
    const std::shared_ptr<TZCryptor>& cryptor, std::span<const std::uint8_t> data, KXError* error) {
    if (!cryptor) {
        return std::nullopt;
    }

    // The handler's last call records how the cryptor ended. Chunks need no copying: the work
    // queue writes its output straight into `result`.
    struct Outcome {
        bool seenFinish = false;
        std::optional<KXError> error;
    };
    auto outcome = std::make_shared<Outcome>();
    cryptor->setHandler([outcome](TZCryptor& finishing, std::span<const std::uint8_t>) {
        if (finishing.isFinished() && !outcome->seenFinish) {
            outcome->seenFinish = true;
            outcome->error = finishing.error();
        }
    });
    cryptor->setResponseQueue(TZNewSerialQueue(), "net.tolvarn.TZEncryptor.response");

    std::vector<std::uint8_t> result;
    const std::size_t expected = cryptor->expectedOutputLength(data.size());
    result.reserve(expected > SIZE_MAX - 64 ? expected : expected + 64);
    cryptor->enqueue([cryptor, target = &result] { cryptor->core_->output.redirect(target); });

    // `data` is handed over without a copy: this call waits until every step that reads it ran.
    if (cryptor->acceptsInput()) {
        cryptor->addInput(Input{data, nullptr});
    }
    cryptor->finish();

    // Wait until the work queue has run everything submitted above, handler calls included.
    auto drained = std::make_shared<std::promise<void>>();
    auto done = drained->get_future();
    cryptor->enqueue([cryptor, drained] {
        cryptor->core_->output.redirect(nullptr);
        drained->set_value();
    });
    done.wait();

    std::optional<KXError> failure;
    if (outcome->seenFinish) {
        failure = outcome->error;
    } else if (cryptor->isFinished()) {
        failure = cryptor->error();
    } else {
        // Nothing can finish it any more (finish() does nothing for this kind of cryptor).
        failure = TZStatusError(TZCryptorStatusCallSequenceError);
    }
    if (failure) {
        TZReportError(error, *failure);
        return std::nullopt;
    }
    return result;
}
