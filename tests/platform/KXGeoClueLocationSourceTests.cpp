#include "KXPlatformTestSupport.h"
#include "KXSealedFiles.h"

#include <KXClientFramework/KXAsioMainQueue.h>
#include <KXClientFramework/KXGeoClueLocationSource.h>
#include <KXClientFramework/KXLinuxPlatform.h>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <future>
#include <numeric>
#include <thread>

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using kxplatformtest::RecordingLocationDelegate;

namespace {

TEST(KXGeoClueLocationSource, AccuracyLevelsMapToGeoClueLevels) {
    // Each level's upper bound and the value just above it.
    const double metres[] = {kCLLocationAccuracyBest, 10, 10.5, 100, 100.5, 1000, 1000.5, NAN};
    const std::uint32_t levels[] = {8, 8, 6, 6, 5, 5, 4, 4};
    for (std::size_t i = 0; i < std::size(metres); ++i) {
        EXPECT_EQ(KXGeoClueLocationSource::accuracyLevel(metres[i]), levels[i]) << metres[i];
    }
}

/// A child process, ended (SIGTERM) and reaped when this goes, and killed by the system should
/// the test process end first (a sanitizer's halt, a crash), so no daemon is left behind.
class Child {
public:
    explicit Child(std::vector<std::string> arguments) {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            // The test process has threads: nothing but these few calls before exec.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() == parent) {
                execvp(argv[0], argv.data());
            }
            _exit(127);
        }
    }
    ~Child() {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    bool running() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }

private:
    pid_t pid_ = -1;
};

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

/// A private D-Bus daemon that takes the place of the system bus for this process and its
/// children, in a directory with a short path (socket paths are limited to 107 bytes).
class PrivateBus {
public:
    PrivateBus() {
        std::string pattern = "/tmp/kxgc-XXXXXX";
        directory = mkdtemp(pattern.data()) != nullptr ? fs::path(pattern) : fs::path();
        kxtest::writeText(directory / "bus.conf",
                          "<busconfig><type>system</type><listen>" + address() +
                              "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                              "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                              "<allow eavesdrop=\"true\"/><allow own=\"*\"/>"
                              "<allow user=\"*\"/></policy></busconfig>");
        daemon_ = std::make_unique<Child>(std::vector<std::string>{
            "dbus-daemon", "--nofork", "--config-file=" + (directory / "bus.conf").string()});
        ready = waitFor([&] { return fs::exists(directory / "bus.sock"); }, 5s);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address().c_str(), 1);
    }
    ~PrivateBus() {
        daemon_.reset();
        fs::remove_all(directory);
    }
    std::string address() const { return "unix:path=" + (directory / "bus.sock").string(); }

    fs::path directory;
    bool ready = false;

private:
    std::unique_ptr<Child> daemon_;
};

int listenAt(const fs::path& path) {
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string text = path.string();
    if (listener < 0 || text.size() >= sizeof address.sun_path) {
        return -1;
    }
    std::copy(text.begin(), text.end(), std::begin(address.sun_path));
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 4) != 0) {
        close(listener);
        return -1;
    }
    return listener;
}

TEST(KXGeoClueLocationSource, WithoutTheServiceThePlatformFallsBackToTheFedSourceQuickly) {
    PrivateBus bus;  // a bus without GeoClue on it
    ASSERT_TRUE(bus.ready);
    // A socket that takes connections and never says a word.
    const fs::path silent = bus.directory / "silent.sock";
    const int listener = listenAt(silent);
    ASSERT_GE(listener, 0);

    for (const std::string& busAddress : {"unix:path=" + (bus.directory / "absent.sock").string(),
                                          "unix:path=" + silent.string(), bus.address()}) {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", busAddress.c_str(), 1);
        KXLinuxPlatformOptions options;
        options.applicationId = "com.example.kiosk";
        options.locationServiceTimeout = 300ms;
        KXLinuxPlatform platform(options);
        const auto start = std::chrono::steady_clock::now();
        const auto made = platform.makeLocationSource();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms) << busAddress;
        EXPECT_NE(dynamic_cast<KXLinuxLocationSource*>(made.get()), nullptr) << busAddress;
    }
    close(listener);
}

/// What GeoClue's NMEA socket source reads: GGA sentences written when the test asks.
class NMEAFeed {
public:
    explicit NMEAFeed(const fs::path& path) : listener_(listenAt(path)) {}
    ~NMEAFeed() {
        close(connection_);
        close(listener_);
    }

    bool connected() {
        pollfd waiting{listener_, POLLIN, 0};
        if (connection_ < 0 && poll(&waiting, 1, 0) == 1) {
            connection_ = accept(listener_, nullptr, nullptr);
        }
        return connection_ >= 0;
    }

