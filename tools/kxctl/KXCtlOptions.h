#pragma once

// kxctl's global options, exit statuses and the two ways a run stops before anything is sent.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kxctl {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;
constexpr int kTimedOut = 3;

/// The options every command shares (given before the command's name).
struct Options {
    std::string configPath = "KXConfig.enc";
    std::string key;
    std::int64_t environment = 0;
    std::optional<std::string> businessUnit;
    std::vector<std::string> endpoints;
    double timeout = 30;
    bool verbose = false;
    /// The guest to fetch (as the current guest) before the command runs.
    std::optional<std::string> guest;
    /// A remote notification (JSON text) the application is launched with.
    std::optional<std::string> launchNotification;
};

/// A usage error found after parsing (exit status 2).
struct UsageError {
    std::string message;
};

/// A failure to report before anything was sent (exit status 1).
struct Failure {
    std::string message;
};

}  // namespace kxctl
