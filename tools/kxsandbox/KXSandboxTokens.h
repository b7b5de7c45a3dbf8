#pragma once

// Client credentials and bearer tokens: the OAuth 2 client-credentials token endpoint, the check
// of every REST call's bearer token, and the registration of the credentials and inbox domain of
// a sealed configuration file.

#include "KXSandboxDatabase.h"
#include "KXSandboxHTTP.h"

#include <filesystem>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace kxsandbox {

/// What one configuration file registered.
struct Registration {
    std::vector<std::string> clientIds;
    std::optional<std::string> inboxDomainId;
};

/// Opens `file` with `key` through the library's configuration reader and registers its staging
/// and production client credentials and its inbox domain. Throws std::runtime_error with a
/// readable reason when the file cannot be read or does not open with the key.
Registration registerConfiguration(Database& database, const std::filesystem::path& file,
                                   const std::string& key);

/// Adds the inbox domain `id` unless it exists.
void registerInboxDomain(Connection& db, const std::string& id, const std::string& name,
                         const std::string& description, bool deleteForbidden);

class Tokens {
public:
    Tokens(Database& database, std::int64_t lifetimeSeconds);

    /// The token endpoint: a form body with grant_type=client_credentials, client_id and
    /// client_secret; 200 with the token, 400 for another grant, 401 for unknown credentials.
    Reply issue(const std::string& formBody);

    enum class Verdict { Valid, Missing, Unknown, Expired };
    /// Judges an Authorization header value ("Bearer <token>", scheme in any case).
    Verdict check(const std::string& authorization) const;

private:
    Database& database_;
    std::int64_t lifetimeSeconds_;
    mutable std::shared_mutex mutex_;
    /// Token → expiry in milliseconds since 1970; mirrors the tokens table.
    std::unordered_map<std::string, std::int64_t> expiries_;
};

}  // namespace kxsandbox
