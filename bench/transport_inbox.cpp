// One inbox page (20 messages, about 9 KB of JSON) fetched sequentially from a keep-alive
// loopback server, several ways, in the same run; every variant parses the body as JSON:
//
//   Library           KXHTTPSessionManager::GET through the network thread, callback on the
//                     main queue (what every inbox refresh does)
//   Session           the same request handed straight to KXURLSession: the engine and its two
//                     thread hand-offs without the session manager
//   RawReused         one libcurl easy handle reused for every request (one connection),
//                     sending the same header fields as the library
//   RawReusedMinimal  the same with libcurl's default header fields (fewer for the server)
//   RawNewConnection  a new easy handle and a new connection for every request
//
// Each benchmark sends 1,000 requests; the interesting number is Library / RawReused.

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/KXSessionManager.h>
#include <KXClientFramework/KXURLSession.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <httplib.h>

#include <memory>
#include <string>
#include <thread>

namespace {

constexpr int kRequests = 1000;

std::string inboxPage() {
    KXJSON messages = KXJSON::array();
    for (int i = 0; i < 20; ++i) {
        messages.push_back(
            {{"id", "msg-" + std::to_string(1000 + i)},
             {"subject", "Your stay at the harbour hotel, part " + std::to_string(i)},
             {"body", std::string(240, 'x')},
             {"read", i % 3 == 0},
             {"created", "2026-11-22T10:" + std::to_string(10 + i) + ":00Z"},
             {"attributes", {{"campaign", "autumn"}, {"priority", i % 5}}}});
    }
    return KXJSON{{"offset", 0}, {"limit", 20}, {"total", 87}, {"messages", messages}}.dump();
}

/// A keep-alive HTTP server on loopback that answers every GET with the inbox page.
class InboxServer {
public:
    InboxServer() : page_(inboxPage()) {
        server_.Get(".*", [this](const httplib::Request&, httplib::Response& response) {
            response.set_content(page_, "application/json");
        });
        server_.set_keep_alive_max_count(1'000'000);
        // httplib writes headers and body separately; without TCP_NODELAY a kept-alive
        // connection stalls on Nagle and delayed ACKs (about 40 ms a request).
        server_.set_tcp_nodelay(true);
        // The library asks for compressed answers; httplib would then brotli-compress every
        // page at its slowest setting, which measures the server, not the client. Every client
        // here gets the same uncompressed answer.
        server_.set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
            const_cast<httplib::Request&>(request).headers.erase("Accept-Encoding");
            return httplib::Server::HandlerResponse::Unhandled;
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) {
            std::this_thread::yield();
        }
    }
    ~InboxServer() {
        server_.stop();
        thread_.join();
    }
    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }

private:
    std::string page_;
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

InboxServer& server() {
    static InboxServer instance;
    return instance;
}

// Installed once: completions go to the main queue of the platform current when a request
// starts, so every benchmark must run the same one.
KXAsioMainQueue& mainQueue() {
    static auto platform = KXLinuxPlatform::installDefault("kx.bench.transport");
    return *platform->asioMainQueue();
}

std::size_t collect(char* data, std::size_t size, std::size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

constexpr const char* kToken = "bench-token";

/// The header fields the library sends with a JSON GET, for the raw baselines.
class LibraryHeaderFields {
public:
    LibraryHeaderFields() {
        const std::string lines[] = {"Accept: application/json", "Content-Type: application/json",
                                     std::string("Authorization: BEARER ") + kToken, "Expect:"};
        for (const std::string& line : lines) {
            list_ = curl_slist_append(list_, line.c_str());
        }
        const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
        userAgent_ = std::string("KXClientFramework/") + KX_IOS_SDK_VERSION_STRING + " libcurl/" +
                     info->version;
    }
    ~LibraryHeaderFields() { curl_slist_free_all(list_); }
    LibraryHeaderFields(const LibraryHeaderFields&) = delete;
    LibraryHeaderFields& operator=(const LibraryHeaderFields&) = delete;

    void applyTo(CURL* handle) const {
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, list_);
        curl_easy_setopt(handle, CURLOPT_USERAGENT, userAgent_.c_str());
        curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
    }

private:
    curl_slist* list_ = nullptr;
    std::string userAgent_;
};

void fetchWith(CURL* handle, const std::string& url, std::string& body) {
    body.clear();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &collect);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
    if (curl_easy_perform(handle) != CURLE_OK) {
        std::abort();
    }
    benchmark::DoNotOptimize(KXJSON::parse(body));
}

