#pragma once

// What a command sees while it runs: where to print, how to report a failure, and a way to
// continue once the library has gone idle.

#include "KXCtlOptions.h"

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXJSON.h>

#include <deque>
#include <functional>
#include <optional>
#include <string>

class KXApplication;
class KXAsioMainQueue;

namespace kxctl {

/// Prints one JSON line on standard output and flushes it at once, so a script reading the
/// pipe sees every callback's line as it happens.
void printLine(const KXJSON& line);

/// {"error": {"domain", "code", "userInfo"}}
KXJSON errorLine(const KXError& error);

class Run {
public:
    Run(const Options& options, KXAsioMainQueue& mainQueue, KXApplication& application);

    const Options& options() const { return options_; }
    KXAsioMainQueue& mainQueue() { return mainQueue_; }
    KXApplication& application() { return application_; }

    void print(const KXJSON& line) { printLine(line); }
    /// Prints the error line; the run then exits with status 1.
    void printError(const KXError& error);
    /// The run exits with status 1 (without a line of its own).
    void markFailed() { failed_ = true; }
    bool failed() const { return failed_; }

    /// Queues `step` to run on the main queue once the library is idle. Steps run one at a
    /// time, in the order queued, each after the library went idle again.
    void whenIdle(std::function<void()> step);
    /// The next queued step, if any (for the run loop).
    std::optional<std::function<void()>> takeIdleStep();

    /// No request under way in the transport, no work due on the main queue and no tick of
    /// the analytics session timer due or queued.
    bool libraryIsIdle() const;

private:
    const Options& options_;
    KXAsioMainQueue& mainQueue_;
    KXApplication& application_;
    bool failed_ = false;
    std::deque<std::function<void()>> idleSteps_;
};

/// What the command chosen on the command line does. A command group fills it in from its
/// subcommand's parse callback.
struct Command {
    /// Checks what parsing could not (JSON arguments, combinations); throws UsageError.
    std::function<void()> validate;
    /// How kxctl's application delegate engages the library while launching; empty means
    /// KXClientFramework::engageUsingKey(key).
    std::function<void(const std::string& key)> engage;
    /// The launch options the application is started with (null: none).
    KXJSON launchOptions;
    /// Whether the application becomes active once it has launched, before the command starts.
    /// A command that posts the life-cycle events itself says false.
    bool becomesActive = true;
    /// Starts the command on the main queue once the library has started. kxctl then waits
    /// until the library is idle and every step queued with Run::whenIdle() has run.
    std::function<void(Run& run)> start;
};

}  // namespace kxctl
