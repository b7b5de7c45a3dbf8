#pragma once

#include <KXClientFramework/KXExport.h>

#include <QAction>
#include <QList>
#include <QPointer>
#include <QWidget>

class KXNavigationStack;

/// A screen that a KXNavigationStack shows: a title, the actions of the navigation bar's left
/// and right sides, an optional toolbar at the bottom, and the appearance hooks.
class KX_EXPORT KXViewController : public QWidget {
    Q_OBJECT
public:
    explicit KXViewController(QWidget* parent = nullptr);

    QString title() const { return title_; }
    void setTitle(const QString& title);

    QList<QAction*> leftBarActions() const { return left_; }
    QList<QAction*> rightBarActions() const { return right_; }
    void setLeftBarActions(QList<QAction*> actions);
    void setRightBarActions(QList<QAction*> actions);

    /// The widget shown under the screen while it is on top (null: no toolbar).
    QWidget* toolbar() const { return toolbar_; }
    void setToolbar(QWidget* toolbar);

    /// The stack holding this screen, null when it stands alone.
    KXNavigationStack* navigationStack() const;

    /// Called by the stack around changes of the top screen.
    virtual void viewWillAppear() {}
    virtual void viewWillDisappear() {}
    virtual void viewDidDisappear() {}

signals:
    /// The title, the bar actions or the toolbar changed.
    void navigationItemChanged();

private:
    friend class KXNavigationStack;

    QString title_;
    QList<QAction*> left_;
    QList<QAction*> right_;
    QPointer<QWidget> toolbar_;
    QPointer<KXNavigationStack> stack_;
};
