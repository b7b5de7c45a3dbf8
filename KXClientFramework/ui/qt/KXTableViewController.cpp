#include "KXTableViewController.h"

#include "KXProgressOverlay.h"

KXTableViewController::KXTableViewController(QWidget* parent) : KXViewController(parent) {}

void KXTableViewController::showHUD(bool show) {
    if (!hud_) {
        hud_ = new KXProgressOverlay(window());
        hud_->setMode(KXProgressOverlay::Mode::Indeterminate);
        hud_->setLabelText("Loading");
    }
    if (show && showLoadingIndicator_) {
        hud_->showOverlay();
    } else {
        hud_->hideOverlay();
    }
}

KXProgressOverlay* KXTableViewController::hud() const {
    return hud_;
}
