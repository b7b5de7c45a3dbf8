#include "KXCtlRun.h"

#include "KXCtlHints.h"

#include <KXClientFramework/KXAnalytics.h>
#include <KXClientFramework/KXAsioMainQueue.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXTransportActivity.h>

#include <iostream>
#include <utility>

namespace kxctl {

void printLine(const KXJSON& line) {
    std::cout << KXJSONReader::dump(line) << '\n' << std::flush;
}

KXJSON errorLine(const KXError& error) {
    if (const std::optional<std::string> hint = hintForError(error)) {
        std::cerr << "kxctl: hint: " << *hint << '\n';
    }
    return {
        {"error", {{"domain", error.domain}, {"code", error.code}, {"userInfo", error.userInfo}}}};
}

Run::Run(const Options& options, KXAsioMainQueue& mainQueue, KXApplication& application)
    : options_(options), mainQueue_(mainQueue), application_(application) {}

void Run::printError(const KXError& error) {
    printLine(errorLine(error));
    failed_ = true;
}

void Run::whenIdle(std::function<void()> step) {
    idleSteps_.push_back(std::move(step));
}

std::optional<std::function<void()>> Run::takeIdleStep() {
    if (idleSteps_.empty()) {
        return std::nullopt;
    }
    std::function<void()> step = std::move(idleSteps_.front());
    idleSteps_.pop_front();
    return step;
}

bool Run::libraryIsIdle() const {
    if (KXTransportActivity::requestsUnderWay() != 0 || mainQueue_.hasWorkDue()) {
        return false;
    }
    const std::shared_ptr<KXAnalytics> analytics = KXAnalytics::engaged();
    return !analytics || !analytics->isTimerTickPending();
}

}  // namespace kxctl
