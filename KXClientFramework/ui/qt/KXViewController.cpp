#include "KXViewController.h"

#include "KXNavigationStack.h"

KXViewController::KXViewController(QWidget* parent) : QWidget(parent) {
    // A screen takes the focus itself when nothing inside it can, so the stack's keys work.
    setFocusPolicy(Qt::StrongFocus);
}

void KXViewController::setTitle(const QString& title) {
    title_ = title;
    emit navigationItemChanged();
}

void KXViewController::setLeftBarActions(QList<QAction*> actions) {
    left_ = std::move(actions);
    emit navigationItemChanged();
}

void KXViewController::setRightBarActions(QList<QAction*> actions) {
    right_ = std::move(actions);
    emit navigationItemChanged();
}

void KXViewController::setToolbar(QWidget* toolbar) {
    toolbar_ = toolbar;
    emit navigationItemChanged();
}

KXNavigationStack* KXViewController::navigationStack() const {
    return stack_.data();
}
