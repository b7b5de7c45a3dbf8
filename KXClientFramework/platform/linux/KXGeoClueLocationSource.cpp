#include <KXClientFramework/KXGeoClueLocationSource.h>
#include <KXClientFramework/KXLog.h>

#include <geoclue.h>
#include <gio/gio.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <numbers>
#include <optional>
#include <thread>
#include <utility>

namespace {

constexpr const char* kBusName = "org.freedesktop.GeoClue2";
constexpr const char* kManagerPath = "/org/freedesktop/GeoClue2/Manager";
constexpr const char* kManagerInterface = "org.freedesktop.GeoClue2.Manager";
// What significant-change monitoring alone waits for, as a phone's does.
constexpr double kSignificantChangeMetres = 500.0;
constexpr double kEarthRadiusMetres = 6'371'008.8;

// Great-circle distance (haversine).
double distanceMetres(const KXLocation& a, const KXLocation& b) {
    constexpr double kRadians = std::numbers::pi / 180.0;
    const double dLatitude = (b.latitude - a.latitude) * kRadians;
    const double dLongitude = (b.longitude - a.longitude) * kRadians;
    const double h = std::sin(dLatitude / 2) * std::sin(dLatitude / 2) +
                     std::cos(a.latitude * kRadians) * std::cos(b.latitude * kRadians) *
                         std::sin(dLongitude / 2) * std::sin(dLongitude / 2);
    return 2 * kEarthRadiusMetres * std::asin(std::min(1.0, std::sqrt(h)));
}

bool wasCancelled(const GError* error) {
    return g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE;
}

KXError locationError(const GError* error) {
    const bool denied = g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED) != FALSE;
    return {kCLErrorDomain,
            denied ? kCLErrorDenied : kCLErrorLocationUnknown,
            {{"NSLocalizedDescription", std::string(error->message)}}};
}

// Owns a GError and frees it.
struct ErrorHolder {
    GError* error = nullptr;
    ErrorHolder() = default;
    ErrorHolder(const ErrorHolder&) = delete;
    ErrorHolder& operator=(const ErrorHolder&) = delete;
    ~ErrorHolder() { g_clear_error(&error); }
    GError** out() {
        g_clear_error(&error);
        return &error;
    }
};

}  // namespace

// Everything the source shares with its GLib thread. The GLib side (the connection, the
// GeoClue proxies, the flags of calls under way) is touched on that thread alone; the wishes
// of the application and the delegate sit behind `mutex`.
struct KXGeoClueLocationSource::Impl : std::enable_shared_from_this<Impl> {
    Impl(KXMainQueue& queue, std::string id) : mainQueue(queue), desktopId(std::move(id)) {}

    KXMainQueue& mainQueue;
    const std::string desktopId;

    // The application's side.
    mutable std::mutex mutex;
    KXLocationSourceDelegate* delegate = nullptr;
    double desiredAccuracy = kCLLocationAccuracyBest;
    double distanceFilter = -1.0;  // no filter
    bool updating = false;
    bool monitoring = false;
    // Bumped by every change of the wishes; a client that failed to start is not started again
    // for the same wishes.
    std::uint64_t wishes = 0;
    std::deque<std::function<void()>> handedOver;

    // The GLib side.
    GMainContext* context = nullptr;
    GMainLoop* loop = nullptr;
    GCancellable* cancellable = nullptr;
    GDBusConnection* connection = nullptr;
    GClueManager* manager = nullptr;
    GClueClient* client = nullptr;
    guint nameWatch = 0;
    int callsUnderWay = 0;
    bool closing = false;
    bool creatingClient = false;
    bool starting = false;
    bool started = false;
    // The wishes the last creation or start was made for, and those it failed for.
    std::uint64_t attemptWishes = 0;
    std::optional<std::uint64_t> failedWishes;
    std::uint32_t sentLevel = 0;
    std::optional<std::uint32_t> sentThreshold;
    std::optional<KXLocation> lastDelivered;
    std::thread thread;

