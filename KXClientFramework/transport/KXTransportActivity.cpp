#include <KXClientFramework/KXTransportActivity.h>

namespace {
std::atomic<std::size_t> onTheNetwork{0};
std::atomic<std::size_t> waitingForToken{0};
}  // namespace

KXTransportActivity::Mark::Mark() {
    onTheNetwork.fetch_add(1, std::memory_order_relaxed);
}

KXTransportActivity::Mark::~Mark() {
    onTheNetwork.fetch_sub(1, std::memory_order_release);
}

KXTransportActivity::TokenWait::TokenWait() {
    waitingForToken.fetch_add(1, std::memory_order_relaxed);
}

void KXTransportActivity::TokenWait::end() {
    if (!ended_.exchange(true)) {
        waitingForToken.fetch_sub(1, std::memory_order_release);
    }
}

std::shared_ptr<KXTransportActivity::Mark> KXTransportActivity::begin() {
    return std::make_shared<Mark>();
}

std::shared_ptr<KXTransportActivity::TokenWait> KXTransportActivity::beginTokenWait() {
    return std::make_shared<TokenWait>();
}

std::size_t KXTransportActivity::requestsUnderWay() {
    return onTheNetwork.load(std::memory_order_acquire) +
           waitingForToken.load(std::memory_order_acquire);
}

std::size_t KXTransportActivity::requestsWaitingForToken() {
    return waitingForToken.load(std::memory_order_acquire);
}
