#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXHTTPResponse.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

/// A request ready to be sent: method, absolute URL, the request's own header fields, an
/// optional body and its time-out.
struct KX_EXPORT KXURLRequest {
    std::string HTTPMethod = "GET";
    std::string URL;
    KXHTTPHeaders allHTTPHeaderFields;
    std::optional<std::string> HTTPBody;
    /// Seconds the whole exchange may take, from connecting to the last byte of the answer.
    double timeoutInterval = 60.0;
    /// Whether a redirect is followed (at most 10; http and https, and only https from an https
    /// URL). An Authorization header never goes to another origin (scheme, host and port). The
    /// token request does not follow redirects at all: its body holds the client secret.
    bool followsRedirects = true;

    void setValue(const std::string& value, const std::string& headerField) {
        allHTTPHeaderFields.insert_or_assign(headerField, value);
    }
};

/// The settings a session applies to every request it sends.
struct KX_EXPORT KXSessionConfiguration {
    /// Seconds a request may take; copied into each request built for the session.
    double timeoutIntervalForRequest = 60.0;
    /// Header fields added to every request of the session; a request's own field of the same
    /// name wins.
    KXHTTPHeaders HTTPAdditionalHeaders;
    /// Answers with a longer body fail with a transport error instead of filling memory.
    std::size_t maximumResponseBodySize = std::size_t{16} * 1024 * 1024;
    /// A PEM file of the certificate authorities that HTTPS servers must chain to, for
    /// deployments that trust a private authority. When set, only the authorities in this file
    /// are trusted, in place of the system's store; empty (the default) uses the system's
    /// store. A file that cannot be read or holds no certificate makes each HTTPS request fail
    /// with a transport error (libcurl's CURLE_SSL_CACERT_BADFILE, 77).
    std::filesystem::path certificateAuthorityFile;

    static KXSessionConfiguration defaultSessionConfiguration() { return {}; }

    bool operator==(const KXSessionConfiguration&) const = default;
};

/// An immutable session: a configuration bound to the library's one network engine.
///
/// Every session sends through the same libcurl multi handle on the same network thread, so
/// all sessions share one connection cache: replacing a session (as a new bearer token does)
/// keeps the live connections. Completions are delivered on the platform's main queue.
class KX_EXPORT KXURLSession {
public:
    /// Called on the main queue with the complete answer, or with a null response and the
    /// transport error (domain NSURLErrorDomain, code = libcurl's result code).
    using Completion = std::function<void(std::shared_ptr<const KXHTTPResponse> response,
                                          std::optional<KXError> error)>;

    static std::shared_ptr<KXURLSession> sessionWithConfiguration(
        KXSessionConfiguration configuration);

    const KXSessionConfiguration& configuration() const { return configuration_; }

    /// Starts sending `request` at once (a task that is created and resumed in one step).
    /// Safe from any thread; never blocks on the network.
    void dataTask(const KXURLRequest& request, Completion completion) const;

    explicit KXURLSession(KXSessionConfiguration configuration);

private:
    const KXSessionConfiguration configuration_;
};
