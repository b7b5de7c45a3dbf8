#include <KXClientFramework/KXLinuxServices.h>
#include <KXClientFramework/KXLog.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <utility>

void KXLinuxNotificationAuthorizer::requestAuthorization(
    std::uint32_t /*options*/,
    std::function<void(bool granted, const std::optional<KXError>& error)> completion) {
    if (!completion) {
        return;
    }
    mainQueue_.post([completion = std::move(completion), granted = authorized_] {
        completion(granted, std::nullopt);
    });
}

void KXLinuxAlertPresenter::present(const KXAlert& alert) {
    KXLog::systemLog(
        fmt::format("{}: {} [{}]", alert.title, alert.message, fmt::join(alert.buttons, ", ")));
}
