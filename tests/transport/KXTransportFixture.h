#pragma once

#include "KXCapturingSink.h"
#include "KXLoopbackService.h"
#include "KXServiceAddress.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXLogSink.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct KXCallOutcome {
    int successes = 0;
    int failures = 0;
    bool allOnMainThread = true;
    std::shared_ptr<const KXHTTPResponse> response;
    KXJSON object;
    std::optional<KXError> error;

    int callbacks() const { return successes + failures; }
};

/// What the callbacks of one or more operations saw, in order: "success" (or what a subclass
/// records) and "failure:<code>:<description>".
struct KXEventLog {
    std::vector<std::string> seen;

    std::function<void(const KXError&)> failure() {
        return [this](const KXError& error) {
            seen.push_back("failure:" + std::to_string(error.code) + ":" +
                           error.localizedDescription());
        };
    }
    void succeeded() { seen.emplace_back("success"); }
    std::function<void()> done() {
        return [this] { succeeded(); };
    }
    std::size_t count() const { return seen.size(); }
};

inline KXScriptedAnswer created(const std::string& newRecordId,
                                std::chrono::milliseconds delay = {}) {
    return {.status = 201, .headers = {{"newRecordId", newRecordId}}, .delay = delay};
}

inline KXScriptedAnswer refused(int status, const std::string& message) {
    return KXScriptedAnswer::json(status, {{"message", message}});
}

inline bool logged(const KXCapturingSink& sink, std::string_view text) {
    return !sink.linesContaining(text).empty();
}

/// A test platform and a loopback service that every endpoint points at.
class KXTransportTest : public ::testing::Test {
protected:
    static constexpr std::chrono::milliseconds kPatience{15000};

    std::shared_ptr<KXTestPlatform> platform;
    KXFakeClock& clock = platform->fakeClock();
    KXLoopbackService service;

    explicit KXTransportTest(KXTestPlatformOptions options = {})
        : platform(KXTestPlatform::install(std::move(options))) {
        kxtest::pointServiceAt(service.baseURL());
        transport().setBearerToken(nullptr);  // a token left by a test before in this process
    }

    KXHTTPSessionManager& transport() { return KXHTTPSessionManager::sharedManager(); }

    /// Gives the transport a token that does not expire, so requests skip the token endpoint.
    void giveToken(const std::string& token = "test-token") {
        transport().setBearerToken(std::make_shared<KXBearerToken>(token, std::nullopt));
    }

    bool runUntil(const std::function<bool()>& done) {
        return platform->asioMainQueue().runUntil(done, kPatience);
    }

    /// Runs the main queue until `done` holds, also for conditions that other threads change.
    bool waitFor(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (!done() && std::chrono::steady_clock::now() < deadline) {
            platform->asioMainQueue().runFor(std::chrono::milliseconds(5));
        }
        return done();
    }

    /// Lets queued work run for a moment, to catch a callback that arrives twice.
    void drain(std::chrono::milliseconds period = std::chrono::milliseconds(50)) {
        platform->asioMainQueue().runFor(period);
    }

    void waitForEvents(const KXEventLog& events, std::size_t count) {
        EXPECT_TRUE(runUntil([&] { return events.count() >= count; }));
        drain();
    }

    using Verb = void (KXHTTPSessionManager::*)(const std::string&, const KXJSON&,
                                                KXHTTPSessionManager::SuccessBlock,
                                                KXHTTPSessionManager::FailureBlock);

    void start(Verb verb, const std::string& path, const KXJSON& parameters,
               KXCallOutcome& outcome) {
        const auto note = [this, &outcome](auto response, int& count) {
            ++count;
            outcome.allOnMainThread &= platform->mainQueue().isMainThread();
            outcome.response = std::move(response);
        };
        (transport().*verb)(
            path, parameters,
            [&outcome, note](auto response, const KXJSON& object) {
                note(std::move(response), outcome.successes);
                outcome.object = object;
            },
            [&outcome, note](auto response, const KXError& error) {
                note(std::move(response), outcome.failures);
                outcome.error = error;
            });
    }

    /// Calls and waits for the outcome; fails the test unless exactly one callback ran, on the
    /// main thread.
    KXCallOutcome call(Verb verb, const std::string& path, const KXJSON& parameters = nullptr) {
        KXCallOutcome outcome;
        start(verb, path, parameters, outcome);
        EXPECT_TRUE(runUntil([&] { return outcome.callbacks() > 0; }))
            << "no callback for " << path;
        drain();
        EXPECT_EQ(outcome.callbacks(), 1) << path;
        EXPECT_TRUE(outcome.allOnMainThread) << path;
        return outcome;
    }

    KXCallOutcome get(const std::string& path, const KXJSON& parameters = nullptr) {
        return call(&KXHTTPSessionManager::GET, path, parameters);
    }

    std::vector<KXCallOutcome> getConcurrently(std::size_t count, const std::string& path) {
        std::vector<KXCallOutcome> outcomes(count);
        for (KXCallOutcome& outcome : outcomes) {
            start(&KXHTTPSessionManager::GET, path, nullptr, outcome);
        }
        EXPECT_TRUE(runUntil([&] {
            return std::all_of(outcomes.begin(), outcomes.end(),
                               [](const KXCallOutcome& o) { return o.callbacks() > 0; });
        }));
        drain();
        return outcomes;
    }
};
