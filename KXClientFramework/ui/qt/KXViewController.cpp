#include "KXViewController.h"

KXViewController::KXViewController(QWidget* parent) : QWidget(parent) {}

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
