#pragma once

// Small services of the Linux default platform.

#include <KXClientFramework/KXAlertPresenter.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXMainQueue.h>
#include <KXClientFramework/KXNotificationAuthorizer.h>

/// Answers every authorisation request with a fixed answer (there is no prompt on a Linux
/// machine), on the main queue, never inside the call.
class KX_EXPORT KXLinuxNotificationAuthorizer final : public KXNotificationAuthorizer {
public:
    KXLinuxNotificationAuthorizer(KXMainQueue& mainQueue, bool authorized)
        : mainQueue_(mainQueue), authorized_(authorized) {}

    void requestAuthorization(
        std::uint32_t options,
        std::function<void(bool granted, const std::optional<KXError>& error)> completion) override;

private:
    KXMainQueue& mainQueue_;
    bool authorized_;
};

/// Writes each alert as one line "<title>: <message> [<button>, <button>]" to the log sink
/// (KXLog::systemLog), which is where a kiosk or a service shows what needs attention.
class KX_EXPORT KXLinuxAlertPresenter final : public KXAlertPresenter {
public:
    void present(const KXAlert& alert) override;
};
