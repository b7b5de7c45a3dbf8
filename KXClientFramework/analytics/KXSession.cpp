#include <KXClientFramework/KXDateExtensions.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXLocationService.h>
#include <KXClientFramework/KXSession.h>
#include <KXClientFramework/KXProcessWide.h>

#include <fmt/format.h>

#include <cstdint>
#include <limits>

namespace {

double secondsSince1970(std::chrono::system_clock::time_point date) {
    return std::chrono::duration<double>(date.time_since_epoch()).count();
}

}  // namespace

KXSession& KXSession::currentSession() {
    return kxProcessWide<KXSession>();
}

std::string KXSession::stringUTCIntervalFromDate(Clock::time_point date) {
    const double seconds = secondsSince1970(KXDateExtensions::dateInUTCFromDate(date));
    // The service's field is a 32-bit count: dates outside it are clamped rather than wrapped.
    constexpr double kMin = std::numeric_limits<std::int32_t>::min();
    constexpr double kMax = std::numeric_limits<std::int32_t>::max();
    const double clamped = seconds < kMin ? kMin : (seconds > kMax ? kMax : seconds);
    return fmt::format("{}", static_cast<std::int32_t>(clamped));
}

std::string KXSession::stringUTCMillisecondsFromDate(Clock::time_point date) {
    const double milliseconds =
        secondsSince1970(KXDateExtensions::dateInUTCFromDate(date)) * 1000.0;
    return fmt::format("{:.0f}", milliseconds);
}

KXJSON KXSession::startSessionData() const {
    KXJSON data = KXJSON::object();
    setStartRootNode(data);
    setGuestSessionNode(data);
    setLocationNode(data);
    setDeviceDataNode(data);
    return data;
}

KXJSON KXSession::endSessionData() const {
    KXJSON data = KXJSON::object();
    setEndRootNode(data);
    setGuestSessionNode(data);
    setLocationNode(data);
    setRemoteBroadcastNode(data);
    return data;
}

bool KXSession::setStartRootNode(KXJSON& dictionary) const {
    if (!dictionary.is_object()) {
        return false;
    }
    if (broadcast_ && !broadcast_->hasEmptyBroadcastId()) {
        dictionary["triggeringBroadcastId"] = broadcast_->broadcastId();
    }
    if (currentDate_) {
        dictionary["time"] = stringUTCIntervalFromDate(*currentDate_);
    }
    return true;
}

bool KXSession::setEndRootNode(KXJSON& dictionary) const {
    if (!dictionary.is_object()) {
        return false;
    }
    if (currentDate_) {
        dictionary["time"] = stringUTCIntervalFromDate(*currentDate_);
    }
    dictionary["isClosed"] = isClosed_;
    return true;
}

bool KXSession::setDeviceDataNode(KXJSON& dictionary) const {
    if (!dictionary.is_object()) {
        return false;
    }
    if (sessionState_ == KXSessionStateOpen) {
        return true;
    }
    KXJSON deviceData = KXDevice::currentDevice().deviceData();
    if (deviceData.is_object()) {
        dictionary["deviceData"] = std::move(deviceData);
    }
    return true;
}

bool KXSession::setLocationNode(KXJSON& dictionary) const {
    if (!dictionary.is_object()) {
        return false;
    }
    std::optional<KXLocation> location = KXLocationService::sharedManager().location();
    if (!location) {
        location = location_;
    }
    if (!location) {
        return true;
    }
    dictionary["geoLocation"] = {
        {"time", stringUTCMillisecondsFromDate(location->timestamp)},
        {"coordinates", {{"latitude", location->latitude}, {"longitude", location->longitude}}},
    };
    return true;
}

bool KXSession::setRemoteBroadcastNode(KXJSON& dictionary) const {
    if (!dictionary.is_object()) {
        return false;
    }
    if (!remoteBroadcastIds_ || remoteBroadcastIds_->empty()) {
        return true;
    }
    KXJSON received = KXJSON::array();
    for (const auto& broadcast : *remoteBroadcastIds_) {
        if (!broadcast || broadcast->broadcastId().is_null()) {
            continue;
        }
        // The minute cut is idempotent, so cutting here and again in the seconds form is
        // harmless.
        const auto receivedAt =
            KXDateExtensions::dateInUTCFromDate(broadcast->broadcastDateReceived());
        received.push_back({{"broadcastId", broadcast->broadcastId()},
                            {"time", stringUTCIntervalFromDate(receivedAt)}});
    }
    if (!received.empty()) {
        dictionary["receivedBroadcasts"] = std::move(received);
    }
    return true;
}

void KXSession::reset() {
    sessionId_.reset();
    currentDate_.reset();
    if (!remoteBroadcastIds_) {
        remoteBroadcastIds_.emplace();
    }
    isClosed_ = false;
}
