#pragma once

// What the resource handlers see: the request below its tenant's base path, the parsed JSON
// body with typed accessors that answer 400 on a wrong type, and the reply they build.

#include "KXSandboxDatabase.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kxsandbox {

using JSON = nlohmann::json;

/// An answer with a JSON error body {"error": code, "message": text, "status": status}. Thrown
/// by handlers; the write transaction around the handler is rolled back, so nothing changes.
class APIError : public std::runtime_error {
public:
    APIError(int status, std::string code, const std::string& message)
        : std::runtime_error(message), status_(status), code_(std::move(code)) {}
    int status() const { return status_; }
    const std::string& code() const { return code_; }
    JSON body() const { return {{"error", code_}, {"message", what()}, {"status", status_}}; }

private:
    int status_;
    std::string code_;
};

[[noreturn]] inline void badRequest(const std::string& message) {
    throw APIError(400, "bad_request", message);
}
[[noreturn]] inline void notFound(const std::string& message) {
    throw APIError(404, "not_found", message);
}

/// Nesting deeper than this is refused before parsing, so a hostile body cannot exhaust the
/// parser's stack.
constexpr int kMaxJSONDepth = 64;

/// `text` parsed as JSON; 400 when it is malformed or nested too deeply.
JSON parseJSONBody(const std::string& text);

/// The fields of a form body "a=b&c=d" (the token endpoint's), %XX escapes decoded; '+' stays
/// as it is, because the library sends its form values unencoded and a secret may hold one.
std::map<std::string, std::string> parseFormBody(const std::string& body);

/// Splits a request path into its tenant (the base path) and the rest below it. Base paths:
/// "/KXFrontier", "/KXFrontier-stg", "/KXFrontier-devinteg", "/ZandrelService/rest/bu/<BU>".
std::optional<std::pair<std::string, std::string>> splitTenant(const std::string& path);

/// Typed reads of a request object's members; each answers 400 naming the member when the type
/// is wrong. Absent and null members read as absent.
std::optional<std::string> optionalString(const JSON& object, const char* key);
std::string requiredString(const JSON& object, const char* key);
std::optional<JSON> optionalObject(const JSON& object, const char* key);
/// An array of strings (tags).
std::optional<JSON> optionalStringArray(const JSON& object, const char* key);
/// A boolean, also given as the number 0 or 1.
std::optional<bool> optionalFlag(const JSON& object, const char* key);

/// Appends `text` as a JSON string, byte for byte as JSON::dump(-1, ' ', false,
/// JSON::error_handler_t::replace) writes it.
void appendJSONString(std::string& out, std::string_view text);
/// Appends `value` as JSON::dump writes an integer.
void appendJSONInteger(std::string& out, std::int64_t value);

/// Milliseconds since 1970 (UTC).
std::int64_t nowMilliseconds();
/// A new identifier: `prefix` followed by 16 random hexadecimal digits.
std::string newIdentifier(const std::string& prefix);

/// Settings of the running service that handlers read.
struct ServiceSettings {
    bool seed = false;
    std::int64_t tokenLifetimeSeconds = 3600;
};

/// One request below its tenant.
struct Context {
    std::string tenant;
    std::string method;
    /// The path segments after the base path ("guests", "g-1", "profiles").
    std::vector<std::string> segments;
    /// Values of the pattern's "{}" segments, in order.
    std::vector<std::string> arguments;
    /// The request's query parameters and body, which outlive the handler's call.
    const std::multimap<std::string, std::string>& query;
    const std::string& body;
    Connection& db;
    const ServiceSettings& settings;

    /// The body as a JSON object; 400 when it is missing, malformed or not an object.
    JSON object() const;
    /// The body as a JSON object, or an empty object when there is no body.
    JSON objectOrEmpty() const;
    /// The query parameter `name`, if present (the first when repeated).
    std::optional<std::string> parameter(const std::string& name) const;
    /// A non-negative integer query parameter; `fallback` when absent, 400 when malformed.
    std::int64_t integerParameter(const std::string& name, std::int64_t fallback,
                                  std::int64_t maximum) const;
};

struct Reply {
    Reply(int replyStatus = 200, JSON replyBody = JSON::object(),
          std::vector<std::pair<std::string, std::string>> replyHeaders = {})
        : status(replyStatus), body(std::move(replyBody)), headers(std::move(replyHeaders)) {}

    int status = 200;
    JSON body = JSON::object();
    std::vector<std::pair<std::string, std::string>> headers;
    /// When not empty, the body's JSON text as the handler rendered it, sent instead of `body`:
    /// for answers whose many records would cost more as JSON values than as text.
    std::string text;

    /// 201 with the new record's id in "newRecordId" and the record as body.
    static Reply created(const std::string& id, JSON record);
};

using Handler = std::function<Reply(Context&)>;

/// Routes by method and path segments; "{}" in a pattern matches any one segment.
class Router {
public:
    /// `pattern` like "guests/{}/profiles"; `write` handlers run in a write transaction.
    void add(const std::string& method, const std::string& pattern, Handler handler);

    struct Match {
        const Handler* handler = nullptr;
        std::vector<std::string> arguments;
        /// Methods the path accepts (for 405 answers when the method has no route).
        std::vector<std::string> allowed;
    };
    Match match(const std::string& method, const std::vector<std::string>& segments) const;

private:
    struct Route {
        std::string method;
        std::vector<std::string> pattern;
        Handler handler;
    };
    std::vector<Route> routes_;
};

/// "a/b/c" split at every slash (empty pieces kept, so "lists/" gives "lists" and "").
std::vector<std::string> splitPath(const std::string& path);

// Resource groups, one file each.
void addGuestRoutes(Router& router);
void addInboxRoutes(Router& router);
void addListRoutes(Router& router);
void addSessionRoutes(Router& router);

/// Seeding, run inside a write transaction: the six demo lists of a new tenant, and the welcome
/// messages of a guest that just registered (into every registered inbox domain).
void seedLists(Connection& db, const std::string& tenant);
void deliverWelcomeMessages(Connection& db, const std::string& tenant, const std::string& guest);
/// Inserts one message; its id.
std::string insertMessage(Connection& db, const std::string& tenant, const std::string& guest,
                          const std::string& domain, const std::string& subject,
                          const std::string& contentType, const std::string& content,
                          const std::string& sender, std::int64_t dateReceived);

/// The guest record as the service returns it; absent when there is no such guest.
std::optional<JSON> guestRecord(Connection& db, const std::string& tenant, const std::string& id);
/// The list record as the service returns it, with live channel counts.
std::optional<JSON> listRecord(Connection& db, const std::string& tenant, const std::string& id);
/// Creates a list from a create body (validated here); its external id. 409 when it exists.
std::string createList(Connection& db, const std::string& tenant, const JSON& body);

}  // namespace kxsandbox
