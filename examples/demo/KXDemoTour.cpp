#include "KXDemoTour.h"

#include <cstdio>
#include <memory>

bool KXDemoTour::step(const std::string& title, const std::function<void(Finish)>& start) {
    ++number_;
    if (failed_) {
        std::printf("[%d/%d] %s: skipped\n", number_, steps_, title.c_str());
        return false;
    }
    std::printf("[%d/%d] %s\n", number_, steps_, title.c_str());
    std::fflush(stdout);
    // Shared, so that an answer arriving after the patience ran out writes into live memory.
    auto outcome = std::make_shared<std::optional<Outcome>>();
    start([outcome](Outcome result) {
        if (!outcome->has_value()) {
            *outcome = std::move(result);
        }
    });
    if (!mainQueue_.runUntil([&] { return outcome->has_value(); }, patience_)) {
        *outcome = Outcome("no answer within " + std::to_string(patience_.count()) + " s");
    }
    if (outcome->value()) {
        std::printf("      FAILED: %s\n", outcome->value()->c_str());
        failed_ = true;
    } else {
        std::printf("      ok\n");
        ++completed_;
    }
    std::fflush(stdout);
    return !failed_;
}

void KXDemoTour::detail(const std::string& text) {
    std::printf("      %s\n", text.c_str());
}

std::string KXDemoTour::describe(const KXError& error) {
    return error.description();
}

bool KXDemoTour::until(const std::string& title, const std::function<bool()>& done,
                       const std::function<std::string()>& whyNot) {
    return step(title, [&](const Finish& finish) {
        if (mainQueue_.runUntil(done, patience_) || done()) {
            finish(std::nullopt);
        } else {
            finish(whyNot());
        }
    });
}