    /// Sends a fix at latitude north and longitude east, in degrees, stamped with a time of day
    /// a second later than the last.
    void send(double latitude, double longitude) {
        const std::time_t seconds = std::time(nullptr) + ++sent_;
        std::tm utc{};
        gmtime_r(&seconds, &utc);
        // Degrees and minutes: ddmm.mmmm (dddmm.mmmm for longitudes).
        auto minutes = [](double degrees, int width) {
            const double whole = std::floor(degrees);
            return fmt::format("{:0{}}{:07.4f}", static_cast<int>(whole), width,
                               (degrees - whole) * 60.0);
        };
        const std::string body =
            fmt::format("GPGGA,{:%H%M%S}.00,{},N,{},E,1,08,0.9,35.0,M,47.0,M,,", utc,
                        minutes(latitude, 2), minutes(longitude, 3));
        const unsigned checksum =
            std::accumulate(body.begin(), body.end(), 0u,
                            [](unsigned x, char c) { return x ^ static_cast<unsigned char>(c); });
        const std::string sentence = fmt::format("${}*{:02X}\r\n", body, checksum);
        (void)!write(connection_, sentence.data(), sentence.size());
    }

private:
    int listener_ = -1;
    int connection_ = -1;
    int sent_ = 0;
};

// A GeoClue agent on a GLib thread of its own: it lets every application have the location up
// to `maximumLevel` (0 refuses all), as a desktop shell's agent would after asking the user.
class TestAgent {
public:
    TestAgent(const std::string& busAddress, std::uint32_t maximumLevel)
        : maximumLevel_(maximumLevel) {
        std::promise<bool> connected;
        thread_ = std::thread([this, busAddress, &connected] {
            g_main_context_push_thread_default(context_);
            connected.set_value(connect(busAddress));
            g_main_loop_run(loop_);
            g_main_context_pop_thread_default(context_);
        });
        registered = connected.get_future().get() && waitFor([this] { return addAgent(); }, 10s);
    }
    ~TestAgent() {
        g_main_context_invoke(
            context_,
            [](gpointer loop) -> gboolean {
                g_main_loop_quit(static_cast<GMainLoop*>(loop));
                return G_SOURCE_REMOVE;
            },
            loop_);
        thread_.join();
        g_clear_object(&connection_);
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }

    bool registered = false;

private:
    // Refused until GeoClue has taken its name.
    bool addAgent() {
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            connection_, "org.freedesktop.GeoClue2", "/org/freedesktop/GeoClue2/Manager",
            "org.freedesktop.GeoClue2.Manager", "AddAgent", g_variant_new("(s)", "kxtest-agent"),
            nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
        return reply != nullptr;
    }

    bool connect(const std::string& busAddress) {
        connection_ = g_dbus_connection_new_for_address_sync(
            busAddress.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr);
        if (connection_ == nullptr) {
            return false;
        }
        GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(
            "<node><interface name='org.freedesktop.GeoClue2.Agent'>"
            "<property name='MaxAccuracyLevel' type='u' access='read'/>"
            "<method name='AuthorizeApp'><arg name='desktop_id' type='s' direction='in'/>"
            "<arg name='req_accuracy_level' type='u' direction='in'/>"
            "<arg name='authorized' type='b' direction='out'/>"
            "<arg name='allowed_accuracy_level' type='u' direction='out'/></method>"
            "</interface></node>",
            nullptr);
        static const GDBusInterfaceVTable vtable = {
            [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
               GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data) {
                const std::uint32_t maximum = static_cast<TestAgent*>(data)->maximumLevel_;
                const gchar* desktopId = nullptr;
                guint32 level = 0;
                g_variant_get(parameters, "(&su)", &desktopId, &level);
                g_dbus_method_invocation_return_value(
                    invocation, g_variant_new("(bu)", maximum > 0, std::min(level, maximum)));
            },
            [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GError**,
               gpointer data) -> GVariant* {
                return g_variant_new_uint32(static_cast<TestAgent*>(data)->maximumLevel_);
            },
            nullptr,
            {}};
        const guint id =
            g_dbus_connection_register_object(connection_, "/org/freedesktop/GeoClue2/Agent",
                                              node->interfaces[0], &vtable, this, nullptr, nullptr);
        g_dbus_node_info_unref(node);
        return id != 0;
    }

    std::uint32_t maximumLevel_;
    GMainContext* context_ = g_main_context_new();
    GMainLoop* loop_ = g_main_loop_new(context_, FALSE);
    GDBusConnection* connection_ = nullptr;
    std::thread thread_;
};

