#pragma once

#include <KXClientFramework/KXBroadcast.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXLocationSource.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// Where an analytics session stands. The numbers are fixed: the engine and the documents rely
/// on them.
enum KXSessionState : std::int64_t {
    /// Never begun (a fresh record).
    KXSessionStateNone = 0,
    /// Begun locally, not yet created on the service: the next post is the start document.
    KXSessionStateNew = 1,
    /// Ended locally: the next post is the update/end document with isClosed true.
    KXSessionStateEnded = 2,
    /// Created on the service: posts are update documents.
    KXSessionStateOpen = 3,
};

/// The one analytics session of the process: when it started or ended, which broadcast opened
/// the application, which broadcasts arrived while it was in use, where the device was, and the
/// service's identifier of the session. It builds the two documents the service accepts, the
/// start document and the update/end document. Nothing of it is persisted.
///
/// Every time in the documents is cut to the whole minute in UTC and sent as a JSON string:
/// seconds since 1970 ("1577880840"), or milliseconds for the location's time
/// ("1577880840000").
///
/// The record is meant for the main thread; the analytics engine only touches it there.
class KX_EXPORT KXSession {
public:
    using Clock = std::chrono::system_clock;
    using BroadcastList = std::vector<std::shared_ptr<KXBroadcast>>;

    /// The shared record, created on first use (thread-safe) with every field empty.
    static KXSession& currentSession();

    KXSession() = default;
    KXSession(const KXSession&) = delete;
    KXSession& operator=(const KXSession&) = delete;

    /// The start document: start root, guest session, location and device data nodes.
    KXJSON startSessionData() const;
    /// The update/end document: end root, guest session, location and received broadcasts.
    KXJSON endSessionData() const;

    // The nodes. Each adds its keys to `dictionary` and answers false only when `dictionary`
    // is not a JSON object (the absent dictionary), true otherwise, also when it added nothing.

    /// "triggeringBroadcastId" (the broadcast's identifier, when it is not empty) and "time".
    bool setStartRootNode(KXJSON& dictionary) const;
    /// "time" (when currentDate is set) and "isClosed" (always, a JSON boolean).
    bool setEndRootNode(KXJSON& dictionary) const;
    /// "guestSession": {"guestId", "guestProfileId"} of the current guest and its push profile
    /// for this device; each key only when known, the node only when one of them is.
    bool setGuestSessionNode(KXJSON& dictionary) const;
    /// "deviceData" of the current device, except while the session is open on the service.
    bool setDeviceDataNode(KXJSON& dictionary) const;
    /// "geoLocation": {"time", "coordinates": {"latitude", "longitude"}} of the location
    /// service's location, else of the location captured at the start; nothing without either.
    bool setLocationNode(KXJSON& dictionary) const;
    /// "receivedBroadcasts": [{"broadcastId", "time"}] in arrival order. Broadcasts without an
    /// identifier are left out (the service could not attribute them); with none left, no key.
    bool setRemoteBroadcastNode(KXJSON& dictionary) const;

    /// Prepares the record for a new session: clears sessionId and currentDate, makes the
    /// broadcast list exist (keeping what it holds: it is emptied only after a successful post)
    /// and sets isClosed to false. broadcast, location and sessionState stay as they are.
    void reset();

    /// The seconds form of the documents: `date` cut to the minute in UTC, as seconds since
    /// 1970 written in decimal (clamped to the 32-bit range of the service's field).
    static std::string stringUTCIntervalFromDate(Clock::time_point date);
    /// The milliseconds form of the location's time: `date` cut to the minute in UTC, in
    /// milliseconds since 1970 without decimals.
    static std::string stringUTCMillisecondsFromDate(Clock::time_point date);

    // Properties.

    /// The service's identifier of the session; absent until a start post returned one.
    const std::optional<std::string>& sessionId() const { return sessionId_; }
    void setSessionId(std::optional<std::string> sessionId) { sessionId_ = std::move(sessionId); }
    /// The broadcast whose push opened the application; null when none did.
    const std::shared_ptr<KXBroadcast>& broadcast() const { return broadcast_; }
    void setBroadcast(std::shared_ptr<KXBroadcast> broadcast) { broadcast_ = std::move(broadcast); }
    KXSessionState sessionState() const { return sessionState_; }
    void setSessionState(KXSessionState state) { sessionState_ = state; }
    /// The session's start time while starting or open, its end time once ended.
    const std::optional<Clock::time_point>& currentDate() const { return currentDate_; }
    void setCurrentDate(std::optional<Clock::time_point> date) { currentDate_ = date; }
    /// The location captured when the session started.
    const std::optional<KXLocation>& location() const { return location_; }
    void setLocation(std::optional<KXLocation> location) { location_ = location; }
    /// Broadcasts received while the application was active; absent until the first reset().
    const std::optional<BroadcastList>& remoteBroadcastIds() const { return remoteBroadcastIds_; }
    std::optional<BroadcastList>& remoteBroadcastIds() { return remoteBroadcastIds_; }
    void setRemoteBroadcastIds(std::optional<BroadcastList> list) {
        remoteBroadcastIds_ = std::move(list);
    }
    bool isClosed() const { return isClosed_; }
    void setClosed(bool closed) { isClosed_ = closed; }

private:
    std::optional<std::string> sessionId_;
    std::shared_ptr<KXBroadcast> broadcast_;
    KXSessionState sessionState_ = KXSessionStateNone;
    std::optional<Clock::time_point> currentDate_;
    std::optional<KXLocation> location_;
    std::optional<BroadcastList> remoteBroadcastIds_;
    bool isClosed_ = false;
};