    // The delegate to deliver to now, or null while updates are off.
    KXLocationSourceDelegate* receiver() const {
        std::lock_guard lock(mutex);
        return updating || monitoring ? delegate : nullptr;
    }

    // --- On the caller's thread.

    // The work is handed over under `mutex` rather than through GLib, so that the hand-over is
    // visible to the thread sanitizer as well.
    void runOnGLibThread(std::function<void()> work) {
        {
            std::lock_guard lock(mutex);
            handedOver.push_back(std::move(work));
        }
        g_main_context_invoke(
            context,
            [](gpointer data) -> gboolean {
                static_cast<Impl*>(data)->runHandedOver();
                return G_SOURCE_REMOVE;
            },
            this);
    }

    void runHandedOver() {
        std::deque<std::function<void()>> work;
        {
            std::lock_guard lock(mutex);
            work.swap(handedOver);
        }
        for (const auto& item : work) {
            item();
        }
    }

    // --- On the GLib thread.

    // Connects to the system bus and asks GeoClue for its manager's accuracy level.
    bool open(std::chrono::milliseconds timeout) {
        ErrorHolder error;
        gchar* address =
            g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, cancellable, error.out());
        if (address == nullptr) {
            KX_LOG_DEBUG("No system bus: {}", error.error->message);
            return false;
        }
        connection = g_dbus_connection_new_for_address_sync(
            address,
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, cancellable, error.out());
        g_free(address);
        if (connection == nullptr) {
            KX_LOG_DEBUG("The system bus does not answer: {}", error.error->message);
            return false;
        }
        GVariant* reply = g_dbus_connection_call_sync(
            connection, kBusName, kManagerPath, "org.freedesktop.DBus.Properties", "Get",
            g_variant_new("(ss)", kManagerInterface, "AvailableAccuracyLevel"),
            G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NONE,
            static_cast<gint>(std::min<std::int64_t>(timeout.count(), G_MAXINT)), cancellable,
            error.out());
        if (reply == nullptr) {
            KX_LOG_DEBUG("GeoClue does not answer: {}", error.error->message);
            return false;
        }
        g_variant_unref(reply);
        manager =
            gclue_manager_proxy_new_sync(connection, G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES,
                                         kBusName, kManagerPath, cancellable, error.out());
        if (manager == nullptr) {
            KX_LOG_DEBUG("GeoClue's manager does not answer: {}", error.error->message);
            return false;
        }
        nameWatch =
            g_bus_watch_name_on_connection(connection, kBusName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                           &onNameAppeared, &onNameVanished, this, nullptr);
        return true;
    }

    // Drops the GeoClue side; closing the private connection makes GeoClue drop the client.
    void close() {
        if (nameWatch != 0) {
            g_bus_unwatch_name(nameWatch);
        }
        dropClient();
        g_clear_object(&manager);
        if (connection != nullptr) {
            g_dbus_connection_close_sync(connection, nullptr, nullptr);
            g_clear_object(&connection);
        }
    }

    void dropClient() {
        if (client != nullptr) {
            g_signal_handlers_disconnect_by_data(client, this);
            g_clear_object(&client);
        }
        started = false;
        starting = false;
    }

    void beginCall() { ++callsUnderWay; }
    // Ends a call; false when the source is closing and the call's result is to be ignored.
    bool endCall() {
        --callsUnderWay;
        if (closing) {
            if (callsUnderWay == 0) {
                g_main_loop_quit(loop);
            }
            return false;
        }
        return true;
    }

    void shutDown() {
        closing = true;
        g_cancellable_cancel(cancellable);
        if (callsUnderWay == 0) {
            g_main_loop_quit(loop);
        }
    }

    struct Wishes {
        bool wanted = false;
        std::uint32_t level = 0;
        std::uint32_t threshold = 0;
        double filter = 0;
        std::uint64_t generation = 0;
    };

    Wishes currentWishes() const {
        std::lock_guard lock(mutex);
        Wishes w;
        w.wanted = updating || monitoring;
        w.level = accuracyLevel(desiredAccuracy);
        w.filter = distanceFilter > 0 ? distanceFilter : 0.0;
        if (monitoring && !updating) {
            w.filter = std::max(w.filter, kSignificantChangeMetres);
        }
        w.threshold = static_cast<std::uint32_t>(
            std::min(w.filter, static_cast<double>(std::numeric_limits<std::uint32_t>::max())));
        w.generation = wishes;
        return w;
    }

    // Brings the GeoClue client in line with the application's wishes.
    void reconcile() {
        if (closing || manager == nullptr) {
            return;
        }
        const Wishes w = currentWishes();
        if (!w.wanted) {
            if (client != nullptr && (started || starting)) {
                started = false;
                beginCall();
                gclue_client_call_stop(client, cancellable, &onStopped, this);
            }
            return;
        }
        if (failedWishes == w.generation) {
            return;
        }
        if (client == nullptr) {
            if (!creatingClient) {
                creatingClient = true;
                attemptWishes = w.generation;
                beginCall();
                gclue_manager_call_create_client(manager, cancellable, &onClientCreated, this);
            }
            return;
        }
        if (sentLevel != w.level) {
            gclue_client_set_requested_accuracy_level(client, w.level);
            sentLevel = w.level;
        }
        if (sentThreshold != w.threshold) {
            gclue_client_set_distance_threshold(client, w.threshold);
            sentThreshold = w.threshold;
        }
        if (!started && !starting) {
            starting = true;
            attemptWishes = w.generation;
            lastDelivered.reset();
            beginCall();
            gclue_client_call_start(client, cancellable, &onStarted, this);
        }
    }

    void fail(const GError* error) {
        failedWishes = attemptWishes;
        KX_LOG_DEBUG("GeoClue: {}", error->message);
        post([error = locationError(error)](KXLocationSourceDelegate& delegate) {
            delegate.didFailWithError(error);
        });
    }

    // Hands `call` to the main queue, where it reaches the delegate if updates are still on and
    // the source still exists.
    void post(std::function<void(KXLocationSourceDelegate&)> call) {
        mainQueue.post([weak = weak_from_this(), call = std::move(call)] {
            if (const auto self = weak.lock()) {
                if (KXLocationSourceDelegate* delegate = self->receiver()) {
                    call(*delegate);
                }
            }
        });
    }

    void deliver(const KXLocation& fix) {
        const Wishes w = currentWishes();
        if (lastDelivered && w.filter > 0 && distanceMetres(*lastDelivered, fix) < w.filter) {
            return;
        }
        lastDelivered = fix;
        post([fix](KXLocationSourceDelegate& delegate) { delegate.didUpdateLocations({fix}); });
    }

    // --- GLib callbacks (the GLib thread).

    static void onNameAppeared(GDBusConnection* /*connection*/, const gchar* /*name*/,
                               const gchar* /*owner*/, gpointer data) {
        static_cast<Impl*>(data)->reconcile();
    }

    // GeoClue went away with the client; a new instance gets a new client.
    static void onNameVanished(GDBusConnection* /*connection*/, const gchar* /*name*/,
                               gpointer data) {
        auto* self = static_cast<Impl*>(data);
        const bool hadClient = self->client != nullptr && self->started;
        self->dropClient();
        if (hadClient) {
            const KXError error(kCLErrorDomain, kCLErrorLocationUnknown,
                                {{"NSLocalizedDescription", "GeoClue left the system bus"}});
            self->post(
                [error](KXLocationSourceDelegate& delegate) { delegate.didFailWithError(error); });
        }
    }

    static void onClientCreated(GObject* source, GAsyncResult* result, gpointer data) {
        auto* self = static_cast<Impl*>(data);
        ErrorHolder error;
        gchar* path = nullptr;
        const gboolean created = gclue_manager_call_create_client_finish(
            GCLUE_MANAGER(source), &path, result, error.out());
        if (!self->endCall()) {
            g_free(path);
            return;
        }
        if (created == FALSE) {
            self->creatingClient = false;
            self->fail(error.error);
            return;
        }
        self->beginCall();
        gclue_client_proxy_new(self->connection, G_DBUS_PROXY_FLAGS_NONE, kBusName, path,
                               self->cancellable, &onClientProxy, self);
        g_free(path);
    }

    static void onClientProxy(GObject* /*source*/, GAsyncResult* result, gpointer data) {
        auto* self = static_cast<Impl*>(data);
        ErrorHolder error;
        GClueClient* client = gclue_client_proxy_new_finish(result, error.out());
        if (!self->endCall()) {
            g_clear_object(&client);
            return;
        }
        self->creatingClient = false;
        if (client == nullptr) {
            self->fail(error.error);
            return;
        }
        self->client = client;
        gclue_client_set_desktop_id(client, self->desktopId.c_str());
        self->sentLevel = 0;
        self->sentThreshold.reset();
        g_signal_connect_data(client, "location-updated",
                              reinterpret_cast<GCallback>(&onLocationUpdated), self, nullptr,
                              static_cast<GConnectFlags>(0));
        self->reconcile();
    }

    static void onStarted(GObject* source, GAsyncResult* result, gpointer data) {
        auto* self = static_cast<Impl*>(data);
        ErrorHolder error;
        const gboolean done =
            gclue_client_call_start_finish(GCLUE_CLIENT(source), result, error.out());
        if (!self->endCall() || GCLUE_CLIENT(source) != self->client) {
            return;
        }
        self->starting = false;
        if (done == FALSE) {
            self->fail(error.error);
            return;
        }
        self->started = true;
        self->reconcile();  // the wishes may have changed meanwhile
    }

    static void onStopped(GObject* source, GAsyncResult* result, gpointer data) {
        auto* self = static_cast<Impl*>(data);
        ErrorHolder error;
        gclue_client_call_stop_finish(GCLUE_CLIENT(source), result, error.out());
        if (self->endCall()) {
            self->reconcile();
        }
    }

    static void onLocationUpdated(GClueClient* /*client*/, const gchar* /*oldPath*/,
                                  const gchar* newPath, gpointer data) {
        auto* self = static_cast<Impl*>(data);
        self->beginCall();
        gclue_location_proxy_new(self->connection, G_DBUS_PROXY_FLAGS_NONE, kBusName, newPath,
                                 self->cancellable, &onLocation, self);
    }

    static void onLocation(GObject* /*source*/, GAsyncResult* result, gpointer data) {
        auto* self = static_cast<Impl*>(data);
        ErrorHolder error;
        GClueLocation* location = gclue_location_proxy_new_finish(result, error.out());
        if (!self->endCall() || location == nullptr) {
            if (location == nullptr && !wasCancelled(error.error)) {
                KX_LOG_DEBUG("GeoClue's location: {}", error.error->message);
            }
            g_clear_object(&location);
            return;
        }
        KXLocation fix;
        fix.latitude = gclue_location_get_latitude(location);
        fix.longitude = gclue_location_get_longitude(location);
        guint64 seconds = 0;
        guint64 microseconds = 0;
        if (GVariant* timestamp = gclue_location_get_timestamp(location);
            timestamp != nullptr && g_variant_is_of_type(timestamp, G_VARIANT_TYPE("(tt)"))) {
            g_variant_get(timestamp, "(tt)", &seconds, &microseconds);
        }
        fix.timestamp =
            seconds != 0
                ? std::chrono::system_clock::time_point(std::chrono::seconds(seconds) +
                                                        std::chrono::microseconds(microseconds))
                : std::chrono::system_clock::now();
        g_object_unref(location);
        if (std::isfinite(fix.latitude) && std::isfinite(fix.longitude) &&
            std::abs(fix.latitude) <= 90.0 && std::abs(fix.longitude) <= 180.0) {
            self->deliver(fix);
        }
    }
};

