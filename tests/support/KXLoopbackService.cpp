#include "KXLoopbackService.h"

#include <httplib.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
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

KXScriptedAnswer KXScriptedAnswer::json(int status, const KXJSON& body) {
    KXScriptedAnswer answer;
    answer.status = status;
    answer.body = body.dump();
    return answer;
}

KXScriptedAnswer KXScriptedAnswer::text(int status, std::string body, std::string contentType) {
    KXScriptedAnswer answer;
    answer.status = status;
    answer.body = std::move(body);
    answer.headers.emplace_back("Content-Type", std::move(contentType));
    return answer;
}

KXScriptedAnswer KXScriptedAnswer::empty(int status) {
    KXScriptedAnswer answer;
    answer.status = status;
    return answer;
}

KXScriptedAnswer KXScriptedAnswer::dropped() {
    KXScriptedAnswer answer;
    answer.fault = Fault::DropConnection;
    return answer;
}

KXScriptedAnswer KXScriptedAnswer::garbageBytes(std::string bytes) {
    KXScriptedAnswer answer;
    answer.fault = Fault::Garbage;
    answer.garbage = std::move(bytes);
    return answer;
}

KXScriptedAnswer KXScriptedAnswer::filler(std::size_t bytes) {
    KXScriptedAnswer answer;
    answer.fillerBytes = bytes;
    return answer;
}

