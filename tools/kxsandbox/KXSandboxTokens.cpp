#include "KXSandboxTokens.h"

#include <KXClientFramework/KXConfig.h>

#include <fstream>
#include <iterator>
#include <mutex>
#include <random>

namespace kxsandbox {

namespace {

std::string newToken() {
    thread_local std::mt19937_64 generator{std::random_device{}()};
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string token;
    for (int word = 0; word < 4; ++word) {
        std::uint64_t bits = generator();
        for (int i = 0; i < 16; ++i) {
            token.push_back(kDigits[bits & 0xf]);
            bits >>= 4;
        }
    }
    return token;
}

Reply oauthError(int status, const std::string& code, const std::string& description) {
    return {status, {{"error", code}, {"error_description", description}, {"status", status}}, {}};
}

}  // namespace

void registerInboxDomain(Connection& db, const std::string& id, const std::string& name,
                         const std::string& description, bool deleteForbidden) {
    db.run(
        "INSERT OR IGNORE INTO domains(id, name, description, delete_forbidden) "
        "VALUES(?1, ?2, ?3, ?4)",
        {id, name, description, std::int64_t{deleteForbidden ? 1 : 0}});
}

Registration registerConfiguration(Database& database, const std::filesystem::path& file,
                                   const std::string& key) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read the configuration file " + file.string());
    }
    const std::vector<std::uint8_t> sealed((std::istreambuf_iterator<char>(in)),
                                           std::istreambuf_iterator<char>());
    const std::optional<KXJSON> opened = KXConfig::openSealedConfiguration(sealed, key);
    if (!opened || !opened->is_object()) {
        throw std::runtime_error("the configuration file " + file.string() +
                                 " does not open with this key");
    }
    KXConfig config;
    config.applyConfiguration(*opened);
    Registration registration;
    auto lease = database.borrow();
    Transaction transaction(*lease);
    const std::pair<const std::optional<std::string>&, const std::optional<std::string>&> pairs[] =
        {{config.stageClientId(), config.stageClientSecret()},
         {config.prodClientId(), config.prodClientSecret()}};
    for (const auto& [id, secret] : pairs) {
        if (id && !id->empty() && secret) {
            lease->run(
                "INSERT INTO clients(client_id, secret, source) VALUES(?1, ?2, ?3) "
                "ON CONFLICT(client_id) DO UPDATE SET secret=excluded.secret, "
                "source=excluded.source",
                {*id, *secret, file.string()});
            registration.clientIds.push_back(*id);
        }
    }
    if (config.validateInboxDomainId()) {
        registerInboxDomain(*lease, *config.inboxDomainId(), "Inbox",
                            "Inbox of " + config.appId().value_or("the application"), false);
        registration.inboxDomainId = config.inboxDomainId();
    }
    transaction.commit();
    return registration;
}

Tokens::Tokens(Database& database, std::int64_t lifetimeSeconds)
    : database_(database), lifetimeSeconds_(lifetimeSeconds) {
    auto lease = database_.borrow();
    lease->run("DELETE FROM tokens WHERE expires_at < ?1", {nowMilliseconds()});
    Statement rows = lease->prepare("SELECT token, expires_at FROM tokens").bind({});
    while (rows.step()) {
        expiries_.emplace(rows.string(0), rows.integer(1));
    }
}

Reply Tokens::issue(const std::string& formBody) {
    const std::map<std::string, std::string> fields = parseFormBody(formBody);
    const auto field = [&](const char* name) {
        const auto found = fields.find(name);
        return found == fields.end() ? std::string() : found->second;
    };
    if (field("grant_type") != "client_credentials") {
        return oauthError(400, "unsupported_grant_type", "grant_type must be client_credentials");
    }
    const std::string clientId = field("client_id");
    auto lease = database_.borrow();
    std::optional<std::string> secret;
    {
        Statement row =
            lease->prepare("SELECT secret FROM clients WHERE client_id=?1").bind({clientId});
        if (row.step()) {
            secret = row.string(0);
        }
    }
    if (clientId.empty() || !secret || *secret != field("client_secret")) {
        return oauthError(401, "invalid_client", "unknown client id or wrong secret");
    }
    const std::string token = newToken();
    const std::int64_t expiresAt = nowMilliseconds() + lifetimeSeconds_ * 1000;
    {
        Transaction transaction(*lease);
        lease->run("INSERT INTO tokens(token, client_id, expires_at) VALUES(?1, ?2, ?3)",
                   {token, clientId, expiresAt});
        transaction.commit();
    }
    {
        std::unique_lock lock(mutex_);
        expiries_[token] = expiresAt;
    }
    return {200,
            {{"access_token", token},
             {"token_type", "bearer"},
             {"expires_in", lifetimeSeconds_},
             {"scope", field("scope")}},
            {}};
}

Tokens::Verdict Tokens::check(const std::string& authorization) const {
    constexpr std::string_view kScheme = "bearer ";
    if (authorization.size() <= kScheme.size()) {
        return Verdict::Missing;
    }
    for (std::size_t i = 0; i < kScheme.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(authorization[i])) != kScheme[i]) {
            return Verdict::Missing;
        }
    }
    const std::string token = authorization.substr(kScheme.size());
    std::shared_lock lock(mutex_);
    const auto found = expiries_.find(token);
    if (found == expiries_.end()) {
        return Verdict::Unknown;
    }
    return found->second < nowMilliseconds() ? Verdict::Expired : Verdict::Valid;
}

}  // namespace kxsandbox
