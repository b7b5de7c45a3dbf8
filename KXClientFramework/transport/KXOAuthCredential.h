#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The client credentials a token renewal needs, kept in the platform keychain as a generic-
/// password item whose service is the identifier (no account) and whose data is the
/// credential's archive: a property list with the keys "clientId" and "clientSecret".
class KX_EXPORT KXOAuthCredential {
public:
    static std::shared_ptr<KXOAuthCredential> credentialWithClientId(
        std::optional<std::string> clientId, std::optional<std::string> clientSecret);

    KXOAuthCredential(std::optional<std::string> clientId, std::optional<std::string> clientSecret);

    const std::optional<std::string>& clientId() const { return clientId_; }
    void setClientId(std::optional<std::string> clientId) { clientId_ = std::move(clientId); }
    const std::optional<std::string>& clientSecret() const { return clientSecret_; }
    void setClientSecret(std::optional<std::string> secret) { clientSecret_ = std::move(secret); }

    /// "<KXOAuthCredential clientId:"…" secret:"…">": prints the secret in clear, on purpose.
    std::string description() const;

    /// Stores with the accessibility kSecAttrAccessibleWhenUnlocked.
    static bool storeCredential(const std::shared_ptr<KXOAuthCredential>& credential,
                                const std::string& identifier);
    /// Adds the item, or updates it when one is stored under `identifier`; a null credential
    /// deletes the item. True when the keychain reports success.
    static bool storeCredential(const std::shared_ptr<KXOAuthCredential>& credential,
                                const std::string& identifier,
                                const std::optional<std::string>& accessibility);
    /// The stored credential, or null when there is none or it cannot be read.
    static std::shared_ptr<KXOAuthCredential> retrieveCredentialWithIdentifier(
        const std::string& identifier);
    static bool deleteCredentialWithIdentifier(const std::string& identifier);

    /// The keyed archive of the credential, and back (null for data that is not one).
    std::vector<std::uint8_t> archivedData() const;
    static std::shared_ptr<KXOAuthCredential> unarchive(const std::vector<std::uint8_t>& data);

private:
    std::optional<std::string> clientId_;
    std::optional<std::string> clientSecret_;
};
