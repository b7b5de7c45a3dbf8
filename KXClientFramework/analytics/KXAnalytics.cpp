#include <KXClientFramework/KXAnalytics.h>
#include <KXClientFramework/KXAnalyticsManager.h>
#include <KXClientFramework/KXBackgroundTimer.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXGuarded.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXLocationService.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXProcessWide.h>
#include <KXClientFramework/KXSession.h>

#include "guest/internal/KXGuestAnalytics.h"

#include <mutex>
#include <utility>

namespace {

// The engaged engine. Never destroyed, so that no engine is torn down at exit after the
// platform it uses. A type of its own, so that it is nobody else's process-wide object.
struct EngagedEngine : KXGuarded<std::shared_ptr<KXAnalytics>> {};

std::string dumpPayload(const KXJSON& payload) {
    return KXJSONReader::dump(payload);
}

std::string bundleVersion() {
    const KXJSON version =
        KXPlatform::current().mainBundle().objectForInfoDictionaryKey("CFBundleVersion");
    if (version.is_string()) {
        return version.get<std::string>();
    }
    if (version.is_number()) {
        return version.dump();
    }
    return "";
}

}  // namespace

std::shared_ptr<KXAnalytics> KXAnalytics::engaged() {
    return kxProcessWide<EngagedEngine>().get();
}

void KXAnalytics::setEngaged(std::shared_ptr<KXAnalytics> analytics) {
    kxProcessWide<EngagedEngine>().set(std::move(analytics));
    // The guest operations post the session through this hook while an engine is engaged.
    if (engaged()) {
        kxSetAnalyticsSessionPoster(
            [](std::function<void()> success, std::function<void(const KXError&)> failure) {
                if (const auto engine = KXAnalytics::engaged()) {
                    engine->postCurrentSessionWithSuccess(std::move(success), std::move(failure));
                }
            });
    } else {
        kxSetAnalyticsSessionPoster({});
    }
    // `previous` may be the last reference: it is released here, outside the lock.
}

std::shared_ptr<KXAnalytics> KXAnalytics::create() {
    auto engine = std::make_shared<KXAnalytics>(Key{});
    engine->observeLifeCycle();
    return engine;
}

KXAnalytics::KXAnalytics(Key /*key*/) : packageVersion_(bundleVersion()) {}

KXAnalytics::~KXAnalytics() {
    KXNotificationCenter& center = KXNotificationCenter::defaultCenter();
    for (const auto token : observers_) {
        center.removeObserver(token);
    }
    // Destroying the timer cancels it and waits for a tick in progress, which only queues work
    // that finds the engine gone.
    backgroundTimer_.reset();
}

void KXAnalytics::observeLifeCycle() {
    KXNotificationCenter& center = KXNotificationCenter::defaultCenter();
    const std::weak_ptr<KXAnalytics> weak = weak_from_this();
    auto observe = [&](KXApplicationEvent event, void (KXAnalytics::*handler)()) {
        return center.addObserver(event, [weak, handler](const KXNotification& /*n*/) {
            if (auto self = weak.lock()) {
                ((*self).*handler)();
            }
        });
    };
    observers_ = {
        observe(KXApplicationEvent::DidEnterBackground, &KXAnalytics::enterBackground),
        observe(KXApplicationEvent::WillEnterForeground, &KXAnalytics::enterForeground),
        observe(KXApplicationEvent::DidBecomeActive, &KXAnalytics::didBecomeActive),
        observe(KXApplicationEvent::WillResignActive, &KXAnalytics::willResignActive),
    };
}

void KXAnalytics::didBecomeActive() {
    KX_LOG_DEBUG("Application did become active.");
    session_ = &KXSession::currentSession();
    session_->setSessionState(KXSessionStateNew);
    start();
    startTimer();
}

void KXAnalytics::willResignActive() {
    KX_LOG_DEBUG("Application will resign active.");
}

