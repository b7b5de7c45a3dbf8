#include <KXClientFramework/KXKeychain.h>
#include <KXClientFramework/KXOAuthCredential.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXPropertyList.h>

#include <fmt/format.h>

#include <utility>

namespace {

std::optional<std::string> stringValue(const KXJSON& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

}  // namespace

std::shared_ptr<KXOAuthCredential> KXOAuthCredential::credentialWithClientId(
    std::optional<std::string> clientId, std::optional<std::string> clientSecret) {
    return std::make_shared<KXOAuthCredential>(std::move(clientId), std::move(clientSecret));
}

KXOAuthCredential::KXOAuthCredential(std::optional<std::string> clientId,
                                     std::optional<std::string> clientSecret)
    : clientId_(std::move(clientId)), clientSecret_(std::move(clientSecret)) {}

std::string KXOAuthCredential::description() const {
    return fmt::format("<{} clientId:\"{}\" secret:\"{}\">", "KXOAuthCredential",
                       clientId_.value_or("(null)"), clientSecret_.value_or("(null)"));
}

std::vector<std::uint8_t> KXOAuthCredential::archivedData() const {
    KXJSON object = KXJSON::object();
    if (clientId_) {
        object["clientId"] = *clientId_;
    }
    if (clientSecret_) {
        object["clientSecret"] = *clientSecret_;
    }
    const std::string xml = KXPropertyList::toXML(object);
    return std::vector<std::uint8_t>(xml.begin(), xml.end());
}

std::shared_ptr<KXOAuthCredential> KXOAuthCredential::unarchive(
    const std::vector<std::uint8_t>& data) {
    const std::optional<KXJSON> object = KXPropertyList::parse(std::span<const std::uint8_t>(data));
    if (!object || !object->is_object()) {
        return nullptr;
    }
    return credentialWithClientId(stringValue(*object, "clientId"),
                                  stringValue(*object, "clientSecret"));
}

bool KXOAuthCredential::storeCredential(const std::shared_ptr<KXOAuthCredential>& credential,
                                        const std::string& identifier) {
    return storeCredential(credential, identifier, std::string(kSecAttrAccessibleWhenUnlocked));
}

bool KXOAuthCredential::storeCredential(const std::shared_ptr<KXOAuthCredential>& credential,
                                        const std::string& identifier,
                                        const std::optional<std::string>& accessibility) {
    if (!credential) {
        return deleteCredentialWithIdentifier(identifier);
    }
    const KXKeychainQuery query{identifier, std::nullopt};
    const std::vector<std::uint8_t> data = credential->archivedData();
    KXKeychain& keychain = KXPlatform::current().keychain();
    const KXKeychainStatus status = retrieveCredentialWithIdentifier(identifier)
                                        ? keychain.update(query, data, accessibility)
                                        : keychain.add(query, data, accessibility);
    return status == KXKeychainStatus::Success;
}

std::shared_ptr<KXOAuthCredential> KXOAuthCredential::retrieveCredentialWithIdentifier(
    const std::string& identifier) {
    KXKeychainStatus status = KXKeychainStatus::Success;
    const auto data =
        KXPlatform::current().keychain().copy(KXKeychainQuery{identifier, std::nullopt}, &status);
    if (status != KXKeychainStatus::Success || !data) {
        return nullptr;
    }
    return unarchive(*data);
}

bool KXOAuthCredential::deleteCredentialWithIdentifier(const std::string& identifier) {
    return KXPlatform::current().keychain().remove(KXKeychainQuery{identifier, std::nullopt}) ==
           KXKeychainStatus::Success;
}
