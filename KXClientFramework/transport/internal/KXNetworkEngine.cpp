#include "transport/internal/KXNetworkEngine.h"

#include <KXClientFramework/KXGlobals.h>

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

namespace {

std::string trim(std::string_view text) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && (text[begin] == ' ' || text[begin] == '\t')) {
        ++begin;
    }
    while (end > begin && (text[end - 1] == ' ' || text[end - 1] == '\t' || text[end - 1] == '\r' ||
                           text[end - 1] == '\n')) {
        --end;
    }
    return std::string(text.substr(begin, end - begin));
}

// Whether `url` has the https scheme, in any case ("HTTPS://" is https too).
bool isSecureURL(std::string_view url) {
    constexpr std::string_view kScheme = "https://";
    return url.size() >= kScheme.size() &&
           std::equal(kScheme.begin(), kScheme.end(), url.begin(), [](char a, char b) {
               return a == std::tolower(static_cast<unsigned char>(b));
           });
}

std::string userAgent() {
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    return std::string("KXClientFramework/") + KX_IOS_SDK_VERSION_STRING + " libcurl/" +
           (info != nullptr && info->version != nullptr ? info->version : "?");
}

std::string httpVersionName(long version) {
    switch (version) {
        case CURL_HTTP_VERSION_1_0:
            return "1.0";
        case CURL_HTTP_VERSION_1_1:
            return "1.1";
        case CURL_HTTP_VERSION_2_0:
            return "2";
        case CURL_HTTP_VERSION_3:
            return "3";
        default:
            return {};
    }
}

}  // namespace

struct KXNetworkEngine::Transfer {
    KXNetworkRequest request;
    Completion completion;
    std::shared_ptr<KXHTTPResponse> response = std::make_shared<KXHTTPResponse>();
    curl_slist* headerList = nullptr;
    char errorBuffer[CURL_ERROR_SIZE] = {};
    bool bodyTooLarge = false;

    ~Transfer() { curl_slist_free_all(headerList); }

    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
        auto* transfer = static_cast<Transfer*>(user);
        const std::size_t bytes = size * count;
        std::string& body = transfer->response->body;
        if (body.size() + bytes > transfer->request.maximumBodySize) {
            transfer->bodyTooLarge = true;
            return 0;  // makes libcurl abort the transfer with a write error
        }
        body.append(data, bytes);
        return bytes;
    }

    static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
        auto* transfer = static_cast<Transfer*>(user);
        const std::size_t bytes = size * count;
        const std::string_view line(data, bytes);
        KXHTTPHeaders& headers = transfer->response->headers;
        if (line.rfind("HTTP/", 0) == 0) {
            // A new status line: an interim answer (100 Continue) or a redirect came before.
            headers.clear();
            return bytes;
        }
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0) {
            return bytes;  // the blank line that ends the header block, or a malformed line
        }
        std::string name = trim(line.substr(0, colon));
        std::string value = trim(line.substr(colon + 1));
        auto [it, inserted] = headers.try_emplace(std::move(name), value);
        if (!inserted) {
            it->second.append(", ").append(value);
        }
        return bytes;
    }
};

struct KXNetworkEngine::Impl {
    CURLM* multi = nullptr;
    std::mutex mutex;
    std::deque<std::unique_ptr<Transfer>> pending;
    bool stopping = false;
    std::unordered_map<CURL*, std::unique_ptr<Transfer>> active;
    std::vector<CURL*> idleHandles;
    std::string agent = userAgent();
    std::thread thread;

    void run();
    void start(std::unique_ptr<Transfer> transfer);
    void finish(CURL* handle, CURLcode result);
    void configure(CURL* handle, Transfer& transfer);
};

KXNetworkEngine& KXNetworkEngine::shared() {
    // Created once and never destroyed: the atexit hook stops the thread while everything the
    // completions use still exists.
    static KXNetworkEngine* const engine = [] {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        auto* created = new KXNetworkEngine();
        std::atexit([] { KXNetworkEngine::shared().shutdown(); });
        return created;
    }();
    return *engine;
}

