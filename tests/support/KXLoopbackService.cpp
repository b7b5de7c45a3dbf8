#include "KXLoopbackService.h"

#include <httplib.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string_view>
#include <thread>

namespace {

constexpr std::size_t kMaxHeaderBytes = 64 * 1024;
constexpr std::size_t kMaxBodyBytes = 256 * 1024 * 1024;
constexpr auto kIdleLimit = std::chrono::seconds(30);
constexpr auto kPollSlice = std::chrono::milliseconds(50);

std::string trim(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(" \t");
    const std::size_t last = text.find_last_not_of(" \t\r");
    return last == std::string_view::npos || last < begin
               ? std::string()
               : std::string(text.substr(begin, last + 1 - begin));
}

bool sendAll(int socket, std::string_view data) {
    while (!data.empty()) {
        const ssize_t sent = ::send(socket, data.data(), data.size(), MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

}  // namespace

struct KXLoopbackService::Impl {
    class Server : public httplib::Server {
    public:
        explicit Server(Impl& owner) : owner_(owner) {
            // Enough workers that idle keep-alive connections of several clients never starve new
            // ones.
            new_task_queue = [] { return new httplib::ThreadPool(32); };
        }

    protected:
        bool process_and_close_socket(socket_t socket) override {
            owner_.serveConnection(socket);
            ::shutdown(socket, SHUT_RDWR);
            ::close(socket);
            return true;
        }

    private:
        Impl& owner_;
    };

    Server server{*this};
    std::thread thread;
    std::atomic<bool> stopping{false};
    std::atomic<std::size_t> connections{0};

    mutable std::mutex mutex;
    mutable std::condition_variable arrived;
    std::vector<KXRecordedRequest> recorded;
    struct Route {
        std::vector<KXScriptedAnswer> answers;
        std::size_t served = 0;
    };
    std::map<std::string, Route> scripts;
    std::optional<KXScriptedAnswer> everyRoute;

    /// Reads until `buffer` holds `wanted` bytes; false when the peer closed, the service stops or
    /// the connection stayed idle too long.
    bool fill(int socket, std::string& buffer, std::size_t wanted) {
        auto idleSince = std::chrono::steady_clock::now();
        char chunk[16384];
        while (buffer.size() < wanted) {
            pollfd descriptor{socket, POLLIN, 0};
            const int ready = ::poll(&descriptor, 1, static_cast<int>(kPollSlice.count()));
            if (stopping || ready < 0 ||
                (ready == 0 && std::chrono::steady_clock::now() - idleSince > kIdleLimit)) {
                return false;
            }
            if (ready > 0) {
                const ssize_t received = ::recv(socket, chunk, sizeof chunk, 0);
                if (received <= 0) {
                    return false;
                }
                buffer.append(chunk, static_cast<std::size_t>(received));
                idleSince = std::chrono::steady_clock::now();
            }
        }
        return true;
    }

    KXScriptedAnswer answerFor(const KXRecordedRequest& request) {
        const std::string route =
            request.method + " " + request.path.substr(0, request.path.find('?'));
        std::lock_guard lock(mutex);
        auto found = scripts.find(route);
        if (found == scripts.end() || found->second.answers.empty()) {
            return everyRoute ? *everyRoute
                              : KXScriptedAnswer::json(
                                    404, KXJSON{{"error", "unscripted route"}, {"route", route}});
        }
        Route& scripted = found->second;
        return scripted.answers[std::min(scripted.served++, scripted.answers.size() - 1)];
    }

    void serveConnection(int socket) {
        ++connections;
        std::string buffer;
        while (!stopping) {
            std::size_t headEnd = 0;
            while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
                if (buffer.size() > kMaxHeaderBytes || !fill(socket, buffer, buffer.size() + 1)) {
                    return;
                }
            }
            KXRecordedRequest request;
            std::istringstream head(buffer.substr(0, headEnd));
            buffer.erase(0, headEnd + 4);
            std::string line, version;
            std::getline(head, line);
            std::istringstream(line) >> request.method >> request.path >> version;
            if (version.empty()) {
                sendAll(socket,
                        "HTTP/1.1 400 Bad Request\r\nContent-Length: "
                        "0\r\nConnection: close\r\n\r\n");
                return;
            }
            while (std::getline(head, line)) {
                const std::size_t colon = line.find(':');
                if (colon != std::string::npos) {
                    const std::string value = trim(line.substr(colon + 1));
                    auto [it, inserted] =
                        request.headers.try_emplace(trim(line.substr(0, colon)), value);
                    if (!inserted) {
                        it->second += ", " + value;
                    }
                }
            }
            std::size_t length = 0;
            if (auto it = request.headers.find("Content-Length"); it != request.headers.end()) {
                length = std::strtoull(it->second.c_str(), nullptr, 10);
            }
            if (length > kMaxBodyBytes || !fill(socket, buffer, length)) {
                return;
            }
            request.body = buffer.substr(0, length);
            buffer.erase(0, length);
            auto connectionHeader = request.headers.find("Connection");
            const bool clientCloses =
                connectionHeader != request.headers.end() &&
                KXCaseInsensitiveLess::equal(connectionHeader->second, "close");

            KXScriptedAnswer answer = answerFor(request);
            {
                std::lock_guard lock(mutex);
                recorded.push_back(request);
            }
            arrived.notify_all();

            const auto until = std::chrono::steady_clock::now() + answer.delay;
            while (std::chrono::steady_clock::now() < until) {
                if (stopping) {
                    return;
                }
                std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
                    kPollSlice, until - std::chrono::steady_clock::now()));
            }
            if (answer.fault == KXScriptedAnswer::Fault::DropConnection) {
                return;
            }
            if (answer.fault == KXScriptedAnswer::Fault::Garbage) {
                sendAll(socket, answer.garbage);
                return;
            }

            // Any reason phrase will do.
            std::string response = "HTTP/1.1 " + std::to_string(answer.status) + " Scripted\r\n";
            bool hasContentType = false;
            for (const auto& [name, value] : answer.headers) {
                response += name + ": " + value + "\r\n";
                hasContentType =
                    hasContentType || KXCaseInsensitiveLess::equal(name, "Content-Type");
            }
            const bool bodiless =
                answer.status < 200 || answer.status == 204 || answer.status == 304;
            const std::size_t bodySize =
                answer.fillerBytes != 0 ? answer.fillerBytes : answer.body.size();
            if (!bodiless) {
                if (bodySize != 0 && !hasContentType) {
                    response += "Content-Type: application/json\r\n";
                }
                response += "Content-Length: " + std::to_string(bodySize) + "\r\n";
            }
            response += clientCloses ? "Connection: close\r\n\r\n" : "\r\n";
            if (answer.fault == KXScriptedAnswer::Fault::TruncatedBody) {
                sendAll(socket, response + answer.body.substr(0, answer.body.size() / 2));
                return;
            }
            bool sent = sendAll(socket, bodiless ? response : response + answer.body);
            // Filler goes out in pieces; the client may hang up as soon as it sees the length.
            const std::string chunk(std::size_t{64} * 1024, ' ');
            for (std::size_t left = bodiless ? 0 : answer.fillerBytes; sent && left > 0;) {
                const std::size_t piece = std::min(left, chunk.size());
                sent = sendAll(socket, std::string_view(chunk).substr(0, piece));
                left -= piece;
            }
            if (!sent || clientCloses) {
                return;
            }
        }
    }
};