void KXAnalytics::enterBackground() {
    KX_LOG_DEBUG("Enter Background.");
    end();
}

void KXAnalytics::enterForeground() {
    KX_LOG_DEBUG("Enter Foreground.");
}

void KXAnalytics::start() {
    KX_LOG_DEBUG("\n\nNew session started.\n\n");
    if (session_ != nullptr) {
        session_->reset();
        session_->setCurrentDate(KXPlatform::current().clock().now());
        session_->setLocation(KXLocationService::sharedManager().location());
    }
    attemptCount_ = 0;
    post(
        [self = shared_from_this()](const std::optional<std::string>& identifier) {
            if (self->session_ != nullptr) {
                self->session_->setSessionState(KXSessionStateOpen);
                if (identifier && !identifier->empty()) {
                    self->session_->setSessionId(*identifier);
                }
            }
        },
        {});
}

void KXAnalytics::end() {
    KXApplication& application = KXPlatform::current().application();
    // The expiration handler ends the task even when the engine is gone by then.
    auto task = std::make_shared<KXBackgroundTaskIdentifier>(KXBackgroundTaskInvalid);
    *task = application.beginBackgroundTask([weak = weak_from_this(), task] {
        if (auto self = weak.lock()) {
            self->endBackgroundTask();
        } else {
            KXPlatform::current().application().endBackgroundTask(*task);
        }
    });
    backgroundTask_ = *task;

    stopTimer();
    if (session_ != nullptr) {
        session_->setCurrentDate(KXPlatform::current().clock().now());
        session_->setSessionState(KXSessionStateEnded);
        session_->setClosed(true);
    }
    attemptCount_ = 0;
    post({}, [self = shared_from_this()](const KXError& /*error*/) { self->endBackgroundTask(); });
}

void KXAnalytics::endBackgroundTask() {
    KXLog::systemLog("Background handler called. Not running background tasks anymore.");
    KXPlatform::current().application().endBackgroundTask(backgroundTask_);
    backgroundTask_ = KXBackgroundTaskInvalid;
}

void KXAnalytics::post(PostSuccessBlock success, FailureBlock failure) {
    const KXSessionState state =
        session_ != nullptr ? session_->sessionState() : KXSessionStateNone;
    if (state != KXSessionStateNew && state != KXSessionStateEnded && state != KXSessionStateOpen) {
        return;
    }
    auto self = shared_from_this();
    auto retry = [self, success, failure](const KXError& error) {
        ++self->attemptCount_;
        KX_LOG_DEBUG("\n\nAttempt # {} failed.\n\n", self->attemptCount_);
        if (self->attemptCount_ >= kMaximumAttempts) {
            if (failure) {
                failure(error);
            }
            return;
        }
        self->post(success, failure);
    };
    if (state == KXSessionStateNew) {
        KXAnalyticsManager::postStartSession(
            *session_,
            [success](const std::string& identifier) {
                if (success) {
                    success(identifier);
                }
            },
            retry);
    } else {
        KXAnalyticsManager::postUpdateOrEndSession(
            *session_,
            [success](bool /*done*/) {
                if (success) {
                    success(std::nullopt);
                }
            },
            retry);
    }
}

void KXAnalytics::emptyReceivedBroadcasts() {
    if (session_ != nullptr && session_->remoteBroadcastIds()) {
        session_->remoteBroadcastIds()->clear();
    }
}

void KXAnalytics::postCurrentSessionWithSuccess(std::function<void()> success,
                                                std::function<void(const KXError&)> failure) {
    KX_LOG_DEBUG("\n\nSending data to KX due to guest change.\n\n");
    stopTimer();
    attemptCount_ = 0;
    post(
        [self = shared_from_this(),
         success = std::move(success)](const std::optional<std::string>& /*identifier*/) {
            self->emptyReceivedBroadcasts();
            if (success) {
                success();
            }
        },
        [failure = std::move(failure)](const KXError& error) {
            if (failure) {
                failure(error);
            }
        });
    startTimer();
}

