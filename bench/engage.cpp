// Engaging the library on the main thread with a 4 KiB sealed configuration, up to the point where
// engageUsingKey returns: the dispatcher is installed, the configuration opened and applied, the
// token request handed to the network thread (not awaited) and the notification registration
// started. The token endpoint is a cpp-httplib server on loopback in this process.
//
//   Engage          one engageUsingKey per iteration, timed by hand; between iterations (not
//                   timed) the token answer is awaited, the main queue drained and the library
//                   ejected, so every engagement starts from the same state. The counter
//                   main_thread_cpu_us is the CPU time the main thread spent inside the call.
//   RawOpenConfig   the floor for reading the configuration, in the same run: read the sealed
//                   file, derive key and IV (EVP_BytesToKey, MD5) and decrypt it with EVP
//                   AES-256-CBC, without the property-list parse
//
// Before the benchmarks run, the program engages once and prints the resident memory (VmRSS of
// /proc/self/status) just before engaging and once the engaged process is idle (token stored,
// main queue drained).

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/TZOpenSSLEncryptor.h>

#include <benchmark/benchmark.h>
#include <httplib.h>
#include <openssl/evp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const std::string kKey = "bench-engage-key";

/// A property list of the configuration's keys, padded with entries of the application's own
/// (which the library ignores) until it seals to exactly 4,096 bytes.
std::string configurationPlist() {
    std::string entries =
        "<key>appId</key><string>com.example.harbourhotel</string>\n"
        "<key>inboxDomainId</key><string>inbox-4f1c2a</string>\n"
        "<key>stageClientId</key><string>stage-6d1e0b9c4a7f</string>\n"
        "<key>stageClientSecret</key><string>stage-secret-9b2f7c41e08d5a36</string>\n"
        "<key>prodClientId</key><string>prod-3a8e5c1f7d2b</string>\n"
        "<key>prodClientSecret</key><string>prod-secret-1e6d4b0a9c3f7e52</string>\n"
        "<key>inProduction</key><false/>\n"
        "<key>analyticsEnabled</key><false/>\n"
        "<key>locationServicesEnabled</key><false/>\n"
        "<key>autoGuestEnabled</key><false/>\n"
        "<key>networkActivityIndicatorEnabled</key><true/>\n"
        "<key>locationFuzzEnabled</key><false/>\n"
        "<key>analyticsSessionInterval</key><integer>30</integer>\n";
    const auto wrap = [](const std::string& inner) {
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
               "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
               "<plist version=\"1.0\">\n<dict>\n" +
               inner + "</dict>\n</plist>\n";
    };
    // Salted format: 16 bytes of header, then the plain text padded to whole 16-byte blocks
    // (always at least one byte of padding). 4,096 sealed bytes hold 4,064 to 4,079 plain ones.
    constexpr std::size_t kPlainSize = 4070;
    for (int i = 0;; ++i) {
        const std::string note =
            "<key>hotelNote" + std::to_string(i) +
            "</key><string>Front desk open around the clock, dial 9</string>\n";
        if (wrap(entries + note).size() > kPlainSize) {
            break;
        }
        entries += note;
    }
    // The rest is blank space between the entries.
    entries += std::string(kPlainSize - wrap(entries).size(), ' ');
    const std::string plist = wrap(entries);
    return plist;
}

std::vector<std::uint8_t> readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// CPU time the calling thread has used, in seconds.
double threadCPUSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// VmRSS of this process, in KiB.
long residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

