#include "KXWebViewController.h"

#include "KXNavigationStack.h"
#include "KXProgressOverlay.h"

#include <KXClientFramework/KXPlatform.h>

#include <QStyle>
#include <QVBoxLayout>
#include <QWebEngineHistory>
#include <QWebEnginePage>
#include <QWebEngineView>

namespace {

void setNetworkActivityIndicator(bool visible) {
    KXPlatform::current().application().setNetworkActivityIndicatorVisible(visible);
}

QWidget* spacer(QWidget* parent, int fixedWidth) {
    auto* space = new QWidget(parent);
    if (fixedWidth > 0) {
        space->setFixedWidth(fixedWidth);
    } else {
        space->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    }
    return space;
}

}  // namespace

KXWebViewController::KXWebViewController(KXWebViewerMode mode,
                                         std::shared_ptr<KXInboxMessage> message, QWidget* parent)
    : KXViewController(parent), mode_(mode), message_(std::move(message)) {
    setObjectName("KXWebViewController");
    setAccessibleName("Message");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
}

KXWebViewController* KXWebViewController::withHTML(std::shared_ptr<KXInboxMessage> message,
                                                   const QString& html, QWidget* parent) {
    auto* viewer = new KXWebViewController(KXWebViewerMode::HTMLString, std::move(message), parent);
    viewer->htmlString_ = html;
    viewer->setupWebView();
    return viewer;
}

KXWebViewController* KXWebViewController::withURL(std::shared_ptr<KXInboxMessage> message,
                                                  const QUrl& url, QWidget* parent) {
    auto* viewer = new KXWebViewController(KXWebViewerMode::URL, std::move(message), parent);
    viewer->url_ = url;
    viewer->setupWebView();
    return viewer;
}

KXWebViewController* KXWebViewController::withText(std::shared_ptr<KXInboxMessage> message,
                                                   const QString& text, QWidget* parent) {
    auto* viewer =
        new KXWebViewController(KXWebViewerMode::AttributedText, std::move(message), parent);
    viewer->text_ = text;
    viewer->setupHTMLTextView();
    return viewer;
}

KXWebViewController::~KXWebViewController() {
    if (webView_ != nullptr) {
        webView_->page()->disconnect(this);
        webView_->stop();
        if (loading_) {
            setNetworkActivityIndicator(false);
        }
    }
}

void KXWebViewController::setupWebView() {
    webView_ = new QWebEngineView(this);
    webView_->setObjectName("KXWebView");
    webView_->setAccessibleName("Message content");
    layout()->addWidget(webView_);
    QWebEnginePage* page = webView_->page();
    connect(page, &QWebEnginePage::loadStarted, this, &KXWebViewController::webViewDidStartLoad);
    connect(page, &QWebEnginePage::loadFinished, this, [this](bool ok) {
        if (ok) {
            webViewDidFinishLoad();
        } else {
            webViewDidFailLoad();
        }
    });

    spinner_ = new KXProgressOverlay(webView_);
    spinner_->setObjectName("KXWebViewSpinner");
    spinner_->setAccessibleName("Loading");
    spinner_->setAttribute(Qt::WA_TransparentForMouseEvents);

    toolbar_ = new QToolBar(this);
    toolbar_->setObjectName("KXWebToolbar");
    toolbar_->setAccessibleName("Browser toolbar");
    toolbar_->hide();
    setToolbar(toolbar_);
    updateToolbarItems();
    loadContent();
}

void KXWebViewController::setupHTMLTextView() {
    textView_ = new QPlainTextEdit(this);
    textView_->setObjectName("KXMessageTextView");
    textView_->setAccessibleName("Message content");
    textView_->setReadOnly(true);
    textView_->setTextInteractionFlags(Qt::NoTextInteraction);
    textView_->setPlainText(text_);
    // Not selectable, but still reached by Tab so the keys can scroll it.
    textView_->setFocusPolicy(Qt::StrongFocus);
    layout()->addWidget(textView_);
}

void KXWebViewController::loadContent() {
    if (url_.isValid()) {
        webView_->load(url_);
    } else {
        webView_->setHtml(htmlString_);
    }
}

QAction* KXWebViewController::backBarButtonItem() {
    if (!back_) {
        back_ = new QAction(QString::fromUtf8(KXWebViewerController::kBackTitle), this);
        back_->setObjectName("KXBackButton");
        back_->setToolTip("Back (Ctrl+[)");
        back_->setShortcut(QKeySequence("Ctrl+["));
        connect(back_, &QAction::triggered, this, &KXWebViewController::goBackClicked);
    }
    return back_;
}

QAction* KXWebViewController::forwardBarButtonItem() {
    if (!forward_) {
        forward_ = new QAction(QString::fromUtf8(KXWebViewerController::kForwardTitle), this);
        forward_->setObjectName("KXForwardButton");
        forward_->setToolTip("Forward (Ctrl+])");
        forward_->setShortcut(QKeySequence("Ctrl+]"));
        connect(forward_, &QAction::triggered, this, &KXWebViewController::goForwardClicked);
    }
    return forward_;
}

QAction* KXWebViewController::refreshBarButtonItem() {
    if (!refresh_) {
        refresh_ = new QAction(style()->standardIcon(QStyle::SP_BrowserReload), "Reload", this);
        refresh_->setObjectName("KXReloadButton");
        refresh_->setShortcut(QKeySequence::Refresh);
        connect(refresh_, &QAction::triggered, this, &KXWebViewController::reloadClicked);
    }
    return refresh_;
}

