#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXNavigationStack.h>
#include <KXClientFramework/KXWebViewController.h>

#include <QColor>
#include <QUrl>

/// A navigation stack around a message viewer with no message, for presenting modally: a Done
/// button (right; left in the tablet layout; also the Escape key) closes it. The viewer inside
/// offers no Delete.
class KX_EXPORT KXModalWebViewController : public KXNavigationStack {
    Q_OBJECT
public:
    static KXModalWebViewController* withHTML(const QString& html, QWidget* parent = nullptr);
    static KXModalWebViewController* withText(const QString& text, QWidget* parent = nullptr);
    static KXModalWebViewController* withURL(const QUrl& url, QWidget* parent = nullptr);

    KXWebViewController* webViewController() const { return webViewController_; }
    QAction* doneButton() const { return done_; }

    /// The navigation bar's colour (invalid: the style's).
    QColor barsTintColor() const { return barsTintColor_; }
    void setBarsTintColor(const QColor& colour);

private:
    KXModalWebViewController(KXWebViewController* root, QWidget* parent);
    void setupWebViewController();
    void viewWillAppear();

    KXWebViewController* webViewController_;
    QAction* done_ = nullptr;
    QColor barsTintColor_;
};