std::unique_ptr<KXGeoClueLocationSource> KXGeoClueLocationSource::connect(
    KXMainQueue& mainQueue, std::string desktopId, std::chrono::milliseconds timeout) {
    auto impl = std::make_shared<Impl>(mainQueue, std::move(desktopId));
    impl->context = g_main_context_new();
    impl->loop = g_main_loop_new(impl->context, FALSE);
    impl->cancellable = g_cancellable_new();

    std::promise<bool> answered;
    std::future<bool> answer = answered.get_future();
    Impl* raw = impl.get();
    impl->thread = std::thread([raw, &answered, timeout] {
        g_main_context_push_thread_default(raw->context);
        const bool opened = raw->open(timeout);
        answered.set_value(opened);
        if (opened) {
            g_main_loop_run(raw->loop);
        }
        raw->close();
        // Completions the closed connection still queued are dispatched, so nothing they hold
        // is left behind.
        while (g_main_context_iteration(raw->context, FALSE) != FALSE) {
        }
        g_main_context_pop_thread_default(raw->context);
    });
    // The bus and the service have `timeout` between them; a bus that takes the connection
    // and never answers is given up on as well.
    bool opened = false;
    if (answer.wait_for(timeout + std::chrono::milliseconds(100)) == std::future_status::ready) {
        opened = answer.get();
    } else {
        g_cancellable_cancel(impl->cancellable);
        answer.wait();
    }
    if (!opened) {
        impl->thread.join();
        g_main_loop_unref(impl->loop);
        g_main_context_unref(impl->context);
        g_object_unref(impl->cancellable);
        return nullptr;
    }
    return std::unique_ptr<KXGeoClueLocationSource>(new KXGeoClueLocationSource(std::move(impl)));
}

