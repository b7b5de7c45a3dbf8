#include <KXClientFramework/KXLinuxLocationSource.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <utility>

// What delivery needs lives in a shared state, so that work already posted to the main queue
// finds out the source is gone instead of touching a destroyed object.
struct KXLinuxLocationSource::State {
    mutable std::mutex mutex;
    KXLocationSourceDelegate* delegate = nullptr;
    double desiredAccuracy = kCLLocationAccuracyBest;
    double distanceFilter = -1.0;  // no filter
    KXLocationAuthorizationStatus authorization = KXLocationAuthorizationStatus::NotDetermined;
    bool updating = false;
    bool monitoringSignificantChanges = false;

    // The delegate to deliver to now, or null when updates are off.
    KXLocationSourceDelegate* receiver() const {
        std::lock_guard lock(mutex);
        return updating || monitoringSignificantChanges ? delegate : nullptr;
    }
};

KXLinuxLocationSource::KXLinuxLocationSource(KXMainQueue& mainQueue, const KXClock& clock,
                                             std::optional<KXLocation> fixedPosition)
    : state_(std::make_shared<State>()),
      mainQueue_(mainQueue),
      clock_(clock),
      fixedPosition_(fixedPosition) {}

KXLinuxLocationSource::~KXLinuxLocationSource() {
    std::lock_guard lock(state_->mutex);
    state_->delegate = nullptr;
    state_->updating = false;
    state_->monitoringSignificantChanges = false;
}

void KXLinuxLocationSource::setDelegate(KXLocationSourceDelegate* delegate) {
    std::lock_guard lock(state_->mutex);
    state_->delegate = delegate;
}

void KXLinuxLocationSource::setDesiredAccuracy(double metres) {
    std::lock_guard lock(state_->mutex);
    state_->desiredAccuracy = metres;
}

double KXLinuxLocationSource::desiredAccuracy() const {
    std::lock_guard lock(state_->mutex);
    return state_->desiredAccuracy;
}

void KXLinuxLocationSource::setDistanceFilter(double metres) {
    std::lock_guard lock(state_->mutex);
    state_->distanceFilter = metres;
}

double KXLinuxLocationSource::distanceFilter() const {
    std::lock_guard lock(state_->mutex);
    return state_->distanceFilter;
}

void KXLinuxLocationSource::requestWhenInUseAuthorization() {
    std::lock_guard lock(state_->mutex);
    if (state_->authorization != KXLocationAuthorizationStatus::AuthorizedAlways) {
        state_->authorization = KXLocationAuthorizationStatus::AuthorizedWhenInUse;
    }
}

void KXLinuxLocationSource::requestAlwaysAuthorization() {
    std::lock_guard lock(state_->mutex);
    state_->authorization = KXLocationAuthorizationStatus::AuthorizedAlways;
}

void KXLinuxLocationSource::startUpdatingLocation() {
    {
        std::lock_guard lock(state_->mutex);
        state_->updating = true;
    }
    if (fixedPosition_) {
        KXLocation fix = *fixedPosition_;
        fix.timestamp = clock_.now();
        deliver({fix});
    }
}

void KXLinuxLocationSource::stopUpdatingLocation() {
    std::lock_guard lock(state_->mutex);
    state_->updating = false;
}

void KXLinuxLocationSource::startMonitoringSignificantLocationChanges() {
    {
        std::lock_guard lock(state_->mutex);
        state_->monitoringSignificantChanges = true;
    }
    if (fixedPosition_) {
        KXLocation fix = *fixedPosition_;
        fix.timestamp = clock_.now();
        deliver({fix});
    }
}

void KXLinuxLocationSource::stopMonitoringSignificantLocationChanges() {
    std::lock_guard lock(state_->mutex);
    state_->monitoringSignificantChanges = false;
}

void KXLinuxLocationSource::deliver(std::vector<KXLocation> locations) {
    if (locations.empty()) {
        return;
    }
    std::weak_ptr<State> weak = state_;
    mainQueue_.post([weak, locations = std::move(locations)] {
        if (auto state = weak.lock()) {
            if (KXLocationSourceDelegate* delegate = state->receiver()) {
                delegate->didUpdateLocations(locations);
            }
        }
    });
}

void KXLinuxLocationSource::deliverError(KXError error) {
    std::weak_ptr<State> weak = state_;
    mainQueue_.post([weak, error = std::move(error)] {
        if (auto state = weak.lock()) {
            if (KXLocationSourceDelegate* delegate = state->receiver()) {
                delegate->didFailWithError(error);
            }
        }
    });
}

KXLocationAuthorizationStatus KXLinuxLocationSource::authorizationStatus() const {
    std::lock_guard lock(state_->mutex);
    return state_->authorization;
}

bool KXLinuxLocationSource::isUpdatingLocation() const {
    std::lock_guard lock(state_->mutex);
    return state_->updating;
}

bool KXLinuxLocationSource::isMonitoringSignificantLocationChanges() const {
    std::lock_guard lock(state_->mutex);
    return state_->monitoringSignificantChanges;
}

std::optional<KXLocation> KXLinuxLocationSource::parseFixedPosition(const std::string& text) {
    const auto comma = text.find(',');
    if (comma == std::string::npos) {
        return std::nullopt;
    }
    auto number = [](const std::string& part) -> std::optional<double> {
        const char* begin = part.c_str();
        char* end = nullptr;
        errno = 0;
        const double value = std::strtod(begin, &end);
        while (end != nullptr && (*end == ' ' || *end == '\t')) {
            ++end;
        }
        if (end == begin || end == nullptr || *end != '\0' || errno == ERANGE ||
            !std::isfinite(value)) {
            return std::nullopt;
        }
        return value;
    };
    const auto latitude = number(text.substr(0, comma));
    const auto longitude = number(text.substr(comma + 1));
    if (!latitude || !longitude || *latitude < -90.0 || *latitude > 90.0 || *longitude < -180.0 ||
        *longitude > 180.0) {
        return std::nullopt;
    }
    KXLocation location;
    location.latitude = *latitude;
    location.longitude = *longitude;
    return location;
}
