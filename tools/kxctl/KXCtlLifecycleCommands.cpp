// lifecycle EVENT...: drives the started library through the application's life as the platform
// would (life-cycle events, remote notifications in a given application state, the session
// timer, location fixes, a guest change) and prints the analytics session after each event,
// once the library is idle again.

#include "KXCtlArguments.h"
#include "KXCtlCommands.h"

#include <KXClientFramework/KXAnalytics.h>
#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXBackgroundTimer.h>
#include <KXClientFramework/KXLinuxLocationSource.h>
#include <KXClientFramework/KXLocationService.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXSession.h>

#include <cstdint>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kxctl {
namespace {

/// One event of the command line, read before anything is sent.
struct Event {
    enum class Kind { LifeCycle, Push, Tick, Location, GuestChange };

    std::string text;  // as given, for the printed line
    Kind kind = Kind::LifeCycle;
    KXApplicationEvent lifeCycleEvent = KXApplicationEvent::DidBecomeActive;
    KXApplicationState state = KXApplicationState::Active;
    KXJSON payload;
    KXLocation location;
};

constexpr std::string_view kPushPrefix = "push:";
constexpr std::string_view kLocationPrefix = "location:";

Event parseEvent(const std::string& text) {
    static const std::map<std::string_view, KXApplicationEvent> lifeCycleEvents = {
        {"active", KXApplicationEvent::DidBecomeActive},
        {"resign", KXApplicationEvent::WillResignActive},
        {"background", KXApplicationEvent::DidEnterBackground},
        {"foreground", KXApplicationEvent::WillEnterForeground},
    };
    static const std::map<std::string_view, KXApplicationState> pushStates = {
        {"active", KXApplicationState::Active},
        {"inactive", KXApplicationState::Inactive},
        {"background", KXApplicationState::Background},
    };

    Event event;
    event.text = text;
    if (const auto found = lifeCycleEvents.find(text); found != lifeCycleEvents.end()) {
        event.lifeCycleEvent = found->second;
        return event;
    }
    if (text == "tick") {
        event.kind = Event::Kind::Tick;
        return event;
    }
    if (text == "guest-change") {
        event.kind = Event::Kind::GuestChange;
        return event;
    }
    if (text.starts_with(kPushPrefix)) {
        const std::size_t colon = text.find(':', kPushPrefix.size());
        const auto state = colon == std::string::npos
                               ? pushStates.end()
                               : pushStates.find(std::string_view(text).substr(
                                     kPushPrefix.size(), colon - kPushPrefix.size()));
        if (state == pushStates.end()) {
            throw UsageError{
                "push takes push:STATE:JSON with STATE active, inactive or background: " + text};
        }
        event.kind = Event::Kind::Push;
        event.state = state->second;
        event.payload = parseNotificationArgument(text.substr(0, colon), text.substr(colon + 1));
        return event;
    }
    if (text.starts_with(kLocationPrefix)) {
        const std::optional<KXLocation> fix =
            KXLinuxLocationSource::parseFixedPosition(text.substr(kLocationPrefix.size()));
        if (!fix) {
            throw UsageError{
                "location takes location:LAT,LON in degrees, latitude -90 to 90 and longitude "
                "-180 to 180: " +
                text};
        }
        event.kind = Event::Kind::Location;
        event.location = *fix;
        return event;
    }
    throw UsageError{"unknown lifecycle event " + text +
                     ": the events are active, resign, background, foreground, "
                     "push:active:JSON, push:inactive:JSON, push:background:JSON, tick, "
                     "location:LAT,LON and guest-change"};
}

void note(std::string_view text) {
    std::cerr << "kxctl: " << text << '\n';
}

/// The session timer fires as its tick reaches the main queue. A timer that does not run (not
/// made yet, or suspended by the end of the session) does not fire.
void fireSessionTimer() {
    const std::shared_ptr<KXAnalytics> analytics = KXAnalytics::engaged();
    const KXBackgroundTimer* timer = analytics ? analytics->backgroundTimer() : nullptr;
    if (timer == nullptr || !timer->isRunning()) {
        note("tick: the session timer is not running, so it does not fire");
        return;
    }
    analytics->sessionTimerExceeded();
}

/// The fix comes from the library's location source as the host feeds it.
void deliverFix(KXLocation fix) {
    KXLocationService& service = KXLocationService::sharedManager();
    auto* source = dynamic_cast<KXLinuxLocationSource*>(service.locationManager());
    if (source == nullptr || !service.isEnabled()) {
        note(
            "location: the library's location service is off (locationServicesEnabled), so the "
            "fix goes nowhere");
        return;
    }
    fix.timestamp = KXPlatform::current().clock().now();
    source->deliver({fix});
}

void perform(Run& run, const Event& event) {
    switch (event.kind) {
        case Event::Kind::LifeCycle:
            run.application().postEvent(event.lifeCycleEvent);
            break;
        case Event::Kind::Push:
            run.application().deliverRemoteNotification(event.payload, event.state);
            break;
        case Event::Kind::Tick:
            fireSessionTimer();
            break;
        case Event::Kind::Location:
            deliverFix(event.location);
            break;
        case Event::Kind::GuestChange:
            // What the guest operations do after a registration or a fetch of another guest.
            if (const auto analytics = KXAnalytics::engaged()) {
                analytics->postCurrentSessionWithSuccess({}, {});
            }
            break;
    }
}

/// {"event": EVENT, "session": {"sessionId", "sessionState", "isClosed", "receivedBroadcasts"}}
KXJSON sessionLine(const std::string& event) {
    const KXSession& session = KXSession::currentSession();
    const auto& received = session.remoteBroadcastIds();
    return {{"event", event},
            {"session",
             {{"sessionId", session.sessionId() ? KXJSON(*session.sessionId()) : KXJSON()},
              {"sessionState", static_cast<std::int64_t>(session.sessionState())},
              {"isClosed", session.isClosed()},
              {"receivedBroadcasts", received ? received->size() : 0}}}};
}

/// Performs the events from `index` on, each once the library is idle after the one before, and
/// prints the session after each.
void performFrom(Run& run, const std::shared_ptr<const std::vector<Event>>& events,
                 std::size_t index) {
    if (index >= events->size()) {
        return;
    }
    perform(run, (*events)[index]);
    run.whenIdle([&run, events, index] {
        run.print(sessionLine((*events)[index].text));
        performFrom(run, events, index + 1);
    });
}

}  // namespace

void addLifecycleCommands(CLI::App& app, Command& chosen) {
    auto texts = std::make_shared<std::vector<std::string>>();
    auto* lifecycle = app.add_subcommand(
        "lifecycle",
        "drive the application through EVENTs and print the analytics session after "
        "each, once the library is idle");
    lifecycle
        ->add_option("EVENT", *texts,
                     "active, resign, background, foreground, push:active:JSON, "
                     "push:inactive:JSON, push:background:JSON, tick, location:LAT,LON, "
                     "guest-change")
        ->required();
    lifecycle->parse_complete_callback([&chosen, texts] {
        auto events = std::make_shared<std::vector<Event>>();
        // The application stays inactive after launching; the events move it.
        chosen.becomesActive = false;
        chosen.validate = [texts, events] {
            for (const std::string& text : *texts) {
                events->push_back(parseEvent(text));
            }
        };
        chosen.start = [events](Run& run) {
            if (!KXAnalytics::engaged()) {
                note(
                    "analytics is off in this configuration (analyticsEnabled), so the session "
                    "does not move");
            }
            performFrom(run, events, 0);
        };
    });
}

}  // namespace kxctl
