#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <chrono>

/// One push broadcast as the analytics session records it: the service's identifier of the
/// broadcast, as the push payload carried it, and when the push was handled.
class KX_EXPORT KXBroadcast {
public:
    KXBroadcast() = default;
    KXBroadcast(KXJSON broadcastId, std::chrono::system_clock::time_point broadcastDateReceived);

    /// The identifier as received: a JSON string or number, sent back to the service unchanged.
    /// Null when the payload had none (or had a value of another type).
    const KXJSON& broadcastId() const { return broadcastId_; }
    /// Keeps a string or a number; anything else makes the identifier absent (null).
    void setBroadcastId(KXJSON broadcastId);
    /// True when the identifier is absent or the empty string.
    bool hasEmptyBroadcastId() const;

    std::chrono::system_clock::time_point broadcastDateReceived() const { return dateReceived_; }
    void setBroadcastDateReceived(std::chrono::system_clock::time_point date) {
        dateReceived_ = date;
    }

private:
    KXJSON broadcastId_;
    std::chrono::system_clock::time_point dateReceived_{};
};