struct KXLoopbackService::Impl {
    class Server : public httplib::Server {
    public:
        explicit Server(Impl& owner) : owner_(owner) {
            // Enough workers that idle keep-alive connections of several clients never starve
            // new ones.
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
    int port = 0;
    std::atomic<bool> stopping{false};
    std::atomic<std::size_t> connections{0};

    mutable std::mutex mutex;
    mutable std::condition_variable arrived;
    std::vector<KXRecordedRequest> recorded;
    struct Route {
        std::deque<KXScriptedAnswer> answers;
        bool lastServed = false;  // the one remaining answer was used at least once
    };
    std::map<std::string, Route> scripts;
    std::optional<KXScriptedAnswer> everyRoute;

    /// Reads until `buffer` holds `wanted` bytes; false when the peer closed, the service stops
    /// or the connection stayed idle too long.
    bool fill(int socket, std::string& buffer, std::size_t wanted) {
        auto idleSince = std::chrono::steady_clock::now();
        char chunk[16384];
        while (buffer.size() < wanted) {
            if (stopping) {
                return false;
            }
            pollfd descriptor{socket, POLLIN, 0};
            const int ready = ::poll(&descriptor, 1, static_cast<int>(kPollSlice.count()));
            if (ready < 0) {
                return false;
            }
            if (ready == 0) {
                if (std::chrono::steady_clock::now() - idleSince > kIdleLimit) {
                    return false;
                }
                continue;
            }
            const ssize_t received = ::recv(socket, chunk, sizeof chunk, 0);
            if (received <= 0) {
                return false;
            }
            buffer.append(chunk, static_cast<std::size_t>(received));
            idleSince = std::chrono::steady_clock::now();
        }
        return true;
    }

    bool readHead(int socket, std::string& buffer, std::size_t& headEnd) {
        for (;;) {
            headEnd = buffer.find("\r\n\r\n");
            if (headEnd != std::string::npos) {
                return true;
            }
            if (buffer.size() > kMaxHeaderBytes || !fill(socket, buffer, buffer.size() + 1)) {
                return false;
            }
        }
    }

    KXScriptedAnswer answerFor(const KXRecordedRequest& request) {
        const std::string path = request.path.substr(0, request.path.find('?'));
        std::lock_guard lock(mutex);
        auto found = scripts.find(request.method + " " + path);
        if (found == scripts.end() || found->second.answers.empty()) {
            if (everyRoute) {
                return *everyRoute;
            }
            return KXScriptedAnswer::json(
                404, KXJSON{{"error", "unscripted route"}, {"route", request.method + " " + path}});
        }
        Route& route = found->second;
        KXScriptedAnswer answer = route.answers.front();
        if (route.answers.size() > 1) {
            route.answers.pop_front();
        } else {
            route.lastServed = true;
        }
        return answer;
    }

    void serveConnection(int socket) {
        const std::size_t connection = ++connections;
        std::string buffer;
        while (!stopping) {
            std::size_t headEnd = 0;
            if (!readHead(socket, buffer, headEnd)) {
                return;
            }
            KXRecordedRequest request;
            request.connection = connection;
            const std::string head = buffer.substr(0, headEnd);
            buffer.erase(0, headEnd + 4);

            std::size_t lineEnd = head.find("\r\n");
            const std::string requestLine = head.substr(0, lineEnd);
            const std::size_t firstBlank = requestLine.find(' ');
            const std::size_t secondBlank = requestLine.find(' ', firstBlank + 1);
            if (firstBlank == std::string::npos || secondBlank == std::string::npos) {
                sendAll(
                    socket,
                    "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
                return;
            }
            request.method = requestLine.substr(0, firstBlank);
            request.path = requestLine.substr(firstBlank + 1, secondBlank - firstBlank - 1);
            while (lineEnd != std::string::npos) {
                const std::size_t next = head.find("\r\n", lineEnd + 2);
                const std::string line =
                    head.substr(lineEnd + 2,
                                next == std::string::npos ? std::string::npos : next - lineEnd - 2);
                const std::size_t colon = line.find(':');
                if (colon != std::string::npos) {
                    auto [it, inserted] = request.headers.try_emplace(trim(line.substr(0, colon)),
                                                                      trim(line.substr(colon + 1)));
                    if (!inserted) {
                        it->second += ", " + trim(line.substr(colon + 1));
                    }
                }
                lineEnd = next;
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

            switch (answer.fault) {
                case KXScriptedAnswer::Fault::DropConnection:
                    return;
                case KXScriptedAnswer::Fault::Garbage:
                    sendAll(socket, answer.garbage);
                    return;
                default:
                    break;
            }

            std::string response = "HTTP/1.1 " + std::to_string(answer.status) +
                                   " Scripted\r\n";  // any reason phrase will do
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
            if (clientCloses) {
                response += "Connection: close\r\n";
            }
            response += "\r\n";
            if (answer.fillerBytes != 0 && !bodiless) {
                // The client may hang up as soon as it sees the length; then sending stops.
                const std::string chunk(std::size_t{64} * 1024, ' ');
                bool sent = sendAll(socket, response);
                for (std::size_t left = answer.fillerBytes; sent && left > 0;) {
                    const std::size_t piece = std::min(left, chunk.size());
                    sent = sendAll(socket, std::string_view(chunk).substr(0, piece));
                    left -= piece;
                }
                if (!sent || clientCloses) {
                    return;
                }
                continue;
            }
            if (answer.fault == KXScriptedAnswer::Fault::TruncatedBody) {
                sendAll(socket, response + answer.body.substr(0, answer.body.size() / 2));
                return;
            }
            if (!bodiless) {
                response += answer.body;
            }
            if (!sendAll(socket, response) || clientCloses) {
                return;
            }
        }
    }
};

KXLoopbackService::KXLoopbackService() : impl_(std::make_unique<Impl>()) {
    impl_->port = impl_->server.bind_to_any_port("127.0.0.1");
    if (impl_->port <= 0) {
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

int KXLoopbackService::port() const {
    return impl_->port;
}

std::string KXLoopbackService::baseURL() const {
    return "http://127.0.0.1:" + std::to_string(impl_->port);
}

void KXLoopbackService::script(const std::string& method, const std::string& path,
                               KXScriptedAnswer answer) {
    std::lock_guard lock(impl_->mutex);
    Impl::Route& route = impl_->scripts[method + " " + path];
    if (route.lastServed) {
        // The answer that kept being reused gives way to the newly scripted ones.
        route.answers.clear();
        route.lastServed = false;
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
    std::lock_guard lock(impl_->mutex);
    for (const KXRecordedRequest& request : impl_->recorded) {
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
