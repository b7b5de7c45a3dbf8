#include "KXTransportFixture.h"

#include <KXClientFramework/KXKeychainWrapper.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXOAuthCredential.h>

namespace {

class CredentialStore : public ::testing::Test {
protected:
    std::shared_ptr<KXTestPlatform> platform = KXTestPlatform::install();
    KXKeychain& keychain() { return platform->keychain(); }
};

}  // namespace

TEST_F(CredentialStore, StoringTwiceUpdatesTheOneItem) {
    const std::string identifier = "KXOAuthCredentialServiceabc";
    EXPECT_FALSE(KXOAuthCredential::retrieveCredentialWithIdentifier(identifier));

    ASSERT_TRUE(KXOAuthCredential::storeCredential(
        KXOAuthCredential::credentialWithClientId("abc", "first"), identifier));
    ASSERT_TRUE(KXOAuthCredential::storeCredential(
        KXOAuthCredential::credentialWithClientId("abc", "second"), identifier));

    auto stored = KXOAuthCredential::retrieveCredentialWithIdentifier(identifier);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->clientSecret(), "second");
    EXPECT_TRUE(KXOAuthCredential::deleteCredentialWithIdentifier(identifier));
    KXKeychainStatus status = KXKeychainStatus::Success;
    EXPECT_FALSE(keychain().copy(KXKeychainQuery{identifier, std::nullopt}, &status))
        << "one delete removed everything: there was one item";
    EXPECT_FALSE(KXOAuthCredential::deleteCredentialWithIdentifier(identifier));

    // Storing no credential deletes the item.
    ASSERT_TRUE(KXOAuthCredential::storeCredential(
        KXOAuthCredential::credentialWithClientId("id", "secret"), "svc"));
    EXPECT_TRUE(KXOAuthCredential::storeCredential(nullptr, "svc"));
    EXPECT_FALSE(KXOAuthCredential::retrieveCredentialWithIdentifier("svc"));
    EXPECT_FALSE(KXOAuthCredential::storeCredential(nullptr, "svc")) << "nothing left to delete";
}

TEST_F(CredentialStore, TheArchiveIsAPropertyListAndAnythingElseReadsAsAbsent) {
    const auto credential = KXOAuthCredential::credentialWithClientId("id-1", "s&<cret>");
    const std::vector<std::uint8_t> data = credential->archivedData();
    const std::string text(data.begin(), data.end());
    EXPECT_NE(text.find("<plist"), std::string::npos);
    EXPECT_NE(text.find("<key>clientId</key>"), std::string::npos);
    EXPECT_NE(text.find("<key>clientSecret</key>"), std::string::npos);
    auto back = KXOAuthCredential::unarchive(data);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->clientSecret(), "s&<cret>");

    EXPECT_EQ(credential->description(),
              "<KXOAuthCredential clientId:\"id-1\" secret:\"s&<cret>\">");

    // Data that is not an archive reads as absent, and the wrapper logs it.
    auto sink = KXCapturingSink::install();
    ASSERT_EQ(keychain().add(KXKeychainQuery{"broken", std::nullopt}, {'n', 'o', 'p', 'e'}),
              KXKeychainStatus::Success);
    EXPECT_FALSE(KXOAuthCredential::retrieveCredentialWithIdentifier("broken"));
    EXPECT_FALSE(KXOAuthCredential::unarchive({}));
    ASSERT_EQ(keychain().add(KXKeychainWrapper::getKeychainQuery("bad").item, {0xde, 0xad}),
              KXKeychainStatus::Success);
    EXPECT_TRUE(KXKeychainWrapper::fetchValueForKey("bad").is_null());
    EXPECT_TRUE(logged(*sink, "Unarchive of bad failed: "));
}

TEST_F(CredentialStore, TheWrapperKeepsOneValuePerKey) {
    const KXKeychainWrapper::Query query = KXKeychainWrapper::getKeychainQuery("prefs");
    EXPECT_EQ(query.item.service, "prefs");
    EXPECT_EQ(query.item.account, "prefs");
    EXPECT_EQ(query.accessibility, kSecAttrAccessibleAfterFirstUnlock);

    EXPECT_TRUE(KXKeychainWrapper::fetchValueForKey("prefs").is_null());
    const KXJSON first = {{"name", "Ada"}, {"visits", 3}, {"tags", {"a", "b"}}, {"vip", true}};
    KXKeychainWrapper::saveValue(first, "prefs");
    EXPECT_EQ(KXKeychainWrapper::fetchValueForKey("prefs"), first);
    KXKeychainWrapper::saveValue("replaced", "prefs");
    EXPECT_EQ(KXKeychainWrapper::fetchValueForKey("prefs"), "replaced");
    KXKeychainWrapper::deleteValueForKey("prefs");
    EXPECT_TRUE(KXKeychainWrapper::fetchValueForKey("prefs").is_null());
}