KXNetworkEngine::KXNetworkEngine() : impl_(std::make_unique<Impl>()) {
    impl_->multi = curl_multi_init();
    curl_multi_setopt(impl_->multi, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
    // At most six connections to one host, like the phone's URL sessions; further transfers
    // wait for a free connection instead of opening more.
    curl_multi_setopt(impl_->multi, CURLMOPT_MAX_HOST_CONNECTIONS, 6L);
    impl_->thread = std::thread([impl = impl_.get()] { impl->run(); });
}

KXNetworkEngine::~KXNetworkEngine() {
    shutdown();
    for (CURL* handle : impl_->idleHandles) {
        curl_easy_cleanup(handle);
    }
    curl_multi_cleanup(impl_->multi);
}

void KXNetworkEngine::shutdown() {
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->stopping) {
            return;
        }
        impl_->stopping = true;
    }
    curl_multi_wakeup(impl_->multi);
    if (impl_->thread.joinable()) {
        impl_->thread.join();
    }
}

void KXNetworkEngine::submit(KXNetworkRequest request, Completion completion) {
    auto transfer = std::make_unique<Transfer>();
    transfer->request = std::move(request);
    transfer->completion = std::move(completion);
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->stopping) {
            return;  // the process is exiting; nobody waits for the answer any more
        }
        impl_->pending.push_back(std::move(transfer));
    }
    curl_multi_wakeup(impl_->multi);
}

void KXNetworkEngine::Impl::run() {
    for (;;) {
        std::deque<std::unique_ptr<Transfer>> arrived;
        {
            std::lock_guard lock(mutex);
            if (stopping) {
                break;
            }
            arrived.swap(pending);
        }
        for (auto& transfer : arrived) {
            start(std::move(transfer));
        }

        int running = 0;
        curl_multi_perform(multi, &running);
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
            if (message->msg == CURLMSG_DONE) {
                finish(message->easy_handle, message->data.result);
            }
        }
        curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    // Abandon what is still under way: the process is going away.
    for (auto& [handle, transfer] : active) {
        curl_multi_remove_handle(multi, handle);
        curl_easy_cleanup(handle);
    }
    active.clear();
}

void KXNetworkEngine::Impl::start(std::unique_ptr<Transfer> transfer) {
    CURL* handle = nullptr;
    if (!idleHandles.empty()) {
        handle = idleHandles.back();
        idleHandles.pop_back();
        curl_easy_reset(handle);
    } else {
        handle = curl_easy_init();
    }
    if (handle == nullptr) {
        KXNetworkResult result;
        result.error =
            KXError(NSURLErrorDomain, CURLE_OUT_OF_MEMORY,
                    KXJSON{{"NSLocalizedDescription", curl_easy_strerror(CURLE_OUT_OF_MEMORY)}});
        transfer->completion(std::move(result));
        return;
    }
    configure(handle, *transfer);
    transfer->response->URL = transfer->request.URL;
    const CURLMcode added = curl_multi_add_handle(multi, handle);
    if (added != CURLM_OK) {
        KXNetworkResult result;
        result.error = KXError(NSURLErrorDomain, CURLE_FAILED_INIT,
                               KXJSON{{"NSLocalizedDescription", curl_multi_strerror(added)},
                                      {"NSErrorFailingURLStringKey", transfer->request.URL}});
        curl_easy_cleanup(handle);
        transfer->completion(std::move(result));
        return;
    }
    active.emplace(handle, std::move(transfer));
}

