#pragma once

// The sandbox's HTTP service: cpp-httplib on its thread pool, one request a thread. Every
// request is logged on standard output ("METHOD TARGET STATUS 1.2ms"); REST calls below a base
// path of the environment table need a bearer token from POST /token; handlers that write run
// in a durable transaction that commits before the answer is sent.

#include "KXSandboxDatabase.h"
#include "KXSandboxHTTP.h"
#include "KXSandboxTokens.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <utility>

namespace httplib {
class Server;
}

namespace kxsandbox {

struct ServeOptions {
    std::string host = "127.0.0.1";
    /// 0 picks a free port.
    int port = 9650;
    bool seed = false;
    std::int64_t latencyMilliseconds = 0;
    /// Share (0 to 1) of answers replaced by a 503 with a JSON body.
    double failRate = 0;
    std::int64_t tokenLifetimeSeconds = 3600;
    int threads = 64;
};

class Server {
public:
    Server(Database& database, ServeOptions options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Binds; the port actually bound (the chosen one, or a free one for 0); -1 on failure.
    int bind();
    /// Serves until stop().
    void serve();
    /// Stops serving; safe from another thread.
    void stop();

private:
    Reply answer(const std::string& method, const std::string& path,
                 const std::multimap<std::string, std::string>& query, const std::string& body,
                 const std::string& authorization);
    Reply dispatch(const std::string& method, const std::string& tenant, const std::string& rest,
                   const std::multimap<std::string, std::string>& query, const std::string& body);
    void ensureTenant(const std::string& tenant);

    Database& database_;
    ServeOptions options_;
    ServiceSettings settings_;
    Tokens tokens_;
    Router router_;
    std::unique_ptr<httplib::Server> http_;
    /// Tenants seen (and seeded) since start.
    std::shared_mutex tenantsMutex_;
    std::set<std::string> knownTenants_;
};

}  // namespace kxsandbox
