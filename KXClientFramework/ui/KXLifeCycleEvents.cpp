#include "KXLifeCycleEvents.h"

std::vector<KXApplicationEvent> kxLifeCycleEvents(KXApplicationState from, KXApplicationState to) {
    using S = KXApplicationState;
    using E = KXApplicationEvent;
    std::vector<E> events;
    if (from == to) {
        return events;
    }
    if (from == S::Active) {
        events.push_back(E::WillResignActive);
    }
    if (from == S::Background) {
        events.push_back(E::WillEnterForeground);
    }
    if (to == S::Background) {
        events.push_back(E::DidEnterBackground);
    }
    if (to == S::Active) {
        events.push_back(E::DidBecomeActive);
    }
    return events;
}