void Library(benchmark::State& state) {
    KXAsioMainQueue& queue = mainQueue();
    KXServiceEndpoints endpoints;
    endpoints.development = server().url("");
    KXClientFramework::setServiceEndpoints(endpoints);
    KXHTTPSessionManager& transport = KXHTTPSessionManager::sharedManager();
    transport.configureBaseUrl();
    transport.setBearerToken(std::make_shared<KXBearerToken>(kToken, std::nullopt));
    const std::string path =
        KXSessionManager::kxBaseURI() + "/guests/g-1/inboxes/d-1/messages?offset=0&limit=20";

    for (auto _ : state) {
        for (int i = 0; i < kRequests; ++i) {
            bool done = false;
            transport.GET(
                path, nullptr,
                [&](std::shared_ptr<const KXHTTPResponse>, const KXJSON& page) {
                    benchmark::DoNotOptimize(page);
                    done = true;
                },
                [&](std::shared_ptr<const KXHTTPResponse>, const KXError&) { std::abort(); });
            queue.runUntil([&] { return done; }, std::chrono::seconds(30));
        }
    }
    state.counters["requests/s"] =
        benchmark::Counter(kRequests, benchmark::Counter::kIsIterationInvariantRate);
}

// The session layer alone: the same request handed straight to KXURLSession, without the
// session manager's request building, token check and response handling.
void Session(benchmark::State& state) {
    KXAsioMainQueue& queue = mainQueue();
    KXSessionConfiguration configuration = KXSessionConfiguration::defaultSessionConfiguration();
    configuration.HTTPAdditionalHeaders = {{"Authorization", std::string("BEARER ") + kToken}};
    auto session = KXURLSession::sessionWithConfiguration(configuration);
    KXURLRequest request;
    request.setValue("application/json", "Accept");
    request.setValue("application/json", "Content-Type");
    request.URL = server().url("/KXFrontier-stg/guests/g-1/inboxes/d-1/messages?offset=0&limit=20");
    request.timeoutInterval = 10;
    for (auto _ : state) {
        for (int i = 0; i < kRequests; ++i) {
            bool done = false;
            session->dataTask(request, [&](std::shared_ptr<const KXHTTPResponse> response,
                                           std::optional<KXError> error) {
                if (error || !response) {
                    std::abort();
                }
                benchmark::DoNotOptimize(KXJSON::parse(response->body));
                done = true;
            });
            queue.runUntil([&] { return done; }, std::chrono::seconds(30));
        }
    }
    state.counters["requests/s"] =
        benchmark::Counter(kRequests, benchmark::Counter::kIsIterationInvariantRate);
}

void fetchRepeatedly(benchmark::State& state, bool libraryHeaderFields) {
    const std::string url =
        server().url("/KXFrontier-stg/guests/g-1/inboxes/d-1/messages?offset=0&limit=20");
    const LibraryHeaderFields fields;
    CURL* handle = curl_easy_init();
    if (libraryHeaderFields) {
        fields.applyTo(handle);
    }
    std::string body;
    for (auto _ : state) {
        for (int i = 0; i < kRequests; ++i) {
            fetchWith(handle, url, body);
        }
    }
    curl_easy_cleanup(handle);
    state.counters["requests/s"] =
        benchmark::Counter(kRequests, benchmark::Counter::kIsIterationInvariantRate);
}

void RawReused(benchmark::State& state) {
    fetchRepeatedly(state, true);
}

void RawReusedMinimal(benchmark::State& state) {
    fetchRepeatedly(state, false);
}

void RawNewConnection(benchmark::State& state) {
    const std::string url =
        server().url("/KXFrontier-stg/guests/g-1/inboxes/d-1/messages?offset=0&limit=20");
    const LibraryHeaderFields fields;
    std::string body;
    for (auto _ : state) {
        for (int i = 0; i < kRequests; ++i) {
            CURL* handle = curl_easy_init();
            fields.applyTo(handle);
            curl_easy_setopt(handle, CURLOPT_FORBID_REUSE, 1L);
            fetchWith(handle, url, body);
            curl_easy_cleanup(handle);
        }
    }
    state.counters["requests/s"] =
        benchmark::Counter(kRequests, benchmark::Counter::kIsIterationInvariantRate);
}

}  // namespace

BENCHMARK(Library)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(Session)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(RawReused)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(RawReusedMinimal)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(RawNewConnection)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