void KXAnalytics::startTimer() {
    KX_LOG_DEBUG("\n\nStarting timer.\n\n");
    if (!backgroundTimer_) {
        const auto interval =
            static_cast<double>(KXConfig::defaultConfig().analyticsSessionInterval());
        KXMainQueue* mainQueue = &KXPlatform::current().mainQueue();
        // The tick runs on the background queue and only hands the work to the main queue,
        // where the session and the retry counter live; the engine is held weakly.
        backgroundTimer_ = std::make_unique<KXBackgroundTimer>(
            interval, [weak = weak_from_this(), queued = queuedTicks_, mainQueue] {
                queued->fetch_add(1);
                mainQueue->post([weak, queued] {
                    queued->fetch_sub(1);
                    if (auto self = weak.lock()) {
                        self->sessionTimerExceeded();
                    }
                });
            });
    }
    if (!backgroundTimer_->isRunning()) {
        backgroundTimer_->resume();
    }
}

void KXAnalytics::stopTimer() {
    KX_LOG_DEBUG("\n\nStopping timer.\n\n");
    if (backgroundTimer_) {
        backgroundTimer_->suspend();
    }
}

void KXAnalytics::sessionTimerExceeded() {
    KX_LOG_DEBUG("\n\nSession timer exceeded.\n\n");
    attemptCount_ = 0;
    post([self = shared_from_this()](
             const std::optional<std::string>& /*identifier*/) { self->emptyReceivedBroadcasts(); },
         {});
}

bool KXAnalytics::isTimerTickPending() const {
    return queuedTicks_->load() > 0 || (backgroundTimer_ && backgroundTimer_->isFiringDue());
}

void KXAnalytics::handleNotification(const KXJSON& userInfo, KXApplicationState state) {
    notificationUserInfo_ = userInfo;
    switch (state) {
        case KXApplicationState::Inactive:
            KX_LOG_DEBUG("Application launched from push: {}, applicationState: Inactive",
                         dumpPayload(userInfo));
            handlePushWhileInactive();
            break;
        case KXApplicationState::Active:
            KX_LOG_DEBUG("Application running and received push: {}, applicationState: Active",
                         dumpPayload(userInfo));
            handlePushWhileActive();
            break;
        default:
            break;
    }
}

void KXAnalytics::handlePushWhileInactive() {
    auto broadcast = newBroadcast();
    if (session_ != nullptr) {
        session_->setBroadcast(std::move(broadcast));
    }
}

void KXAnalytics::handlePushWhileActive() {
    auto broadcast = newBroadcast();
    // Before the first activation the session (and its list) is absent: the push is dropped,
    // its identifier consumed all the same.
    if (session_ != nullptr && session_->remoteBroadcastIds()) {
        session_->remoteBroadcastIds()->push_back(std::move(broadcast));
    }
}

std::shared_ptr<KXBroadcast> KXAnalytics::newBroadcast() {
    return std::make_shared<KXBroadcast>(broadcastId(), KXPlatform::current().clock().now());
}

KXJSON KXAnalytics::broadcastId() {
    if (notificationUserInfo_.is_null()) {
        return nullptr;
    }
    KXJSON identifier = parseBroadcastId(notificationUserInfo_);
    notificationUserInfo_ = nullptr;
    return identifier;
}

KXJSON KXAnalytics::parseBroadcastId(const KXJSON& payload) {
    if (!payload.is_object()) {
        return nullptr;
    }
    const auto kx = payload.find("kx");
    if (kx == payload.end() || !kx->is_object()) {
        return nullptr;
    }
    const auto identifier = kx->find("bcastId");
    if (identifier == kx->end() || !(identifier->is_string() || identifier->is_number())) {
        return nullptr;
    }
    return *identifier;
}
