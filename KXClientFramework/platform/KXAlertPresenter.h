#pragma once

#include <KXClientFramework/KXExport.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// How an alert is shown: a notice in the middle of the screen, or a sheet of actions that
/// belongs to the screen it asks about (a confirmation).
enum class KXAlertStyle { Alert, ActionSheet };

/// A modal notice with a title, a message and buttons.
struct KXAlert {
    std::string title;
    std::string message;
    std::vector<std::string> buttons;
    /// Called on the main queue with the index in `buttons` of the button the user pressed;
    /// dismissing the alert without a button (Escape, closing it) counts as pressing
    /// `cancelButton`, or reports nothing when there is none. Empty: nobody is told.
    std::function<void(std::size_t buttonIndex)> onDismiss = {};
    KXAlertStyle style = KXAlertStyle::Alert;
    /// The button that cancels (Escape presses it), if any.
    std::optional<std::size_t> cancelButton = {};
    /// The button whose action destroys something, shown as such, if any.
    std::optional<std::size_t> destructiveButton = {};
};

/// Shows alerts to the user. The default writes them to the log sink; nobody can answer such an
/// alert, so it never calls `onDismiss`.
class KX_EXPORT KXAlertPresenter {
public:
    virtual ~KXAlertPresenter() = default;
    virtual void present(const KXAlert& alert) = 0;
};
