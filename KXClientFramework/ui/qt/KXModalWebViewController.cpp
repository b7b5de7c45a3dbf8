#include "KXModalWebViewController.h"

KXModalWebViewController::KXModalWebViewController(KXWebViewController* root, QWidget* parent)
    : KXNavigationStack(nullptr, parent), webViewController_(root) {
    setObjectName("KXModalWebViewController");
    setModal(true);
    push(root);
    setupWebViewController();
    connect(webViewController_, &KXViewController::navigationItemChanged, this,
            &KXModalWebViewController::viewWillAppear);
}

KXModalWebViewController* KXModalWebViewController::withHTML(const QString& html, QWidget* parent) {
    return new KXModalWebViewController(KXWebViewController::withHTML(nullptr, html), parent);
}

KXModalWebViewController* KXModalWebViewController::withText(const QString& text, QWidget* parent) {
    return new KXModalWebViewController(KXWebViewController::withText(nullptr, text), parent);
}

KXModalWebViewController* KXModalWebViewController::withURL(const QUrl& url, QWidget* parent) {
    return new KXModalWebViewController(KXWebViewController::withURL(nullptr, url), parent);
}

void KXModalWebViewController::setupWebViewController() {
    done_ = new QAction(KXWebViewerController::kDoneTitle, webViewController_);
    done_->setObjectName("KXDoneButton");
    done_->setShortcut(QKeySequence::Cancel);
    connect(done_, &QAction::triggered, webViewController_,
            &KXWebViewController::doneButtonClicked);
    webViewController_->addAction(done_);
    QList<QAction*> right = webViewController_->rightBarActions();
    right.append(done_);
    webViewController_->setRightBarActions(right);
}

void KXModalWebViewController::setBarsTintColor(const QColor& colour) {
    barsTintColor_ = colour;
    viewWillAppear();
}

void KXModalWebViewController::viewWillAppear() {
    if (QWidget* dialog = window(); dialog != nullptr && isPresented()) {
        dialog->setWindowTitle(webViewController_->title());
    }
    if (barsTintColor_.isValid()) {
        QPalette palette = navigationBar()->palette();
        palette.setColor(QPalette::Window, barsTintColor_);
        navigationBar()->setPalette(palette);
    }
}
