#include "KXNavigationStack.h"

#include "KXViewController.h"

#include <QAction>
#include <QHBoxLayout>
#include <QShortcut>
#include <QVBoxLayout>

KXNavigationStack::KXNavigationStack(KXViewController* root, QWidget* parent)
    : QWidget(parent),
      bar_(new QWidget(this)),
      leftBox_(new QHBoxLayout),
      rightBox_(new QHBoxLayout),
      back_(new QToolButton(bar_)),
      title_(new QLabel(bar_)),
      pages_(new QStackedWidget(this)),
      toolbarBox_(new QVBoxLayout) {
    setObjectName("KXNavigationStack");
    bar_->setObjectName("KXNavigationBar");
    bar_->setAccessibleName("Navigation bar");
    bar_->setAutoFillBackground(true);
    back_->setText(QString::fromUtf8("\u2039 Back"));
    back_->setAccessibleName("Back");
    back_->setToolTip("Back (Alt+Left)");
    back_->setAutoRaise(true);
    connect(back_, &QToolButton::clicked, this, &KXNavigationStack::pop);
    title_->setAlignment(Qt::AlignCenter);
    title_->setAccessibleName("Title");
    QFont titleFont = title_->font();
    titleFont.setBold(true);
    title_->setFont(titleFont);

    auto* barLayout = new QHBoxLayout(bar_);
    barLayout->setContentsMargins(8, 4, 8, 4);
    barLayout->addWidget(back_);
    barLayout->addLayout(leftBox_);
    barLayout->addWidget(title_, 1);
    barLayout->addLayout(rightBox_);
    bar_->setMinimumHeight(44);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(bar_);
    layout->addWidget(pages_, 1);
    layout->addLayout(toolbarBox_);

    // One shortcut a key: the platform's Back is Alt+Left on most desktops, and two shortcuts
    // with the same key would cancel each other out.
    for (const QKeySequence& keys : {QKeySequence("Alt+Left"), QKeySequence(Qt::Key_Back)}) {
        auto* shortcut = new QShortcut(keys, this);
        shortcut->setContext(Qt::WidgetWithChildrenShortcut);
        connect(shortcut, &QShortcut::activated, this, &KXNavigationStack::pop);
    }
    if (root != nullptr) {
        push(root);
    }
}

KXNavigationStack::~KXNavigationStack() = default;

void KXNavigationStack::push(KXViewController* screen) {
    if (screen == nullptr) {
        return;
    }
    if (KXViewController* top = topScreen()) {
        top->viewWillDisappear();
    }
    screen->stack_ = this;
    screens_.push_back(screen);
    pages_->addWidget(screen);
    connect(screen, &KXViewController::navigationItemChanged, this, [this, screen] {
        if (screen == topScreen()) {
            rebuildBar();
        }
    });
    showTop();
    if (screens_.size() > 1) {
        screens_[screens_.size() - 2]->viewDidDisappear();
    }
}

void KXNavigationStack::pop() {
    if (screens_.size() < 2) {
        return;
    }
    KXViewController* leaving = screens_.takeLast();
    leaving->viewWillDisappear();
    showTop();
    pages_->removeWidget(leaving);
    leaving->viewDidDisappear();
    leaving->hide();
    leaving->deleteLater();
}

KXViewController* KXNavigationStack::topScreen() const {
    return screens_.isEmpty() ? nullptr : screens_.last();
}

void KXNavigationStack::showTop() {
    KXViewController* top = topScreen();
    if (top == nullptr) {
        return;
    }
    top->viewWillAppear();
    pages_->setCurrentWidget(top);
    rebuildBar();
    top->setFocus();
    emit topScreenChanged(top);
}

void KXNavigationStack::rebuildBar() {
    for (QToolButton* button : buttons_) {
        button->hide();
        button->deleteLater();
    }
    buttons_.clear();
    KXViewController* top = topScreen();
    back_->setVisible(screens_.size() > 1);
    title_->setText(top != nullptr ? top->title() : QString());
    if (shownToolbar_) {
        toolbarBox_->removeWidget(shownToolbar_);
        shownToolbar_->hide();
    }
    shownToolbar_ = nullptr;
    if (top == nullptr) {
        return;
    }
    auto addButtons = [this](QHBoxLayout* box, const QList<QAction*>& actions) {
        for (QAction* action : actions) {
            auto* button = new QToolButton(bar_);
            button->setObjectName("KXBarButton");
            button->setDefaultAction(action);
            button->setAutoRaise(true);
            button->setAccessibleName(action->text());
            box->addWidget(button);
            buttons_.push_back(button);
        }
    };
    addButtons(leftBox_, top->leftBarActions());
    addButtons(rightBox_, top->rightBarActions());
    if (QWidget* toolbar = top->toolbar()) {
        toolbarBox_->addWidget(toolbar);
        toolbar->show();
        shownToolbar_ = toolbar;
    }
}

void KXNavigationStack::present(QWidget* over, std::function<void()> shown) {
    auto* dialog = new QDialog(over != nullptr ? over->window() : nullptr);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowModality(Qt::WindowModal);
    dialog->setWindowTitle(topScreen() != nullptr ? topScreen()->title() : QString());
    dialog->resize(over != nullptr ? over->window()->size() : QSize(480, 640));
    auto* layout = new QVBoxLayout(dialog);
    layout->setContentsMargins(0, 0, 0, 0);
    setParent(dialog);
    layout->addWidget(this);
    presentation_ = dialog;
    connect(dialog, &QDialog::finished, this, [this] { emit dismissed(); });
    // The screens now know they were presented; they may change their bar.
    showTop();
    dialog->open();
    if (shown) {
        shown();
    }
}

void KXNavigationStack::dismiss() {
    if (presentation_) {
        presentation_->close();
    }
}