KXGeoClueLocationSource::KXGeoClueLocationSource(std::shared_ptr<Impl> impl)
    : impl_(std::move(impl)) {}

KXGeoClueLocationSource::~KXGeoClueLocationSource() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->delegate = nullptr;
        impl_->updating = false;
        impl_->monitoring = false;
    }
    Impl* raw = impl_.get();
    impl_->runOnGLibThread([raw] { raw->shutDown(); });
    impl_->thread.join();
    g_main_loop_unref(impl_->loop);
    g_main_context_unref(impl_->context);
    g_object_unref(impl_->cancellable);
}

void KXGeoClueLocationSource::changed() {
    {
        std::lock_guard lock(impl_->mutex);
        ++impl_->wishes;
    }
    Impl* raw = impl_.get();
    impl_->runOnGLibThread([raw] { raw->reconcile(); });
}

void KXGeoClueLocationSource::setDelegate(KXLocationSourceDelegate* delegate) {
    std::lock_guard lock(impl_->mutex);
    impl_->delegate = delegate;
}

void KXGeoClueLocationSource::setDesiredAccuracy(double metres) {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->desiredAccuracy = metres;
    }
    changed();
}

double KXGeoClueLocationSource::desiredAccuracy() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->desiredAccuracy;
}

void KXGeoClueLocationSource::setDistanceFilter(double metres) {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->distanceFilter = metres;
    }
    changed();
}

double KXGeoClueLocationSource::distanceFilter() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->distanceFilter;
}

void KXGeoClueLocationSource::startUpdatingLocation() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->updating = true;
    }
    changed();
}

void KXGeoClueLocationSource::stopUpdatingLocation() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->updating = false;
    }
    changed();
}

void KXGeoClueLocationSource::startMonitoringSignificantLocationChanges() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->monitoring = true;
    }
    changed();
}

void KXGeoClueLocationSource::stopMonitoringSignificantLocationChanges() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->monitoring = false;
    }
    changed();
}

std::uint32_t KXGeoClueLocationSource::accuracyLevel(double metres) {
    if (metres <= kCLLocationAccuracyNearestTenMeters) {
        return GCLUE_ACCURACY_LEVEL_EXACT;
    }
    if (metres <= kCLLocationAccuracyHundredMeters) {
        return GCLUE_ACCURACY_LEVEL_STREET;
    }
    if (metres <= kCLLocationAccuracyKilometer) {
        return GCLUE_ACCURACY_LEVEL_NEIGHBORHOOD;
    }
    return GCLUE_ACCURACY_LEVEL_CITY;
}
