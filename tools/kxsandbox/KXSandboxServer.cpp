#include "KXSandboxServer.h"

#include <httplib.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <random>
#include <set>
#include <shared_mutex>
#include <thread>

namespace kxsandbox {

namespace {

constexpr std::size_t kMaxBodyBytes = 1024 * 1024;

/// When the request that this thread serves began (set before routing, read by the logger).
thread_local std::optional<std::chrono::steady_clock::time_point> requestStart;

void writeReply(httplib::Response& response, const Reply& reply) {
    response.status = reply.status;
    for (const auto& [name, value] : reply.headers) {
        response.set_header(name, value);
    }
    if (!reply.text.empty()) {
        response.set_content(reply.text, "application/json");
        return;
    }
    response.set_content(reply.body.dump(-1, ' ', false, JSON::error_handler_t::replace),
                         "application/json");
}

Reply errorReply(int status, const std::string& code, const std::string& message) {
    return {status, APIError(status, code, message).body(), {}};
}

const char* errorCode(int status) {
    switch (status) {
        case 400:
            return "bad_request";
        case 404:
            return "not_found";
        case 405:
            return "method_not_allowed";
        case 413:
            return "payload_too_large";
        case 414:
            return "uri_too_long";
        case 503:
            return "unavailable";
        default:
            return status >= 500 ? "server_error" : "client_error";
    }
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        if (text.find(word) == std::string::npos) {
            text += (text.empty() ? "" : ", ") + word;
        }
    }
    return text;
}

}  // namespace

Server::Server(Database& database, ServeOptions options)
    : database_(database),
      options_(std::move(options)),
      tokens_(database, options_.tokenLifetimeSeconds),
      http_(std::make_unique<httplib::Server>()) {
    settings_.seed = options_.seed;
    settings_.tokenLifetimeSeconds = options_.tokenLifetimeSeconds;
    addGuestRoutes(router_);
    addInboxRoutes(router_);
    addListRoutes(router_);
    addSessionRoutes(router_);
    if (options_.seed) {
        auto lease = database_.borrow();
        Transaction transaction(*lease);
        registerInboxDomain(*lease, "notices", "Notices",
                            "Notices from the front desk; guests cannot delete them", true);
        transaction.commit();
    }

    const int threads = options_.threads;
    http_->new_task_queue = [threads] {
        return new httplib::ThreadPool(static_cast<std::size_t>(threads));
    };
    http_->set_payload_max_length(kMaxBodyBytes);
    http_->set_keep_alive_max_count(100000);
    // cpp-httplib writes an answer's header and body separately: without TCP_NODELAY a kept-alive
    // connection holds the body back on Nagle's algorithm until the client's delayed ACK, about
    // 40 ms.
    http_->set_tcp_nodelay(true);
    http_->set_pre_routing_handler([](const httplib::Request&, httplib::Response&) {
        requestStart = std::chrono::steady_clock::now();
        return httplib::Server::HandlerResponse::Unhandled;
    });
    const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        const Reply reply = answer(request.method, request.path, request.params, request.body,
                                   request.get_header_value("Authorization"));
        writeReply(response, reply);
        const std::string length = request.get_header_value("Content-Length");
        if (request.method == "GET" && !length.empty() && length != "0") {
            // The server does not read GET bodies; the connection cannot carry another request.
            response.set_header("Connection", "close");
        }
    };
    http_->Get(".*", handler);
    http_->Post(".*", handler);
    http_->Put(".*", handler);
    http_->Delete(".*", handler);
    http_->Patch(".*", handler);
    http_->Options(".*", handler);
    // Answers that cpp-httplib makes itself (413, 400 for a malformed request) get a JSON body.
    const httplib::Server::HandlerWithResponse errorBody = [](const httplib::Request&,
                                                              httplib::Response& response) {
        if (response.body.empty()) {
            writeReply(response, errorReply(response.status, errorCode(response.status),
                                            "the request was refused"));
        }
        return httplib::Server::HandlerResponse::Handled;
    };
    http_->set_error_handler(errorBody);
    http_->set_exception_handler(
        [](const httplib::Request&, httplib::Response& response, std::exception_ptr) {
            writeReply(response, errorReply(500, "server_error", "the request failed"));
        });
    http_->set_logger([](const httplib::Request& request, const httplib::Response& response) {
        double milliseconds = 0;
        if (requestStart) {
            milliseconds = std::chrono::duration<double, std::milli>(
                               std::chrono::steady_clock::now() - *requestStart)
                               .count();
            requestStart.reset();
        }
        const std::string target = request.target.empty() ? request.path : request.target;
        std::printf("%s %s %d %.1fms\n", request.method.c_str(), target.c_str(), response.status,
                    milliseconds);
        std::fflush(stdout);
    });
}