/// The real GeoClue daemon on a private bus, reading only the test's NMEA socket. It reads its
/// configuration from /etc/geoclue/geoclue.conf alone, so it runs in a mount namespace of its
/// own where the test's configuration is mounted there.
class KXGeoClueDaemon : public testing::TestWithParam<std::uint32_t> {
protected:
    std::unique_ptr<PrivateBus> bus;
    std::unique_ptr<NMEAFeed> feed;
    std::unique_ptr<Child> geoclue;
    std::unique_ptr<TestAgent> agent;
    KXAsioMainQueue queue;
    RecordingLocationDelegate delegate;
    std::unique_ptr<KXGeoClueLocationSource> source;

    void SetUp() override {
        if (access("/usr/libexec/geoclue", X_OK) != 0 ||
            std::system("command -v dbus-daemon >/dev/null") != 0) {
            GTEST_SKIP() << "needs GeoClue 2 (geoclue-2.0) and dbus-daemon";
        }
        if (std::system("unshare -m true 2>/dev/null") != 0) {
            GTEST_SKIP() << "needs a mount namespace (unshare -m) for GeoClue's configuration";
        }
        bus = std::make_unique<PrivateBus>();
        ASSERT_TRUE(bus->ready);
        const fs::path nmea = bus->directory / "nmea.sock";
        feed = std::make_unique<NMEAFeed>(nmea);
        const fs::path config = bus->directory / "geoclue.conf";
        kxtest::writeText(
            config, fmt::format("[agent]\nwhitelist=kxtest-agent\n[network-nmea]\nenable=true\n"
                                "nmea-socket={}\n[3g]\nenable=false\n[cdma]\nenable=false\n"
                                "[modem-gps]\nenable=false\n[compass]\nenable=false\n[wifi]\n"
                                "enable=false\nurl=http://127.0.0.1:9/\n",
                                nmea.string()));
        geoclue = std::make_unique<Child>(std::vector<std::string>{
            "unshare", "-m", "sh", "-c",
            "mount --bind \"$0\" /etc/geoclue/geoclue.conf && exec /usr/libexec/geoclue -t 0",
            config.string()});
        agent = std::make_unique<TestAgent>(bus->address(), GetParam());
        ASSERT_TRUE(agent->registered && geoclue->running())
            << "GeoClue did not take its name on the private bus or refused the agent";
        source = KXGeoClueLocationSource::connect(queue, "com.example.kiosk", 2s);
        ASSERT_NE(source, nullptr);
        source->setDelegate(&delegate);
    }
};

double north(double latitude, double metres) {
    return latitude + metres / 111'195.0;
}

TEST_P(KXGeoClueDaemon, FixesArriveAsTheAgentAndTheDistanceFilterAllow) {
    if (GetParam() == 0) {
        source->startUpdatingLocation();
        ASSERT_TRUE(queue.runUntil([&] { return !delegate.errors.empty(); }, 10s));
        EXPECT_EQ(delegate.errors[0].domain, kCLErrorDomain);
        EXPECT_EQ(delegate.errors[0].code, kCLErrorDenied) << delegate.errors[0].description();
        EXPECT_TRUE(delegate.fixes.empty());
        return;
    }
    source->setDesiredAccuracy(kCLLocationAccuracyBest);
    source->setDistanceFilter(10.0);
    source->startUpdatingLocation();
    ASSERT_TRUE(waitFor([&] { return feed->connected(); }, 10s)) << "GeoClue never read the feed";

    const double latitude = 48.5;
    feed->send(latitude, 2.25);
    ASSERT_TRUE(queue.runUntil([&] { return delegate.fixes.size() == 1; }, 10s));
    feed->send(north(latitude, 4.0), 2.25);  // within the filter: dropped
    feed->send(north(latitude, 50.0), 2.25);
    ASSERT_TRUE(queue.runUntil([&] { return delegate.fixes.size() == 2; }, 10s));
    EXPECT_NEAR(delegate.fixes[0].latitude, latitude, 1e-6);
    EXPECT_NEAR(delegate.fixes[0].longitude, 2.25, 1e-6);
    EXPECT_NEAR(delegate.fixes[1].latitude, north(latitude, 50.0), 1e-6);
    EXPECT_LT(std::chrono::system_clock::now() - delegate.fixes[1].timestamp, 1min);
    EXPECT_TRUE(delegate.errors.empty());
    EXPECT_TRUE(delegate.onMainThread);

    source->stopUpdatingLocation();
    feed->send(north(latitude, 500.0), 2.25);
    queue.runFor(500ms);
    EXPECT_EQ(delegate.fixes.size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(AgentLevels, KXGeoClueDaemon, testing::Values(8u, 0u));

}  // namespace