QAction* KXWebViewController::stopBarButtonItem() {
    if (!stop_) {
        stop_ = new QAction(style()->standardIcon(QStyle::SP_BrowserStop), "Stop", this);
        stop_->setObjectName("KXStopButton");
        stop_->setShortcut(QKeySequence("Ctrl+."));
        connect(stop_, &QAction::triggered, this, &KXWebViewController::stopClicked);
    }
    return stop_;
}

void KXWebViewController::setTabletLayout(bool tablet) {
    tablet_ = tablet;
    updateToolbarItems();
}

void KXWebViewController::updateToolbarItems() {
    if (webView_ == nullptr) {
        return;
    }
    QWebEngineHistory* history = webView_->history();
    backBarButtonItem()->setEnabled(history->canGoBack());
    forwardBarButtonItem()->setEnabled(history->canGoForward());

    // Actions stay in the widget (for their shortcuts) whether or not the bar shows them.
    for (QAction* action : {backBarButtonItem(), forwardBarButtonItem(), refreshBarButtonItem(),
                            stopBarButtonItem()}) {
        addAction(action);
    }
    refreshBarButtonItem()->setEnabled(!loading_);
    stopBarButtonItem()->setEnabled(loading_);

    QList<QAction*> items;
    toolbar_->clear();
    for (KXWebToolbarItem item : KXWebViewerController::toolbarItems(tablet_, loading_)) {
        QAction* action = nullptr;
        switch (item) {
            case KXWebToolbarItem::Back:
                action = backBarButtonItem();
                break;
            case KXWebToolbarItem::Forward:
                action = forwardBarButtonItem();
                break;
            case KXWebToolbarItem::Reload:
                action = refreshBarButtonItem();
                break;
            case KXWebToolbarItem::Stop:
                action = stopBarButtonItem();
                break;
            case KXWebToolbarItem::FixedSpace:
                if (!tablet_) {
                    toolbar_->addWidget(spacer(toolbar_, 8));
                }
                break;
            case KXWebToolbarItem::FlexibleSpace:
                toolbar_->addWidget(spacer(toolbar_, 0));
                break;
        }
        if (action != nullptr) {
            items.push_back(action);
            if (!tablet_) {
                toolbar_->addAction(action);
            }
        }
    }
    if (tablet_) {
        // The navigation bar's right side takes the buttons, in reverse order.
        QList<QAction*> right(items.rbegin(), items.rend());
        if (delete_ != nullptr) {
            right.prepend(delete_);
        }
        setRightBarActions(right);
        setToolbar(nullptr);
    } else {
        setToolbar(toolbar_);
    }
}

void KXWebViewController::webViewDidStartLoad() {
    if (!loading_) {
        loading_ = true;
        spinner_->showOverlay();
        setNetworkActivityIndicator(true);
    }
    updateToolbarItems();
}

void KXWebViewController::webViewDidFinishLoad() {
    setNetworkActivityIndicator(false);
    QPointer<KXWebViewController> self(this);
    webView_->page()->runJavaScript("document.title", [self](const QVariant& result) {
        if (self) {
            const QString title = result.toString();
            self->setTitle(title);
            emit self->titleLoaded(title);
        }
    });
    loading_ = false;
    updateToolbarItems();
    spinner_->hideOverlay();
}

void KXWebViewController::webViewDidFailLoad() {
    setNetworkActivityIndicator(false);
    loading_ = false;
    spinner_->hideOverlay();
    updateToolbarItems();
}

void KXWebViewController::goBackClicked() {
    if (webView_ != nullptr) {
        webView_->back();
    }
}

void KXWebViewController::goForwardClicked() {
    if (webView_ != nullptr) {
        webView_->forward();
    }
}

void KXWebViewController::reloadClicked() {
    if (webView_ != nullptr) {
        webView_->reload();
    }
}

void KXWebViewController::stopClicked() {
    if (webView_ != nullptr) {
        webView_->stop();
    }
    updateToolbarItems();
}

void KXWebViewController::doneButtonClicked() {
    if (KXNavigationStack* stack = navigationStack()) {
        stack->dismiss();
    }
}

void KXWebViewController::installDeleteButtonIfPushed() {
    KXNavigationStack* stack = navigationStack();
    const bool wanted = KXWebViewerController::showsDeleteButton(
        stack != nullptr, stack != nullptr && stack->isPresented());
    if (wanted && delete_ == nullptr) {
        delete_ = new QAction(KXWebViewerController::kDeleteTitle, this);
        delete_->setObjectName("KXDeleteButton");
        delete_->setShortcut(QKeySequence::Delete);
        addAction(delete_);
        connect(delete_, &QAction::triggered, this, &KXWebViewController::deleteAction);
        setRightBarActions({delete_});
    } else if (!wanted && delete_ != nullptr) {
        removeAction(delete_);
        delete_->deleteLater();
        delete_ = nullptr;
        setRightBarActions({});
    }
    if (tablet_) {
        updateToolbarItems();
    }
}

void KXWebViewController::viewWillAppear() {
    installDeleteButtonIfPushed();
    if (toolbar_ != nullptr && !tablet_) {
        toolbar_->show();
    }
}

void KXWebViewController::viewWillDisappear() {
    if (toolbar_ != nullptr && !tablet_) {
        toolbar_->hide();
    }
}

void KXWebViewController::viewDidDisappear() {
    setNetworkActivityIndicator(false);
}