KXLoopbackService::KXLoopbackService() : impl_(std::make_unique<Impl>()) {
    port_ = impl_->server.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) {
        std::abort();
    }
    impl_->thread = std::thread([impl = impl_.get()] { impl->server.listen_after_bind(); });
    while (!impl_->server.is_running()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

KXLoopbackService::~KXLoopbackService() {
    impl_->stopping = true;
    impl_->server.stop();
    if (impl_->thread.joinable()) {
        impl_->thread.join();
    }
}

void KXLoopbackService::script(const std::string& method, const std::string& path,
                               KXScriptedAnswer answer) {
    std::lock_guard lock(impl_->mutex);
    Impl::Route& route = impl_->scripts[method + " " + path];
    if (route.served >= route.answers.size()) {
        // The answer that kept being reused gives way to the newly scripted ones.
        route = {};
    }
    route.answers.push_back(std::move(answer));
}

void KXLoopbackService::scriptEveryRoute(KXScriptedAnswer answer) {
    std::lock_guard lock(impl_->mutex);
    impl_->everyRoute = std::move(answer);
}

void KXLoopbackService::scriptToken(const std::string& token, const KXJSON& expiresIn) {
    KXJSON body = {{"access_token", token}, {"token_type", "bearer"}};
    if (!expiresIn.is_discarded()) {
        body["expires_in"] = expiresIn;
    }
    script("POST", "/token", KXScriptedAnswer::json(200, body));
}

std::vector<KXRecordedRequest> KXLoopbackService::requests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->recorded;
}

std::vector<KXRecordedRequest> KXLoopbackService::requestsTo(const std::string& path) const {
    std::vector<KXRecordedRequest> matching;
    for (const KXRecordedRequest& request : requests()) {
        if (request.path.substr(0, request.path.find('?')) == path) {
            matching.push_back(request);
        }
    }
    return matching;
}

std::size_t KXLoopbackService::connectionCount() const {
    return impl_->connections.load();
}

bool KXLoopbackService::waitForRequests(std::size_t count,
                                        std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mutex);
    return impl_->arrived.wait_for(lock, timeout, [&] { return impl_->recorded.size() >= count; });
}