void KXNetworkEngine::Impl::configure(CURL* handle, Transfer& transfer) {
    const KXNetworkRequest& request = transfer.request;
    curl_easy_setopt(handle, CURLOPT_URL, request.URL.c_str());
    curl_easy_setopt(handle, CURLOPT_PRIVATE, &transfer);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
    curl_easy_setopt(handle, CURLOPT_USERAGENT, agent.c_str());
    // HTTP/2 over TLS when the server offers it; a new https transfer waits for a connection
    // that is being set up instead of opening a second one, so it can multiplex on it. Plain
    // http is HTTP/1.1 only, but libcurl learns that from the first answer alone: waiting there
    // would hold every other transfer back until that answer came.
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    const bool secure = isSecureURL(request.URL);
    curl_easy_setopt(handle, CURLOPT_PIPEWAIT, secure ? 1L : 0L);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
    // libcurl leaves a custom Authorization header out of a request to another scheme, host or
    // port than the first one's; an https request is never redirected to plain http.
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, request.followsRedirects ? 1L : 0L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(handle, CURLOPT_UNRESTRICTED_AUTH, 0L);
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, secure ? "https" : "http,https");
    const long timeout = static_cast<long>(std::max<std::int64_t>(1, request.timeout.count()));
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, timeout);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, timeout);
    curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE,
                     static_cast<curl_off_t>(request.maximumBodySize));
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &transfer);
    if (!request.certificateAuthorityFile.empty()) {
        // Only the file's authorities, not the system's folder as well. libcurl reuses a
        // connection or a TLS session only for a transfer with the same trust settings, so
        // sessions trusting different authorities can share the connection cache.
        curl_easy_setopt(handle, CURLOPT_CAINFO, request.certificateAuthorityFile.c_str());
        curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
    }

    const std::string& method = request.method;
    if (request.body) {
        // The body goes out for any method, GET and DELETE included.
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body->size()));
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body->data());
        if (method != "POST") {
            curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method.c_str());
        }
    } else if (method == "GET") {
        curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
        curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
    } else if (method == "POST") {
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t{0});
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, "");
    } else {
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method.c_str());
    }

    bool hasExpect = false;
    for (const auto& [name, value] : request.headers) {
        // "Name;" is libcurl's way of sending a header with an empty value.
        const std::string line = value.empty() ? name + ";" : name + ": " + value;
        transfer.headerList = curl_slist_append(transfer.headerList, line.c_str());
        hasExpect = hasExpect || KXCaseInsensitiveLess::equal(name, "Expect");
    }
    if (!hasExpect) {
        // No "Expect: 100-continue" round trip before larger bodies.
        transfer.headerList = curl_slist_append(transfer.headerList, "Expect:");
    }
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, transfer.headerList);
}

void KXNetworkEngine::Impl::finish(CURL* handle, CURLcode code) {
    curl_multi_remove_handle(multi, handle);
    auto found = active.find(handle);
    if (found == active.end()) {
        curl_easy_cleanup(handle);
        return;
    }
    std::unique_ptr<Transfer> transfer = std::move(found->second);
    active.erase(found);

    KXNetworkResult result;
    if (code == CURLE_OK) {
        long status = 0;
        curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
        char* effective = nullptr;
        curl_easy_getinfo(handle, CURLINFO_EFFECTIVE_URL, &effective);
        transfer->response->statusCode = status;
        long version = 0;
        curl_easy_getinfo(handle, CURLINFO_HTTP_VERSION, &version);
        transfer->response->HTTPVersion = httpVersionName(version);
        if (effective != nullptr) {
            transfer->response->URL = effective;
        }
        result.response = std::move(transfer->response);
    } else {
        std::string description;
        if (transfer->bodyTooLarge || code == CURLE_FILESIZE_EXCEEDED) {
            code = CURLE_FILESIZE_EXCEEDED;
            description = "Response body exceeds the limit of " +
                          std::to_string(transfer->request.maximumBodySize) + " bytes";
        } else if (transfer->errorBuffer[0] != '\0') {
            description = transfer->errorBuffer;
        } else {
            description = curl_easy_strerror(code);
        }
        result.error = KXError(NSURLErrorDomain, static_cast<std::int64_t>(code),
                               KXJSON{{"NSLocalizedDescription", description},
                                      {"NSErrorFailingURLStringKey", transfer->request.URL}});
    }
    // Keep a few handles for reuse; the connections themselves live in the multi handle.
    if (idleHandles.size() < 16) {
        idleHandles.push_back(handle);
    } else {
        curl_easy_cleanup(handle);
    }
    transfer->completion(std::move(result));
}