/// The token endpoint: answers every POST /token with a bearer token, on a thread of its own.
class TokenEndpoint {
public:
    TokenEndpoint() {
        server_.Post("/token", [](const httplib::Request&, httplib::Response& response) {
            response.set_content(R"({"access_token":"bench-token","token_type":"bearer",)"
                                 R"("expires_in":3600})",
                                 "application/json");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~TokenEndpoint() {
        server_.stop();
        thread_.join();
    }
    std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

struct Fixture {
    fs::path root;
    fs::path sealed;
    std::shared_ptr<KXLinuxPlatform> platform;
    std::unique_ptr<TokenEndpoint> endpoint;

    Fixture() {
        root = fs::temp_directory_path() /
               ("kx-bench-engage-" + std::to_string(static_cast<long>(::getpid())));
        fs::create_directories(root / "resources");
        const std::string plist = configurationPlist();
        const auto bytes =
            std::span(reinterpret_cast<const std::uint8_t*>(plist.data()), plist.size());
        const auto sealedBytes =
            TZOpenSSLEncryptor::encryptData(bytes, kTZCryptorAES256Settings, kKey);
        if (!sealedBytes || sealedBytes->size() != 4096) {
            throw std::runtime_error("sealing the configuration failed");
        }
        sealed = root / "resources" / "KXConfig.enc";
        std::ofstream(sealed, std::ios::binary)
            .write(reinterpret_cast<const char*>(sealedBytes->data()),
                   static_cast<std::streamsize>(sealedBytes->size()));

        KXLinuxPlatformOptions options;
        options.applicationId = "com.example.bench-engage";
        options.resourceDirectories = {root / "resources"};
        options.configDirectory = root / "config";
        options.dataDirectory = root / "data";
        options.cacheDirectory = root / "cache";
        platform = std::make_shared<KXLinuxPlatform>(options);
        KXPlatform::install(platform);

        endpoint = std::make_unique<TokenEndpoint>();
        KXServiceEndpoints endpoints;
        endpoints.development = endpoint->baseURL();
        endpoints.production = endpoint->baseURL();
        endpoints.stagingToken = endpoint->baseURL();
        endpoints.productionToken = endpoint->baseURL();
        KXClientFramework::setServiceEndpoints(endpoints);
        KXClientFramework::setLogging(false);
    }

    /// Removes the temporary folder. The fixture itself is never destroyed: the library may
    /// still reach the platform while the process ends.
    void removeFiles() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }

    KXAsioMainQueue& queue() { return *platform->asioMainQueue(); }

    /// Runs the main queue until the token that replaces `previous` was stored and nothing is
    /// due on the queue any more.
    void settle(const std::shared_ptr<KXBearerToken>& previous) {
        auto& transport = KXHTTPSessionManager::sharedManager();
        const bool stored = queue().runUntil(
            [&] {
                const auto token = transport.bearerToken();
                return token && token != previous;
            },
            std::chrono::seconds(10));
        if (!stored) {
            throw std::runtime_error("no token arrived");
        }
        while (queue().hasWorkDue()) {
            queue().poll();
        }
        queue().runFor(std::chrono::milliseconds(1));
    }
};

Fixture& fixture() {
    static Fixture* const instance = new Fixture();
    return *instance;
}

void Engage(benchmark::State& state) {
    Fixture& f = fixture();
    auto& transport = KXHTTPSessionManager::sharedManager();
    auto& manager = KXClientFramework::sharedManager();
    double threadSeconds = 0;
    for (auto _ : state) {
        const auto previous = transport.bearerToken();
        const double threadStart = threadCPUSeconds();
        const auto start = std::chrono::steady_clock::now();
        manager.engageUsingKey(kKey);
        const auto end = std::chrono::steady_clock::now();
        threadSeconds += threadCPUSeconds() - threadStart;
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        if (!manager.sharedZandrel()) {
            state.SkipWithError("engaging failed");
            break;
        }
        f.settle(previous);
        KXClientFramework::eject();
    }
    // The main thread's own CPU time inside engageUsingKey, which a loaded machine does not
    // stretch the way it stretches the wall-clock time.
    state.counters["main_thread_cpu_us"] =
        benchmark::Counter(threadSeconds * 1e6 / static_cast<double>(state.iterations()));
}

void RawOpenConfig(benchmark::State& state) {
    Fixture& f = fixture();
    std::vector<std::uint8_t> plain;
    for (auto _ : state) {
        const std::vector<std::uint8_t> sealed = readFile(f.sealed);
        unsigned char key[32];
        unsigned char iv[16];
        const unsigned char* salt = sealed.data() + 8;
        EVP_BytesToKey(EVP_aes_256_cbc(), EVP_md5(), salt,
                       reinterpret_cast<const unsigned char*>(kKey.data()),
                       static_cast<int>(kKey.size()), 1, key, iv);
        EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
        EVP_DecryptInit_ex(context, EVP_aes_256_cbc(), nullptr, key, iv);
        plain.assign(sealed.size(), 0);
        int written = 0;
        int last = 0;
        EVP_DecryptUpdate(context, plain.data(), &written, sealed.data() + 16,
                          static_cast<int>(sealed.size() - 16));
        EVP_DecryptFinal_ex(context, plain.data() + written, &last);
        EVP_CIPHER_CTX_free(context);
        plain.resize(static_cast<std::size_t>(written + last));
        benchmark::DoNotOptimize(plain);
    }
    if (plain.size() != 4070) {
        state.SkipWithError("the configuration did not open");
    }
}

/// Engages once, waits until the process is idle, and prints the resident memory before and
/// after.
void measureResidentMemory() {
    Fixture& f = fixture();
    auto& transport = KXHTTPSessionManager::sharedManager();
    f.queue().runFor(std::chrono::milliseconds(50));
    const long before = residentKiB();
    const auto previous = transport.bearerToken();
    KXClientFramework::sharedManager().engageUsingKey(kKey);
    f.settle(previous);
    f.queue().runFor(std::chrono::milliseconds(200));
    const long after = residentKiB();
    std::printf("VmRSS before engaging: %ld KiB\n", before);
    std::printf("VmRSS engaged and idle: %ld KiB (+%ld KiB, %.3f x)\n", after, after - before,
                static_cast<double>(after) / static_cast<double>(before));
    std::fflush(stdout);
    KXClientFramework::eject();
}

}  // namespace

BENCHMARK(Engage)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(RawOpenConfig)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    measureResidentMemory();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    fixture().removeFiles();
    return 0;
}
