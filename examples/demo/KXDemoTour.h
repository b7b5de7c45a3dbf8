#pragma once

// The demo's console tour: numbered steps with a line of progress each, and a way to wait on
// the main queue for an asynchronous step's outcome.

#include <KXClientFramework/KXAsioMainQueue.h>
#include <KXClientFramework/KXError.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

class KXDemoTour {
public:
    /// How a step ends: empty for success, else the reason it failed.
    using Outcome = std::optional<std::string>;
    using Finish = std::function<void(Outcome)>;

    KXDemoTour(KXAsioMainQueue& mainQueue, int steps, std::chrono::seconds patience)
        : mainQueue_(mainQueue), steps_(steps), patience_(patience) {}

    /// Runs one step: prints its title, calls `start` with a finish callback, runs the main
    /// queue until the callback ran (or the patience ran out) and prints the outcome. False
    /// when the step failed; later steps are then skipped.
    bool step(const std::string& title, const std::function<void(Finish)>& start);

    /// Runs one step that is over when `done` holds (checked while the main queue runs).
    bool until(const std::string& title, const std::function<bool()>& done,
               const std::function<std::string()>& whyNot);

    /// An indented detail line under the current step.
    static void detail(const std::string& text);

    /// The text of a library error for a failed step.
    static std::string describe(const KXError& error);

    KXAsioMainQueue& mainQueue() { return mainQueue_; }
    bool failed() const { return failed_; }
    int completed() const { return completed_; }

private:
    KXAsioMainQueue& mainQueue_;
    int steps_;
    std::chrono::seconds patience_;
    int number_ = 0;
    int completed_ = 0;
    bool failed_ = false;
};
