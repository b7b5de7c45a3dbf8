#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>

#include <cstdint>
#include <functional>
#include <optional>

/// Asks the user whether the application may present notifications.
class KX_EXPORT KXNotificationAuthorizer {
public:
    virtual ~KXNotificationAuthorizer() = default;

    /// `options` is a set of KXUserNotificationType bits. The completion runs on the main queue
    /// with the answer and, when the question could not be asked, an error.
    virtual void requestAuthorization(
        std::uint32_t options,
        std::function<void(bool granted, const std::optional<KXError>& error)> completion) = 0;
};
