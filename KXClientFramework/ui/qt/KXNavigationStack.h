#pragma once

#include <KXClientFramework/KXExport.h>

#include <QDialog>
#include <QLabel>
#include <QPointer>
#include <QStackedWidget>
#include <QToolButton>
#include <QVector>
#include <QWidget>

class KXViewController;
class QHBoxLayout;
class QVBoxLayout;

/// The desktop's navigation controller: a bar with a back button, the top screen's title and
/// its bar actions, the top screen itself, and its toolbar underneath. Screens are pushed and
/// popped; the stack owns them. Alt+Left (and Back on mice and keyboards) pops.
///
/// A stack can itself be presented over another screen as a modal dialog (present()); the
/// screens inside then know they were presented, which decides, for example, whether the
/// message viewer offers Delete.
class KX_EXPORT KXNavigationStack : public QWidget {
    Q_OBJECT
public:
    explicit KXNavigationStack(KXViewController* root = nullptr, QWidget* parent = nullptr);
    ~KXNavigationStack() override;

    void push(KXViewController* screen);
    /// Pops the top screen unless it is the root; the popped screen is deleted later.
    void pop();
    KXViewController* topScreen() const;
    int depth() const { return static_cast<int>(screens_.size()); }

    /// True while this stack is shown by present().
    bool isPresented() const { return modal_ || presentation_ != nullptr; }
    /// Shows this stack as a window-modal dialog over `over`'s window; `shown` runs once the
    /// dialog is up. The stack is deleted when dismissed.
    void present(QWidget* over, std::function<void()> shown = {});
    /// Closes the presentation (no-op when not presented).
    void dismiss();

    QWidget* navigationBar() const { return bar_; }
    QLabel* titleLabel() const { return title_; }
    QToolButton* backButton() const { return back_; }
    /// The buttons currently shown for the top screen's bar actions, left then right.
    QList<QToolButton*> barButtons() const { return buttons_; }

signals:
    void topScreenChanged(KXViewController* screen);
    void dismissed();

protected:
    /// A stack made only to be presented counts as presented from the start.
    void setModal(bool modal) { modal_ = modal; }

private:
    void showTop();
    void rebuildBar();

    QVector<KXViewController*> screens_;
    QWidget* bar_;
    QHBoxLayout* leftBox_;
    QHBoxLayout* rightBox_;
    QToolButton* back_;
    QLabel* title_;
    QStackedWidget* pages_;
    QVBoxLayout* toolbarBox_;
    QPointer<QWidget> shownToolbar_;
    QList<QToolButton*> buttons_;
    QPointer<QDialog> presentation_;
    bool modal_ = false;
};