Server::~Server() = default;

int Server::bind() {
    if (options_.port == 0) {
        return http_->bind_to_any_port(options_.host);
    }
    return http_->bind_to_port(options_.host, options_.port) ? options_.port : -1;
}

void Server::serve() {
    http_->listen_after_bind();
}

void Server::stop() {
    http_->stop();
}

Reply Server::answer(const std::string& method, const std::string& path,
                     const std::multimap<std::string, std::string>& query, const std::string& body,
                     const std::string& authorization) {
    if (options_.latencyMilliseconds > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(options_.latencyMilliseconds));
    }
    if (options_.failRate > 0) {
        thread_local std::mt19937_64 generator{std::random_device{}()};
        if (std::uniform_real_distribution<double>(0, 1)(generator) < options_.failRate) {
            return errorReply(503, "unavailable", "failed on purpose (--fail-rate)");
        }
    }
    try {
        if (path == "/token") {
            if (method != "POST") {
                Reply reply =
                    errorReply(405, "method_not_allowed", "the token endpoint takes POST");
                reply.headers.emplace_back("Allow", "POST");
                return reply;
            }
            return tokens_.issue(body);
        }
        const auto tenant = splitTenant(path);
        if (!tenant) {
            return errorReply(404, "not_found",
                              "no resource at " + path +
                                  " (base paths: /KXFrontier, /KXFrontier-stg, "
                                  "/KXFrontier-devinteg, /ZandrelService/rest/bu/<BU>)");
        }
        switch (tokens_.check(authorization)) {
            case Tokens::Verdict::Valid:
                break;
            case Tokens::Verdict::Missing:
                return errorReply(401, "unauthorized", "a bearer token is required");
            case Tokens::Verdict::Unknown:
                return errorReply(401, "invalid_token", "unknown bearer token");
            case Tokens::Verdict::Expired:
                return errorReply(401, "invalid_token", "the bearer token has expired");
        }
        return dispatch(method, tenant->first, tenant->second, query, body);
    } catch (const APIError& error) {
        return {error.status(), error.body(), {}};
    } catch (const DatabaseError& error) {
        return errorReply(503, "storage_unavailable", error.what());
    }
}

Reply Server::dispatch(const std::string& method, const std::string& tenant,
                       const std::string& rest,
                       const std::multimap<std::string, std::string>& query,
                       const std::string& body) {
    std::vector<std::string> segments = splitPath(rest);
    Router::Match match = router_.match(method, segments);
    if (match.handler == nullptr) {
        if (match.allowed.empty()) {
            return errorReply(404, "not_found", "no resource at " + tenant + "/" + rest);
        }
        Reply reply = errorReply(405, "method_not_allowed",
                                 tenant + "/" + rest + " takes " + joined(match.allowed));
        reply.headers.emplace_back("Allow", joined(match.allowed));
        return reply;
    }
    if (options_.seed) {
        ensureTenant(tenant);
    }
    auto lease = database_.borrow();
    Context context{tenant, method,   std::move(segments), std::move(match.arguments), query, body,
                    *lease, settings_};
    if (method == "GET") {
        // One snapshot for all the handler's queries: the database's locks are taken once per
        // request instead of once per query.
        ReadTransaction snapshot(*lease);
        return (*match.handler)(context);
    }
    Transaction transaction(*lease);
    Reply reply = (*match.handler)(context);
    transaction.commit();
    return reply;
}

void Server::ensureTenant(const std::string& tenant) {
    {
        // Every request asks; once a tenant is known, readers do not wait for each other.
        std::shared_lock known(tenantsMutex_);
        if (knownTenants_.count(tenant) != 0) {
            return;
        }
    }
    std::lock_guard lock(tenantsMutex_);
    if (knownTenants_.count(tenant) != 0) {
        return;
    }
    auto lease = database_.borrow();
    Transaction transaction(*lease);
    if (lease->run("INSERT OR IGNORE INTO tenants(base_path, seeded) VALUES(?1, 1)", {tenant}) >
        0) {
        seedLists(*lease, tenant);
    }
    transaction.commit();
    knownTenants_.insert(tenant);
}

}  // namespace kxsandbox
