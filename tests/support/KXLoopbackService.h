#pragma once

#include <KXClientFramework/KXHTTPResponse.h>
#include <KXClientFramework/KXJSON.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// One request as the loopback service received it; `path` is the request target with its query,
/// exactly as sent.
struct KXRecordedRequest {
    std::string method;
    std::string path;
    KXHTTPHeaders headers;
    std::string body;
};

/// What the service does with one request.
struct KXScriptedAnswer {
    enum class Fault {
        None,
        DropConnection,  // close the connection without answering
        Garbage,         // send `garbage` instead of an HTTP answer, then close
        TruncatedBody,   // announce the full length, send half the body, then close
    };

    int status = 200;
    std::string body{};
    /// Extra header fields; "Content-Type: application/json" is added for a non-empty body unless a
    /// Content-Type is given here.
    std::vector<std::pair<std::string, std::string>> headers{};
    /// Wait this long before answering.
    std::chrono::milliseconds delay{0};
    Fault fault = Fault::None;
    std::string garbage{};
    /// When not zero, the body is this many bytes of filler instead of `body`, announced in
    /// Content-Length and streamed without being held in memory (for answers of many megabytes).
    std::size_t fillerBytes = 0;

    static KXScriptedAnswer json(int status, const KXJSON& body) {
        return {.status = status, .body = body.dump()};
    }
    static KXScriptedAnswer text(int status, std::string body,
                                 std::string contentType = "text/plain") {
        return {
            .status = status, .body = std::move(body), .headers = {{"Content-Type", contentType}}};
    }
    static KXScriptedAnswer empty(int status) { return {.status = status}; }
    static KXScriptedAnswer dropped() { return {.fault = Fault::DropConnection}; }
    static KXScriptedAnswer garbageBytes(std::string bytes) {
        return {.fault = Fault::Garbage, .garbage = std::move(bytes)};
    }
    /// 200 with a JSON content type and `bytes` bytes of filler as body.
    static KXScriptedAnswer filler(std::size_t bytes) { return {.fillerBytes = bytes}; }
};

/// A scriptable HTTP/1.1 service on 127.0.0.1 at a free port, running on threads of its own.
///
/// cpp-httplib listens, accepts and runs each connection on its thread pool; the service reads the
/// requests of a connection itself (httplib 0.11 never reads the body of a GET, and the transport
/// sends JSON bodies with every method). Connections are kept alive until the client closes them or
/// asks to. Every request is recorded. Answers are scripted per method and path (the query is
/// ignored when matching): each script() call queues one answer for the route, answers are used in
/// order and the last one keeps being used until script() is called for the route again. An
/// unscripted route gets 404 with a JSON body.
class KXLoopbackService {
public:
    KXLoopbackService();
    ~KXLoopbackService();
    KXLoopbackService(const KXLoopbackService&) = delete;
    KXLoopbackService& operator=(const KXLoopbackService&) = delete;

    int port() const { return port_; }
    std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(port_); }

    void script(const std::string& method, const std::string& path, KXScriptedAnswer answer);
    /// Answers every route that has no script of its own with `answer` (in place of 404) until
    /// called again.
    void scriptEveryRoute(KXScriptedAnswer answer);
    /// Scripts POST /token with {"access_token": token, "token_type": "bearer", "expires_in":
    /// expiresIn}; a discarded `expiresIn` leaves the key out.
    void scriptToken(const std::string& token, const KXJSON& expiresIn = 3600);

    std::vector<KXRecordedRequest> requests() const;
    /// The recorded requests whose path (without query) is `path`.
    std::vector<KXRecordedRequest> requestsTo(const std::string& path) const;
    /// TCP connections accepted so far.
    std::size_t connectionCount() const;
    /// Waits until at least `count` requests arrived; false when `timeout` passed first.
    bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
    int port_ = 0;
};
