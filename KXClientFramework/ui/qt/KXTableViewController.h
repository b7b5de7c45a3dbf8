#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXViewController.h>

#include <QPointer>

class KXProgressOverlay;

/// The base of the table screens: shows and hides the progress overlay ("Loading") over the
/// screen's window.
class KX_EXPORT KXTableViewController : public KXViewController {
    Q_OBJECT
public:
    explicit KXTableViewController(QWidget* parent = nullptr);

    bool showLoadingIndicator() const { return showLoadingIndicator_; }
    void setShowLoadingIndicator(bool show) { showLoadingIndicator_ = show; }

    /// Shows the overlay when `show` and showLoadingIndicator() are both true, else hides it.
    /// The overlay is made on first use over the window this screen is in.
    void showHUD(bool show);
    /// The overlay, null before the first showHUD().
    KXProgressOverlay* hud() const;

private:
    bool showLoadingIndicator_ = true;
    QPointer<KXProgressOverlay> hud_;
};
