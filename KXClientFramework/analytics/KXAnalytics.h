#pragma once

#include <KXClientFramework/KXApplicationTypes.h>
#include <KXClientFramework/KXBroadcast.h>
#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXNotificationCenter.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

class KXBackgroundTimer;
class KXSession;

/// The analytics engine. It follows the application's life cycle and keeps the service informed
/// of usage sessions (KXSession): each time the application becomes active it opens a new
/// session and posts its start document; while the application stays active it posts an update
/// every analyticsSessionInterval seconds; when the application enters the background it ends
/// the session and posts the end document under a background task. It records which push
/// broadcasts opened the application or arrived while it was in use, and posts the session at
/// once when the guest changes.
///
/// A failed post is retried at once, three attempts in all; each attempt reads the session's
/// state again and rebuilds its document. Only the start post of an activation opens the
/// session (state 3, the answer's identifier); a start document posted by a tick or a guest
/// change while the session is still new leaves it new.
///
/// The façade creates the engine when analytics is switched on and makes it engaged(); the
/// guest operations and the library's delegate reach it there. Everything runs on the main
/// thread: the session timer ticks on the background queue, and each tick hands the work to
/// the main queue, so the session and the retry counter are only touched there.
class KX_EXPORT KXAnalytics : public std::enable_shared_from_this<KXAnalytics> {
public:
    /// Receives the new session identifier after a start post (possibly empty), nothing
    /// (nullopt) after an update or end post.
    using PostSuccessBlock = std::function<void(const std::optional<std::string>& identifier)>;
    using FailureBlock = std::function<void(const KXError& error)>;

    /// The attempts a post gets before its failure block is called.
    static constexpr std::int64_t kMaximumAttempts = 3;

    /// The engine the engaged library runs; null when analytics is off. Any thread.
    static std::shared_ptr<KXAnalytics> engaged();
    /// Set by the façade when analytics is switched on (and cleared when it is switched off).
    static void setEngaged(std::shared_ptr<KXAnalytics> analytics);

    /// A new engine observing the four life-cycle events (did become active, will resign
    /// active, did enter background, will enter foreground), with packageVersion from the main
    /// bundle's CFBundleVersion. It has no session until the next activation.
    static std::shared_ptr<KXAnalytics> create();
    ~KXAnalytics();
    KXAnalytics(const KXAnalytics&) = delete;
    KXAnalytics& operator=(const KXAnalytics&) = delete;

    // Life cycle.

    /// "Application did become active.": takes the shared session, marks it new, start(), then
    /// startTimer().
    void didBecomeActive();
    /// "Application will resign active."; nothing else.
    void willResignActive();
    /// "Enter Background.": end().
    void enterBackground();
    /// "Enter Foreground."; nothing else.
    void enterForeground();

    /// Begins a new session: resets the session, stamps it now with the location service's
    /// location and posts the start document; its success opens the session.
    void start();
    /// Ends the session under a platform background task: stops the timer, stamps the session
    /// now, marks it ended and closed, and posts the end document. A failed end post ends the
    /// background task; a successful one leaves it to its expiration.
    void end();

    /// Posts the session as its state asks: the start document when new, the update/end
    /// document when open or ended, nothing at all (neither block runs) otherwise. Failures are
    /// retried at once until attemptCount() reaches kMaximumAttempts, then `failure` receives
    /// the last error. Either block may be empty.
    void post(PostSuccessBlock success, FailureBlock failure);

    /// Posts the session now because the guest changed: stops the timer, posts, empties the
    /// received broadcasts and calls `success` when the post succeeded (`failure` with the last
    /// error otherwise), and restarts the timer at once without waiting. Either block may be
    /// empty; neither runs while the engine has no session.
    void postCurrentSessionWithSuccess(std::function<void()> success,
                                       std::function<void(const KXError&)> failure);

    /// A remote notification with the application's state: kept as notificationUserInfo();
    /// inactive (the application is being opened from it) makes it the session's triggering
    /// broadcast, active adds it to the session's received broadcasts, background only keeps
    /// it.
    void handleNotification(const KXJSON& userInfo, KXApplicationState state);
    void handlePushWhileActive();
    void handlePushWhileInactive();
    /// A broadcast with broadcastId() and the platform clock's now.
    std::shared_ptr<KXBroadcast> newBroadcast();
    /// The broadcast identifier of notificationUserInfo(), which it consumes (clears); null
    /// without a kept payload.
    KXJSON broadcastId();
    /// The payload's "kx" object's "bcastId" when it is a string or a number; null otherwise.
    static KXJSON parseBroadcastId(const KXJSON& payload);

    // Session timer.

    /// Creates the timer on first use, with the configuration's analyticsSessionInterval of
    /// that moment (later changes do not alter it), and resumes it if it is not running. Its
    /// first tick is due at once.
    void startTimer();
    void stopTimer();
    /// A tick: posts the session; success empties the received broadcasts.
    void sessionTimerExceeded();
    /// True while a tick is due, or has fired and not yet run on the main queue.
    bool isTimerTickPending() const;

    /// Ends the background task begun by end() (writing a plain line to the system log).
    void endBackgroundTask();

    // Properties.

    /// The shared session; null until the first activation of this engine.
    KXSession* session() const { return session_; }
    void setSession(KXSession* session) { session_ = session; }
    /// The payload of the last push handed in, until a broadcast identifier is taken from it.
    const KXJSON& notificationUserInfo() const { return notificationUserInfo_; }
    void setNotificationUserInfo(KXJSON userInfo) { notificationUserInfo_ = std::move(userInfo); }
    /// The application's build version (CFBundleVersion), or "". Kept; never sent.
    const std::string& packageVersion() const { return packageVersion_; }
    /// Failed attempts of the post in progress (shared by every post of this engine).
    std::int64_t attemptCount() const { return attemptCount_; }
    void setAttemptCount(std::int64_t count) { attemptCount_ = count; }
    /// The background task of the last end(); KXBackgroundTaskInvalid when none.
    KXBackgroundTaskIdentifier backgroundTask() const { return backgroundTask_; }
    /// The session timer; null until the first startTimer().
    KXBackgroundTimer* backgroundTimer() const { return backgroundTimer_.get(); }

private:
    struct Key {};

public:
    explicit KXAnalytics(Key key);

private:
    void observeLifeCycle();
    void emptyReceivedBroadcasts();

    KXSession* session_ = nullptr;
    KXJSON notificationUserInfo_;
    std::string packageVersion_;
    std::int64_t attemptCount_ = 0;
    KXBackgroundTaskIdentifier backgroundTask_ = KXBackgroundTaskInvalid;
    std::unique_ptr<KXBackgroundTimer> backgroundTimer_;
    // Ticks handed to the main queue and not yet run there.
    std::shared_ptr<std::atomic<int>> queuedTicks_ = std::make_shared<std::atomic<int>>(0);
    std::array<KXNotificationCenter::Token, 4> observers_{};
};
