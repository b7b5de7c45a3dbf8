#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXViewController.h>
#include <KXClientFramework/KXWebViewerController.h>

#include <QAction>
#include <QPlainTextEdit>
#include <QPointer>
#include <QToolBar>
#include <QUrl>

#include <functional>
#include <memory>

class KXInboxMessage;
class KXProgressOverlay;
class QWebEngineView;

/// The message viewer: an HTML string or a web address in a web view with a small browser
/// toolbar (back, forward, reload or stop) and a spinner, or plain text in a read-only view.
/// The page's document.title becomes the screen's title. When pushed onto a navigation stack
/// that was not itself presented, a Delete button deletes the message and pops the viewer.
///
/// Keys: Ctrl+[ back, Ctrl+] forward, F5 reload, Ctrl+. stop, Delete deletes.
class KX_EXPORT KXWebViewController : public KXViewController {
    Q_OBJECT
public:
    /// HTML mode: `html` is rendered with no base URL.
    static KXWebViewController* withHTML(std::shared_ptr<KXInboxMessage> message,
                                         const QString& html, QWidget* parent = nullptr);
    /// URL mode.
    static KXWebViewController* withURL(std::shared_ptr<KXInboxMessage> message, const QUrl& url,
                                        QWidget* parent = nullptr);
    /// Text mode: `text` is shown as it is; it cannot be selected or edited.
    static KXWebViewController* withText(std::shared_ptr<KXInboxMessage> message,
                                         const QString& text, QWidget* parent = nullptr);
    ~KXWebViewController() override;

    KXWebViewerMode mode() const { return mode_; }
    const std::shared_ptr<KXInboxMessage>& message() const { return message_; }
    QWebEngineView* webView() const { return webView_; }
    QPlainTextEdit* messageTextView() const { return textView_; }
    KXProgressOverlay* spinner() const { return spinner_; }
    /// True between the start of a page load and its end.
    bool isLoading() const { return loading_; }

    QAction* backBarButtonItem();
    QAction* forwardBarButtonItem();
    QAction* refreshBarButtonItem();
    QAction* stopBarButtonItem();
    /// The Delete action (null when the viewer does not offer it).
    QAction* deleteButtonItem() const { return delete_; }

    /// Phone layout (the default): a toolbar under the page. Tablet layout: the buttons at the
    /// right of the navigation bar.
    void setTabletLayout(bool tablet);

    /// Rebuilds the toolbar from the loading state and the history.
    void updateToolbarItems();

    void viewWillAppear() override;
    void viewWillDisappear() override;
    void viewDidDisappear() override;

public slots:
    void goBackClicked();
    void goForwardClicked();
    void reloadClicked();
    void stopClicked();
    /// Closes the presentation that shows this viewer.
    void doneButtonClicked();
    /// Deletes the message on the service and, once deleted, pops this viewer.
    void deleteAction();

signals:
    /// The page finished loading and its title was read (empty when it has none).
    void titleLoaded(const QString& title);

private:
    KXWebViewController(KXWebViewerMode mode, std::shared_ptr<KXInboxMessage> message,
                        QWidget* parent);
    void setupWebView();
    void setupHTMLTextView();
    void loadContent();
    void webViewDidStartLoad();
    void webViewDidFinishLoad();
    void webViewDidFailLoad();
    void installDeleteButtonIfPushed();

    KXWebViewerMode mode_;
    std::shared_ptr<KXInboxMessage> message_;
    QString htmlString_;
    QUrl url_;
    QString text_;
    bool tablet_ = false;
    bool loading_ = false;

    QWebEngineView* webView_ = nullptr;
    QPlainTextEdit* textView_ = nullptr;
    KXProgressOverlay* spinner_ = nullptr;
    QToolBar* toolbar_ = nullptr;
    QPointer<QAction> back_, forward_, refresh_, stop_;
    QAction* delete_ = nullptr;
};
