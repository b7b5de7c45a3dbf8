#pragma once

#include "KXProcess.h"
#include "KXSandboxProcess.h"
#include "KXSealedFiles.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXOAuth2Client.h>
#include <KXClientFramework/KXSessionManager.h>

#include <gtest/gtest.h>
#include <httplib.h>
// httplib pulls in <arpa/nameser.h>, whose DELETE macro would rename the transport's verb.
#ifdef DELETE
#undef DELETE
#endif

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// What one verb call gave.
struct KXSandboxAnswer {
    int callbacks = 0;
    bool succeeded = false;
    long status = 0;
    KXJSON object;
    std::string newRecordId;
    std::optional<KXError> error;
};

class KXSandboxTest : public ::testing::Test {
protected:
    static constexpr const char* kKey = "sandbox-test-key";
    static constexpr const char* kInboxDomain = "inbox-1";
    static constexpr std::chrono::milliseconds kPatience{15000};

    std::filesystem::path directory = kxtest::scratchDirectory("sandbox");
    std::filesystem::path configFile = directory / "KXConfig.enc";
    std::filesystem::path database = directory / "sandbox.db";
    std::shared_ptr<KXTestPlatform> platform = KXTestPlatform::install();
    std::unique_ptr<KXSandboxProcess> sandbox;

    /// Seals the configuration and starts the sandbox with it and `arguments`.
    void startSandbox(std::vector<std::string> arguments = {"--seed"}) {
        kxtest::sealCredentialConfiguration(
            configFile, kKey,
            std::string("<key>inboxDomainId</key><string>") + kInboxDomain + "</string>");
        arguments.insert(arguments.begin(), {"--config", configFile.string(), "--key", kKey});
        sandbox = std::make_unique<KXSandboxProcess>(database, arguments);
        pointLibraryAtSandbox();
    }

    /// Points the library at the sandbox's current port (again after a restart).
    void pointLibraryAtSandbox(const std::string& businessUnit = "BU1") {
        KXServiceEndpoints endpoints;
        endpoints.localServer = sandbox->baseURL();
        endpoints.stagingToken = sandbox->baseURL();
        KXClientFramework::setServiceEndpoints(endpoints);
        KXClientFramework::sharedManager().setBusinessUnit(businessUnit);
        KXHTTPSessionManager::sharedManager().resetBaseURLToEnvironment(3);
    }

    /// Authenticates with the staging credentials; the error when the token endpoint refused.
    std::optional<KXError> authenticate(const std::string& clientId = "stage-id",
                                        const std::string& secret = "stage-secret") {
        bool done = false;
        std::optional<KXError> failure;
        KXOAuth2Client::client()
            .initWithClientId(clientId, secret)
            .authenticateWithSuccess([&] { done = true; },
                                     [&](const KXError& error) {
                                         failure = error;
                                         done = true;
                                     });
        EXPECT_TRUE(runUntil([&] { return done; })) << "no answer from the token endpoint";
        return failure;
    }

    bool runUntil(const std::function<bool()>& done) {
        return platform->asioMainQueue().runUntil(done, kPatience);
    }

    using Verb = void (KXHTTPSessionManager::*)(const std::string&, const KXJSON&,
                                                KXHTTPSessionManager::SuccessBlock,
                                                KXHTTPSessionManager::FailureBlock);

    /// Calls `verb` on the library's transport with `path` below the base path and waits.
    KXSandboxAnswer call(Verb verb, const std::string& path, const KXJSON& parameters = nullptr) {
        KXSandboxAnswer answer;
        auto record = [&answer](const std::shared_ptr<const KXHTTPResponse>& response) {
            ++answer.callbacks;
            if (response) {
                answer.status = response->statusCode;
                answer.newRecordId = response->valueForHTTPHeaderField("newRecordId");
            }
        };
        (KXHTTPSessionManager::sharedManager().*verb)(
            KXSessionManager::kxBaseURI() + path, parameters,
            [&](std::shared_ptr<const KXHTTPResponse> response, const KXJSON& object) {
                record(response);
                answer.succeeded = true;
                answer.object = object;
            },
            [&](std::shared_ptr<const KXHTTPResponse> response, const KXError& error) {
                record(response);
                answer.error = error;
                answer.object = error.userInfo;
            });
        EXPECT_TRUE(runUntil([&] { return answer.callbacks > 0; })) << "no answer for " << path;
        EXPECT_EQ(answer.callbacks, 1) << path;
        return answer;
    }

    KXSandboxAnswer get(const std::string& path) { return call(&KXHTTPSessionManager::GET, path); }
    KXSandboxAnswer post(const std::string& path, const KXJSON& body = nullptr) {
        return call(&KXHTTPSessionManager::POST, path, body);
    }
    KXSandboxAnswer del(const std::string& path) {
        return call(&KXHTTPSessionManager::DELETE, path);
    }

    /// Registers a guest (with `body`); its id from "newRecordId".
    std::string registerGuest(const KXJSON& body = KXJSON::object()) {
        const KXSandboxAnswer answer = post("/guests", body);
        EXPECT_EQ(answer.status, 201) << answer.object;
        EXPECT_FALSE(answer.newRecordId.empty());
        return answer.newRecordId;
    }

    std::string bearerToken() const {
        const auto token = KXHTTPSessionManager::sharedManager().bearerToken();
        return token && token->token() ? *token->token() : std::string();
    }

    kxtest::ProcessResult kxsandbox(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"--db", database.string()});
        return kxtest::runProcess(kxtest::builtProgram("tools/kxsandbox/kxsandbox"), arguments);
    }

    /// What the kxsandbox tool prints with --json added to `arguments`.
    KXJSON json(std::vector<std::string> arguments) const {
        arguments.push_back("--json");
        const kxtest::ProcessResult result = kxsandbox(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return KXJSON::parse(result.out, nullptr, false);
    }

    /// A plain HTTP client on the sandbox, for requests the library cannot send.
    httplib::Client rawClient() const {
        httplib::Client client("127.0.0.1", sandbox->port());
        client.set_read_timeout(10, 0);
        return client;
    }
};

/// A sandbox started with its seed and the library authenticated on it.
class KXAuthenticatedSandboxTest : public KXSandboxTest {
protected:
    void SetUp() override {
        startSandbox();
        ASSERT_FALSE(authenticate().has_value());
    }
};
