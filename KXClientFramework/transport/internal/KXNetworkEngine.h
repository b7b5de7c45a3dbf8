#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXHTTPResponse.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// One exchange as the engine sends it: everything already merged and resolved.
struct KXNetworkRequest {
    std::string method;
    std::string URL;
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<std::string> body;
    std::chrono::milliseconds timeout{60000};
    std::size_t maximumBodySize = std::size_t{16} * 1024 * 1024;
    bool followsRedirects = true;
    /// PEM file of the only authorities trusted for HTTPS; empty for the system's store.
    std::filesystem::path certificateAuthorityFile;
};

/// What became of an exchange: a complete answer, or a transport error.
struct KXNetworkResult {
    std::shared_ptr<KXHTTPResponse> response;
    std::optional<KXError> error;
};

/// The library's network engine: one libcurl multi handle driven by one thread.
///
/// All transfers of the process go through it, so they share one connection cache (keep-alive
/// reuse, HTTP/2 multiplexing where the server offers it over TLS). submit() only queues the
/// transfer and wakes the thread; it never blocks on the network. The completion runs on the
/// network thread and must be short (the transport posts to the main queue from it).
class KXNetworkEngine {
public:
    using Completion = std::function<void(KXNetworkResult)>;

    /// The process's engine, started on first use and stopped at exit.
    static KXNetworkEngine& shared();

    KXNetworkEngine();
    ~KXNetworkEngine();
    KXNetworkEngine(const KXNetworkEngine&) = delete;
    KXNetworkEngine& operator=(const KXNetworkEngine&) = delete;

    void submit(KXNetworkRequest request, Completion completion);

    /// Stops the thread. Transfers still running complete with a cancellation error.
    void shutdown();

private:
    struct Transfer;
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
