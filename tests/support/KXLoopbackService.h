#pragma once

#include <KXClientFramework/KXHTTPResponse.h>
#include <KXClientFramework/KXJSON.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// One request as the loopback service received it.
struct KXRecordedRequest {
    std::string method;
    /// The request target: path with query, exactly as sent.
    std::string path;
    KXHTTPHeaders headers;
    std::string body;
    /// Sequence number (from 1) of the TCP connection it arrived on.
    std::size_t connection = 0;
};

/// What the service does with one request.
struct KXScriptedAnswer {
    enum class Fault {
        None,
        /// Close the connection without answering.
        DropConnection,
        /// Send `garbage` instead of an HTTP answer, then close.
        Garbage,
        /// Announce the body's full length, send half of it, then close.
        TruncatedBody,
    };

    int status = 200;
    std::string body;
    /// Extra header fields; "Content-Type: application/json" is added for a non-empty body
    /// unless a Content-Type is given here.
    std::vector<std::pair<std::string, std::string>> headers;
    /// Wait this long before answering.
    std::chrono::milliseconds delay{0};
    Fault fault = Fault::None;
    std::string garbage;
    /// When not zero, the body is this many bytes of filler instead of `body`, announced in
    /// Content-Length and streamed without being held in memory (for answers of many megabytes).
    std::size_t fillerBytes = 0;

    static KXScriptedAnswer json(int status, const KXJSON& body);
    static KXScriptedAnswer text(int status, std::string body,
                                 std::string contentType = "text/plain");
    static KXScriptedAnswer empty(int status);
    static KXScriptedAnswer dropped();
    static KXScriptedAnswer garbageBytes(std::string bytes);
    /// 200 with a JSON content type and `bytes` bytes of filler as body.
    static KXScriptedAnswer filler(std::size_t bytes);
};

/// A scriptable HTTP/1.1 service on 127.0.0.1 at a free port, running on threads of its own.
///
/// cpp-httplib listens, accepts and runs each connection on its thread pool; the service reads
/// the requests of a connection itself (httplib 0.11 never reads the body of a GET, and the
/// transport sends JSON bodies with every method). Connections are kept alive until the client
/// closes them or asks to. Every request is recorded. Answers are scripted per method and path
/// (the query is ignored when matching): each script() call queues one answer for the route,
/// answers are used in order and the last one keeps being used until script() is called for
/// the route again. An unscripted route gets 404 with a JSON body.
class KXLoopbackService {
public:
    KXLoopbackService();
    ~KXLoopbackService();
    KXLoopbackService(const KXLoopbackService&) = delete;
    KXLoopbackService& operator=(const KXLoopbackService&) = delete;

    int port() const;
    /// "http://127.0.0.1:<port>".
    std::string baseURL() const;

    void script(const std::string& method, const std::string& path, KXScriptedAnswer answer);
    /// Answers every route that has no script of its own with `answer` (in place of 404) until
    /// called again.
    void scriptEveryRoute(KXScriptedAnswer answer);
    /// Scripts POST /token with {"access_token": token, "token_type": "bearer",
    /// "expires_in": expiresIn}; a discarded `expiresIn` leaves the key out.
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
};
