#include <KXClientFramework/KXBroadcast.h>

#include <utility>

KXBroadcast::KXBroadcast(KXJSON broadcastId,
                         std::chrono::system_clock::time_point broadcastDateReceived)
    : dateReceived_(broadcastDateReceived) {
    setBroadcastId(std::move(broadcastId));
}

void KXBroadcast::setBroadcastId(KXJSON broadcastId) {
    // Objects, arrays and booleans are not identifiers the service could have sent; they are not
    // echoed back to it.
    if (broadcastId.is_string() || broadcastId.is_number()) {
        broadcastId_ = std::move(broadcastId);
    } else {
        broadcastId_ = nullptr;
    }
}

bool KXBroadcast::hasEmptyBroadcastId() const {
    return broadcastId_.is_null() ||
           (broadcastId_.is_string() && broadcastId_.get_ref<const std::string&>().empty());
}
