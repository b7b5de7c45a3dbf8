#pragma once

#include "KXLoopbackService.h"
#include "KXProcess.h"
#include "KXSealedFiles.h"

#include <KXClientFramework/KXJSON.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace kxtools {

using kxtest::jsonLines;
using kxtest::ProcessResult;
using Lines = std::vector<std::string>;
using JSONLines = std::vector<KXJSON>;

inline const std::string kKey = "tool-test-key";
/// The base path of the development environment, kxctl's default.
inline const std::string kBase = "/KXFrontier-stg";

inline ProcessResult kxconfig(const std::vector<std::string>& arguments,
                              const std::string& input = "") {
    return kxtest::runProcess(kxtest::builtProgram("tools/kxconfig/kxconfig"), arguments, input);
}

inline ProcessResult kxctlAlone(const std::vector<std::string>& arguments) {
    return kxtest::runProcess(kxtest::builtProgram("tools/kxctl/kxctl"), arguments);
}

inline std::string readText(const std::filesystem::path& path) {
    const auto bytes = kxtest::readBytes(path);
    return {bytes.begin(), bytes.end()};
}

/// kxctl's line for an error the library reported.
inline KXJSON errorLine(std::int64_t code, const KXJSON& userInfo,
                        const char* domain = "NSOSStatusErrorDomain") {
    return {{"error", {{"domain", domain}, {"code", code}, {"userInfo", userInfo}}}};
}

/// kxctl's line for an argument the library refused before sending anything.
inline KXJSON validationError(const char* message) {
    return errorLine(99, {{"message", message}});
}

/// A 201 answer naming the new record, after `delay`.
inline KXScriptedAnswer createdAs(const std::string& id, std::chrono::milliseconds delay = {}) {
    KXScriptedAnswer answer = KXScriptedAnswer::empty(201);
    answer.headers = {{"newRecordId", id}};
    answer.delay = delay;
    return answer;
}

/// An answer the loopback service gives to METHOD path.
struct Script {
    std::string method;
    std::string path;
    KXScriptedAnswer answer;
};

/// A run of a tool must end with `exitCode` and show `err` on standard error.
inline void expectOutcome(const ProcessResult& result, int exitCode, const std::string& err) {
    EXPECT_EQ(result.exitCode, exitCode) << result.err;
    EXPECT_NE(result.err.find(err), std::string::npos) << result.err;
}

/// A command line a tool must refuse with `exitCode` and `err` on standard error.
struct Refusal {
    const char* name;
    std::vector<std::string> arguments;  // "DIR" at the start of one stands for the test's folder
    int exitCode;
    std::string err = "";  // a part of standard error
    std::string input = "";
};

inline void PrintTo(const Refusal& r, std::ostream* os) {
    *os << r.name;
}

/// Puts `directory` in place of a leading "DIR" in `arguments`; whether there was one.
inline bool placeDirectory(std::vector<std::string>& arguments,
                           const std::filesystem::path& directory) {
    bool placed = false;
    for (std::string& argument : arguments) {
        if (argument.starts_with("DIR")) {
            argument.replace(0, 3, directory.string());
            placed = true;
        }
    }
    return placed;
}

/// A sealed configuration with the test credentials and kxctl pointed at the loopback service.
class KXCtlTest : public testing::Test {
protected:
    KXLoopbackService service;
    std::filesystem::path directory = kxtest::scratchDirectory("kxctl");
    std::filesystem::path configFile = directory / "KXConfig.enc";

    KXCtlTest() { seal(); }

    /// Seals the test configuration with `entries` (property-list XML) added.
    void seal(const std::string& entries = {}) {
        kxtest::sealCredentialConfiguration(configFile, kKey, entries);
    }

    /// Scripts the service's answers, their paths below `base`.
    void script(const std::vector<Script>& scripts, const std::string& base = "") {
        for (const Script& s : scripts) {
            service.script(s.method, base + s.path, s.answer);
        }
    }

    /// The configuration and key, every endpoint on the loopback service ("test" below /test,
    /// so that its paths tell it apart), then `arguments`.
    ProcessResult kxctl(const std::vector<std::string>& arguments) {
        std::vector<std::string> all = {"--config", configFile.string(), "--key", kKey};
        for (const char* name : {"production", "staging", "local", "development",
                                 "production-token", "staging-token"}) {
            all.insert(all.end(), {"--endpoint", std::string(name) + "=" + service.baseURL()});
        }
        all.insert(all.end(), {"--endpoint", "test=" + service.baseURL() + "/test"});
        all.insert(all.end(), arguments.begin(), arguments.end());
        return kxctlAlone(all);
    }
};

}  // namespace kxtools
