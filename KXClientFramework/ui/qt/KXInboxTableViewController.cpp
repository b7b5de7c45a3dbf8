#include "KXInboxTableViewController.h"

#include "KXFonts.h"
#include "KXModalWebViewController.h"
#include "KXNavigationStack.h"
#include "KXProgressOverlay.h"
#include "KXWebViewController.h"

#include <KXClientFramework/KXAlertPresenter.h>
#include <KXClientFramework/KXBadgeManager.h>
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxManager.h>
#include <KXClientFramework/KXInboxTimeText.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPlatform.h>

#include <QAbstractListModel>
#include <QApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QListView>
#include <QPainter>
#include <QPainterPath>
#include <QPointer>
#include <QScrollBar>
#include <QStyledItemDelegate>
#include <QTouchEvent>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>
#include <functional>

namespace {

const char* const kResourcePrefix = ":/com.brellix.KXClientFramework/";

QIcon frameworkImage(const char* name) {
    return QIcon(QString(kResourcePrefix) + name + ".svg");
}

QString text(const std::optional<std::string>& value) {
    return value ? QString::fromStdString(*value) : QString();
}

enum Role {
    SenderRole = Qt::UserRole + 1,
    TimeTextRole,
    ReadRole,
    EmptyCellRole,
};

}  // namespace

/// The rows of the inbox: one a loaded message, or the single empty cell once the first load
/// ended with nothing. It reads the screen's list; the screen changes that list only inside
/// the model's change brackets.
class KXInboxListModel final : public QAbstractListModel {
public:
    KXInboxListModel(const KXInboxMessages& messages, QObject* parent)
        : QAbstractListModel(parent), messages_(messages) {}

    bool initialLoadComplete = false;

    int rowCount(const QModelIndex& parent = {}) const override {
        if (parent.isValid()) {
            return 0;
        }
        return static_cast<int>(
            KXInboxScreenController::rowCount(initialLoadComplete, messages_.size()));
    }

    Qt::ItemFlags flags(const QModelIndex& index) const override {
        if (!index.isValid() || messages_.empty()) {
            return Qt::ItemIsEnabled;  // the empty cell has no selection highlight
        }
        return Qt::ItemIsEnabled | Qt::ItemIsSelectable;
    }

    QVariant data(const QModelIndex& index, int role) const override {
        if (!index.isValid()) {
            return {};
        }
        if (messages_.empty()) {
            if (role == EmptyCellRole) {
                return true;
            }
            if (role == Qt::DisplayRole || role == Qt::AccessibleTextRole) {
                return QString(KXInboxScreenController::kEmptyText).replace('\n', ' ');
            }
            return {};
        }
        const auto row = static_cast<std::size_t>(index.row());
        if (row >= messages_.size() || !messages_[row]) {
            return {};
        }
        const KXInboxMessage& message = *messages_[row];
        switch (role) {
            case Qt::DisplayRole:
                return text(message.title());
            case SenderRole:
                return text(message.sender());
            case TimeTextRole:
                return timeText(message);
            case ReadRole:
                return message.read();
            case EmptyCellRole:
                return false;
            case Qt::AccessibleTextRole:
                return QStringList{text(message.title()), text(message.sender()), timeText(message),
                                   message.read() ? "read" : "unread"}
                    .join(", ");
            default:
                return {};
        }
    }

    void resetWith(const std::function<void()>& change) {
        beginResetModel();
        change();
        endResetModel();
    }
    void removeRowWith(int row, const std::function<void()>& change) {
        beginRemoveRows({}, row, row);
        change();
        endRemoveRows();
    }
    void appendWith(int count, const std::function<void()>& change) {
        const int first = static_cast<int>(messages_.size());
        beginInsertRows({}, first, first + count - 1);
        change();
        endInsertRows();
    }
    void rowRestyled(int row) {
        const QModelIndex changed = index(row);
        emit dataChanged(changed, changed);
    }

private:
    static QString timeText(const KXInboxMessage& message) {
        return QString::fromStdString(KXInboxTimeText::textForTimestamp(
            message.timestamp(), KXPlatform::current().clock().now()));
    }

    const KXInboxMessages& messages_;
};

/// The table: Return or Enter acts on the current row as a tap does, and the empty cell keeps
/// filling the view when it is resized.
class KXInboxListView final : public QListView {
public:
    explicit KXInboxListView(QWidget* parent) : QListView(parent), pull_(new QLabel(this)) {
        viewport()->setAttribute(Qt::WA_AcceptTouchEvents);
        pull_->setObjectName("KXInboxPullIndicator");
        pull_->setAlignment(Qt::AlignCenter);
        pull_->setForegroundRole(QPalette::PlaceholderText);
        pull_->hide();
    }

    std::function<void(const QModelIndex&)> onTrigger;
    /// A touch pulled the list down past its top far enough and let go.
    std::function<void()> onPullRefresh;

protected:
    bool viewportEvent(QEvent* event) override {
        switch (event->type()) {
            case QEvent::TouchBegin:
            case QEvent::TouchUpdate:
            case QEvent::TouchEnd:
            case QEvent::TouchCancel:
                touchEvent(static_cast<QTouchEvent*>(event));
                return true;
            default:
                return QListView::viewportEvent(event);
        }
    }

    void keyPressEvent(QKeyEvent* event) override {
        if ((event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) &&
            currentIndex().isValid() && onTrigger) {
            onTrigger(currentIndex());
            return;
        }
        QListView::keyPressEvent(event);
    }

    void resizeEvent(QResizeEvent* event) override {
        QListView::resizeEvent(event);
        scheduleDelayedItemsLayout();
    }

private:
    /// One finger on the list: a drag scrolls it, pulling past the top opens a gap with the
    /// indicator above the rows, and a touch that never moved is a tap on its row. The touch
    /// events are taken whole, so Qt synthesises no mouse events from them.
    struct Touch {
        QPointF start;       // global, since the viewport moves while the gap opens
        QPoint startInView;  // in the viewport, for a tap
        int startValue = 0;
        bool dragging = false;
        double pastTop = 0;  // how far the content was pulled below its top
    };

    void touchEvent(QTouchEvent* event) {
        event->accept();
        if (event->type() == QEvent::TouchCancel || event->points().isEmpty()) {
            touch_.reset();
            showPull(0);
            return;
        }
        const QEventPoint& point = event->points().constFirst();
        QScrollBar* bar = verticalScrollBar();
        if (event->type() == QEvent::TouchBegin) {
            touch_ = Touch{point.globalPosition(), point.position().toPoint(), bar->value()};
            return;
        }
        if (!touch_) {
            return;
        }
        const QPointF moved = point.globalPosition() - touch_->start;
        if (!touch_->dragging && moved.manhattanLength() >= QApplication::startDragDistance()) {
            touch_->dragging = true;
        }
        if (touch_->dragging) {
            const double top = touch_->startValue - moved.y();
            bar->setValue(
                std::clamp(static_cast<int>(std::lround(top)), bar->minimum(), bar->maximum()));
            touch_->pastTop = bar->minimum() - top;
            showPull(touch_->pastTop);
        }
        if (event->type() != QEvent::TouchEnd) {
            return;
        }
        const Touch ended = *touch_;
        touch_.reset();
        showPull(0);
        if (ended.dragging) {
            if (KXInboxScreenController::refreshesOnRelease(ended.pastTop) && onPullRefresh) {
                onPullRefresh();
            }
            return;
        }
        const QModelIndex index = indexAt(ended.startInView);
        if (index.isValid() && onTrigger) {
            selectionModel()->setCurrentIndex(index, QItemSelectionModel::NoUpdate);
            onTrigger(index);
        }
    }

    void showPull(double pastTop) {
        const int gap =
            pastTop <= 0
                ? 0
                : static_cast<int>(std::min(pastTop, KXInboxScreenController::kPullMaximumGap));
        setViewportMargins(0, gap, 0, 0);
        pull_->setVisible(gap > 0);
        if (gap > 0) {
            pull_->setText(KXInboxScreenController::refreshesOnRelease(pastTop)
                               ? KXInboxScreenController::kReleaseToRefreshText
                               : KXInboxScreenController::kPullToRefreshText);
            pull_->setGeometry(0, 0, width(), gap);
        }
    }

    std::optional<Touch> touch_;
    QLabel* pull_;
};

/// Fonts of the rows: the screen's overrides, else the phone faces mapped by kxFont.
struct KXInboxRowFonts {
    std::optional<QFont> title;
    std::optional<QFont> detail;
    std::optional<QFont> boldTitle;
    std::optional<QFont> boldDetail;

    QFont titleFont(bool read) const {
        const auto& chosen = read ? title : boldTitle;
        return chosen ? *chosen : kxFont(read ? "HelveticaNeue-Light" : "HelveticaNeue-Medium", 14);
    }
    QFont detailFont(bool read) const {
        const auto& chosen = read ? detail : boldDetail;
        return chosen ? *chosen : kxFont(read ? "HelveticaNeue-Light" : "HelveticaNeue-Medium", 10);
    }
};

namespace {

const QColor kUnreadBackground = QColor::fromRgbF(214.0F / 255.0F, 235.0F / 255.0F, 1.0F, 1.0F);
const QColor kEmptyTextColour(170, 170, 170);  // the phone's light grey (two thirds white)
constexpr int kMargin = 12;
constexpr int kImageSize = 22;
constexpr int kSelectionMarkWidth = 34;

/// Paints a message row as the phone's subtitle cell (envelope, title over sender, the time at
/// the right) and the empty cell's four centred lines.
class KXInboxRowDelegate final : public QStyledItemDelegate {
public:
    KXInboxRowDelegate(const KXInboxRowFonts& fonts, const bool& editing, QListView* view)
        : QStyledItemDelegate(view),
          fonts_(fonts),
          editing_(editing),
          view_(view),
          read_(frameworkImage(KXInboxScreenController::kReadImage)),
          unread_(frameworkImage(KXInboxScreenController::kUnreadImage)) {}

    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override {
        const bool empty = index.data(EmptyCellRole).toBool();
        const double height = KXInboxScreenController::rowHeight(
            empty ? 0 : 1, static_cast<double>(view_->viewport()->height()));
        return {option.rect.width(), static_cast<int>(height)};
    }

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override {
        painter->save();
        painter->setRenderHint(QPainter::Antialiasing);
        if (index.data(EmptyCellRole).toBool()) {
            paintEmptyCell(painter, option.rect);
        } else {
            paintMessage(painter, option, index);
        }
        painter->restore();
    }

private:
    void paintMessage(QPainter* painter, const QStyleOptionViewItem& option,
                      const QModelIndex& index) const {
        const bool read = index.data(ReadRole).toBool();
        const bool selected = (option.state & QStyle::State_Selected) != 0;
        QRect rect = option.rect;
        painter->fillRect(rect, read ? QColor(Qt::white) : kUnreadBackground);
        if (selected) {
            QColor highlight = option.palette.color(QPalette::Highlight);
            highlight.setAlpha(60);
            painter->fillRect(rect, highlight);
        }
        if (editing_) {
            const QRect mark(rect.left() + kMargin, rect.center().y() - 10, 20, 20);
            painter->setPen(
                QPen(selected ? option.palette.color(QPalette::Highlight) : QColor(Qt::gray), 1.5));
            painter->setBrush(selected ? option.palette.color(QPalette::Highlight) : Qt::NoBrush);
            painter->drawEllipse(mark);
            if (selected) {
                QPainterPath tick;
                tick.moveTo(mark.left() + 5, mark.center().y());
                tick.lineTo(mark.left() + 9, mark.bottom() - 5);
                tick.lineTo(mark.right() - 4, mark.top() + 6);
                painter->setPen(QPen(Qt::white, 2));
                painter->setBrush(Qt::NoBrush);
                painter->drawPath(tick);
            }
            rect.setLeft(rect.left() + kSelectionMarkWidth);
        }

        const QRect image(rect.left() + kMargin, rect.center().y() - kImageSize / 2, kImageSize,
                          kImageSize);
        (read ? read_ : unread_).paint(painter, image);

        const QFont titleFont = fonts_.titleFont(read);
        const QFont detailFont = fonts_.detailFont(read);
        const QString time = index.data(TimeTextRole).toString();
        const int timeWidth = QFontMetrics(detailFont).horizontalAdvance(time);
        const int right = rect.right() - kMargin;
        const int textLeft = image.right() + kMargin;
        const int textWidth = std::max(0, right - timeWidth - kMargin - textLeft);

        painter->setPen(QColor(Qt::black));
        painter->setFont(detailFont);
        painter->drawText(QRect(right - timeWidth, rect.top(), timeWidth, rect.height()),
                          Qt::AlignRight | Qt::AlignVCenter, time);

        const QFontMetrics titleMetrics(titleFont);
        const QFontMetrics detailMetrics(detailFont);
        const int block = titleMetrics.height() + detailMetrics.height();
        const int top = rect.top() + (rect.height() - block) / 2;
        painter->setFont(titleFont);
        painter->drawText(
            QRect(textLeft, top, textWidth, titleMetrics.height()),
            Qt::AlignLeft | Qt::AlignVCenter,
            titleMetrics.elidedText(index.data().toString(), Qt::ElideRight, textWidth));
        painter->setFont(detailFont);
        painter->drawText(
            QRect(textLeft, top + titleMetrics.height(), textWidth, detailMetrics.height()),
            Qt::AlignLeft | Qt::AlignVCenter,
            detailMetrics.elidedText(index.data(SenderRole).toString(), Qt::ElideRight, textWidth));
        if ((option.state & QStyle::State_HasFocus) != 0) {
            painter->setPen(QPen(option.palette.color(QPalette::Highlight), 1, Qt::DotLine));
            painter->setBrush(Qt::NoBrush);
            painter->drawRect(option.rect.adjusted(1, 1, -2, -2));
        }
    }

    // Four lines of 32 pixels, centred, the block's centre 40 above the cell's.
    static void paintEmptyCell(QPainter* painter, const QRect& rect) {
        painter->fillRect(rect, Qt::white);
        QFont font = kxFont("Helvetica", 28);
        font.setLetterSpacing(QFont::AbsoluteSpacing, -0.5);
        painter->setFont(font);
        painter->setPen(kEmptyTextColour);
        const QStringList lines = QString(KXInboxScreenController::kEmptyText).split('\n');
        constexpr int kLineHeight = 32;
        const int block = static_cast<int>(lines.size()) * kLineHeight;
        int y = rect.center().y() - 40 - block / 2;
        for (const QString& line : lines) {
            painter->drawText(QRect(rect.left(), y, rect.width(), kLineHeight), Qt::AlignCenter,
                              line);
            y += kLineHeight;
        }
    }

    const KXInboxRowFonts& fonts_;
    const bool& editing_;
    QListView* view_;
    QIcon read_;
    QIcon unread_;
};

}  // namespace

KXInboxTableViewController::KXInboxTableViewController(QWidget* parent)
    : KXTableViewController(parent),
      fonts_(std::make_unique<KXInboxRowFonts>()),
      model_(new KXInboxListModel(messages_, this)),
      view_(new KXInboxListView(this)),
      edit_(new QAction(KXInboxScreenController::kEditTitle, this)),
      cancel_(new QAction(KXInboxScreenController::kCancelTitle, this)),
      delete_(new QAction(KXInboxScreenController::kDeleteTitle, this)),
      refresh_(new QAction("Refresh", this)) {
    setObjectName("KXInboxTableViewController");
    setTitle(KXInboxScreenController::kTitle);
    setAccessibleName(KXInboxScreenController::kTitle);
    setWindowIcon(tabBarIcon());

    view_->setObjectName("KXInboxTableView");
    view_->setAccessibleName("Inbox messages");
    view_->setModel(model_);
    view_->setItemDelegate(new KXInboxRowDelegate(*fonts_, screen_.editing, view_));
    view_->setSelectionMode(QAbstractItemView::NoSelection);
    view_->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    view_->setUniformItemSizes(true);
    view_->setFrameShape(QFrame::NoFrame);
    view_->setSpacing(0);  // no separators
    view_->onTrigger = [this](const QModelIndex& index) { selectRow(index.row()); };
    view_->onPullRefresh = [this] { refresh_->trigger(); };
    connect(view_, &QListView::clicked, this,
            [this](const QModelIndex& index) { rowClicked(index.row()); });
    connect(view_->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            [this](const QItemSelection& selected, const QItemSelection& deselected) {
                auto rows = [](const QItemSelection& selection) {
                    QList<int> list;
                    for (const QModelIndex& index : selection.indexes()) {
                        list.push_back(index.row());
                    }
                    return list;
                };
                selectionChanged(rows(selected), rows(deselected));
            });
    connect(view_->verticalScrollBar(), &QScrollBar::valueChanged, this,
            &KXInboxTableViewController::scrollViewDidScroll);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(view_);
    setFocusProxy(view_);

    edit_->setObjectName("KXInboxEditButton");
    edit_->setShortcut(QKeySequence("Ctrl+E"));
    cancel_->setObjectName("KXInboxCancelButton");
    cancel_->setShortcut(QKeySequence(Qt::Key_Escape));
    delete_->setObjectName("KXInboxDeleteButton");
    delete_->setShortcut(QKeySequence::Delete);
    refresh_->setObjectName("KXInboxRefreshAction");
    refresh_->setShortcut(QKeySequence::Refresh);
    for (QAction* action : {edit_, cancel_, delete_, refresh_}) {
        action->setShortcutContext(Qt::WidgetWithChildrenShortcut);
        addAction(action);
    }
    // Shortcuts of actions not on the bar must not act.
    cancel_->setEnabled(false);
    delete_->setEnabled(false);
    edit_->setEnabled(false);
    connect(edit_, &QAction::triggered, this, &KXInboxTableViewController::editAction);
    connect(cancel_, &QAction::triggered, this, &KXInboxTableViewController::cancelAction);
    connect(delete_, &QAction::triggered, this, &KXInboxTableViewController::deleteAction);
    connect(refresh_, &QAction::triggered, this, &KXInboxTableViewController::refreshTable);
}

KXInboxTableViewController::~KXInboxTableViewController() = default;

void KXInboxTableViewController::setInboxDomainId(std::optional<std::string> inboxDomainId) {
    inboxDomainId_ = std::move(inboxDomainId);
}

void KXInboxTableViewController::setTextLabelFont(std::optional<QFont> font) {
    fonts_->title = std::move(font);
    view_->viewport()->update();
}
void KXInboxTableViewController::setDetailTextLabelFont(std::optional<QFont> font) {
    fonts_->detail = std::move(font);
    view_->viewport()->update();
}
void KXInboxTableViewController::setTextLabelBoldFont(std::optional<QFont> font) {
    fonts_->boldTitle = std::move(font);
    view_->viewport()->update();
}
void KXInboxTableViewController::setDetailTextLabelBoldFont(std::optional<QFont> font) {
    fonts_->boldDetail = std::move(font);
    view_->viewport()->update();
}

QIcon KXInboxTableViewController::tabBarIcon() const {
    return frameworkImage(KXInboxScreenController::kTabImage);
}

QListView* KXInboxTableViewController::tableView() const {
    return view_;
}

QAbstractItemModel* KXInboxTableViewController::model() const {
    return model_;
}

void KXInboxTableViewController::showEvent(QShowEvent* event) {
    KXTableViewController::showEvent(event);
    // A stack tells its screens themselves; a screen standing alone appears when shown.
    if (navigationStack() == nullptr && !event->spontaneous()) {
        viewWillAppear();
    }
}

void KXInboxTableViewController::viewDidLoad() {
    loaded_ = true;
    if (inboxDomainId_) {
        KXInboxManager::fetchInboxSummaryWithId(
            inboxDomainId_,
            [domain = *inboxDomainId_](const std::shared_ptr<KXInboxSummary>&) {
                KX_LOG_DEBUG("KXInboxDomain: {}", domain);
            },
            {});
    }
}

void KXInboxTableViewController::viewWillAppear() {
    if (!loaded_) {
        viewDidLoad();
    }
    screen_.pageForAppearance();
    fetchInboxMessages();
}

void KXInboxTableViewController::fetchInboxMessages() {
    showHUD(true);
    QPointer<KXInboxTableViewController> self(this);
    KXInbox::shared().fetchWithPageNumber(
        screen_.paging.currentPage, KXInboxScreenController::kPageLimit, inboxDomainId_,
        [self](const std::optional<KXInboxMessages>& page, bool more) {
            if (!self) {
                return;
            }
            self->screen_.loadFinished(true, more);
            self->model_->resetWith([&] {
                self->model_->initialLoadComplete = true;
                self->selectionOrder_.clear();
                self->messages_ = page.value_or(KXInboxMessages{});
            });
            const auto& summary = KXInbox::shared().summary();
            if (KXInboxScreenController::deletionAllowed(summary->inboxDomainId(),
                                                         summary->deleteByGuestForbidden())) {
                self->updateButtonsToMatchTableState();
            }
            self->showHUD(false);
        },
        [self](const KXError&) {
            if (!self) {
                return;
            }
            self->screen_.loadFinished(false, false);
            self->showHUD(false);
            self->model_->resetWith([&] { self->model_->initialLoadComplete = true; });
        });
}

void KXInboxTableViewController::fetchMoreMessages() {
    const long page = screen_.paging.beginNextPage();
    showHUD(true);
    QPointer<KXInboxTableViewController> self(this);
    KXInbox::shared().fetchWithPageNumber(
        page, KXInboxScreenController::kPageLimit, inboxDomainId_,
        [self](const std::optional<KXInboxMessages>& more, bool hasMore) {
            if (!self) {
                return;
            }
            self->showHUD(false);
            self->screen_.paging.nextPageFinished(true, hasMore);
            if (more && !more->empty()) {
                if (self->messages_.empty()) {
                    self->model_->resetWith([&] { self->messages_ = *more; });
                } else {
                    self->model_->appendWith(static_cast<int>(more->size()), [&] {
                        self->messages_.insert(self->messages_.end(), more->begin(), more->end());
                    });
                }
            }
        },
        [self](const KXError&) {
            if (!self) {
                return;
            }
            self->screen_.paging.nextPageFinished(false, false);
            self->showHUD(false);
        });
}

void KXInboxTableViewController::refreshTable() {
    fetchInboxMessages();
}

void KXInboxTableViewController::scrollViewDidScroll() {
    const QScrollBar* bar = view_->verticalScrollBar();
    const auto viewHeight = static_cast<double>(view_->viewport()->height());
    // With per-pixel scrolling the bar's range is the content height less the view's.
    const double contentHeight = static_cast<double>(bar->maximum()) + viewHeight;
    if (screen_.paging.shouldFetchMore(bar->value(), contentHeight, viewHeight)) {
        fetchMoreMessages();
    }
}

void KXInboxTableViewController::editAction() {
    screen_.editing = true;
    view_->setSelectionMode(QAbstractItemView::MultiSelection);
    view_->viewport()->update();
    updateButtonsToMatchTableState();
}

void KXInboxTableViewController::cancelAction() {
    screen_.editing = false;
    view_->clearSelection();
    view_->setSelectionMode(QAbstractItemView::NoSelection);
    view_->viewport()->update();
    updateButtonsToMatchTableState();
}

void KXInboxTableViewController::updateButtonsToMatchTableState() {
    const KXInboxBarButtons bar = screen_.barButtons(messages_.size());
    auto actionFor = [this](KXInboxBarButton button) -> QAction* {
        switch (button) {
            case KXInboxBarButton::Edit:
                return edit_;
            case KXInboxBarButton::Cancel:
                return cancel_;
            case KXInboxBarButton::Delete:
                return delete_;
            case KXInboxBarButton::None:
                break;
        }
        return nullptr;
    };
    QAction* left = actionFor(bar.left);
    QAction* right = actionFor(bar.right);
    if (screen_.editing) {
        updateDeleteButtonTitle();
    }
    edit_->setEnabled(right == edit_ && bar.editEnabled);
    cancel_->setEnabled(right == cancel_);
    delete_->setEnabled(left == delete_);
    setLeftBarActions(left != nullptr ? QList<QAction*>{left} : QList<QAction*>{});
    setRightBarActions(right != nullptr ? QList<QAction*>{right} : QList<QAction*>{});
}

void KXInboxTableViewController::updateDeleteButtonTitle() {
    delete_->setText(QString::fromStdString(
        KXInboxScreenController::deleteButtonTitle(selectionOrder_.size(), messages_.size())));
    emit navigationItemChanged();
}

void KXInboxTableViewController::selectionChanged(const QList<int>& selected,
                                                  const QList<int>& deselected) {
    for (int row : deselected) {
        std::erase(selectionOrder_, static_cast<std::size_t>(row));
    }
    for (int row : selected) {
        selectionOrder_.push_back(static_cast<std::size_t>(row));
    }
    if (!screen_.editing) {
        return;
    }
    if (!selected.isEmpty()) {
        updateButtonsToMatchTableState();
    } else {
        updateDeleteButtonTitle();
    }
}

void KXInboxTableViewController::deleteAction() {
    if (!screen_.editing) {
        return;
    }
    KXAlert sheet;
    sheet.title = KXInboxScreenController::deleteConfirmationTitle(selectionOrder_.size());
    sheet.buttons = {KXInboxScreenController::kConfirmButtonTitle,
                     KXInboxScreenController::kCancelTitle};
    sheet.style = KXAlertStyle::ActionSheet;
    sheet.destructiveButton = 0;
    sheet.cancelButton = 1;
    QPointer<KXInboxTableViewController> self(this);
    sheet.onDismiss = [self](std::size_t button) {
        // Only the first button ("OK") acts.
        if (self && button == 0) {
            self->deleteConfirmed();
        }
    };
    KXPlatform::current().alertPresenter().present(sheet);
}

void KXInboxTableViewController::deleteConfirmed() {
    std::vector<std::size_t> rows =
        KXInboxScreenController::rowsToDelete(selectionOrder_, messages_.size());
    KXInboxMessages doomed;
    for (std::size_t row : rows) {
        doomed.push_back(messages_[row]);
    }
    // The list changes at once; the service's answers are not waited for, nor reported.
    KXInbox::shared().deleteMessageDetailsArray(doomed, inboxDomainId_, {}, {});
    view_->clearSelection();
    selectionOrder_.clear();
    if (rows.size() == messages_.size()) {
        model_->resetWith([this] { messages_.clear(); });
    } else {
        std::sort(rows.begin(), rows.end(), std::greater<>());
        for (std::size_t row : rows) {
            model_->removeRowWith(static_cast<int>(row), [this, row] {
                messages_.erase(messages_.begin() + static_cast<std::ptrdiff_t>(row));
            });
        }
    }
    screen_.deletionConfirmed();
    view_->setSelectionMode(QAbstractItemView::NoSelection);
    view_->viewport()->update();
    updateButtonsToMatchTableState();
}

void KXInboxTableViewController::selectRow(int row) {
    if (screen_.editing && row >= 0 && row < model_->rowCount()) {
        view_->selectionModel()->select(model_->index(row), QItemSelectionModel::Toggle);
    }
    rowClicked(row);
}

void KXInboxTableViewController::rowClicked(int row) {
    // While editing, the view has already toggled the row's selection.
    switch (screen_.tapAction(messages_.size())) {
        case KXInboxTapAction::Nothing:
            return;
        case KXInboxTapAction::UpdateButtons:
            updateButtonsToMatchTableState();
            return;
        case KXInboxTapAction::OpenMessage:
            openMessage(row);
            return;
    }
}

void KXInboxTableViewController::openMessage(int row) {
    if (row < 0 || static_cast<std::size_t>(row) >= messages_.size()) {
        return;
    }
    std::shared_ptr<KXInboxMessage> message = messages_[static_cast<std::size_t>(row)];
    view_->clearSelection();
    message->markAsRead();
    QPointer<KXInboxTableViewController> self(this);
    // No inbox domain on purpose: the details come from the configured domain.
    KXInboxManager::fetchMessageDetailsWithMessage(
        message, std::string(),
        [self, message](const std::shared_ptr<KXInboxMessage>& details) {
            if (!self) {
                return;
            }
            const std::shared_ptr<KXInboxMessage>& shown = details ? details : message;
            const bool html = KXInboxScreenController::isHTMLContent(shown->contentType());
            const QString content = text(shown->content());
            KXApplication& application = KXPlatform::current().application();
            KXBadgeManager::setBadgeNumber(KXInboxScreenController::badgeAfterOpening(
                application.applicationIconBadgeNumber()));
            // The row turns read once the message is shown, whatever flag the details' header
            // carried from before the message was marked.
            auto restyle = [self, message] {
                message->setRead(true);
                if (!self) {
                    return;
                }
                const auto found =
                    std::find(self->messages_.begin(), self->messages_.end(), message);
                if (found != self->messages_.end()) {
                    self->model_->rowRestyled(static_cast<int>(found - self->messages_.begin()));
                }
            };
            if (KXNavigationStack* stack = self->navigationStack()) {
                stack->push(html ? KXWebViewController::withHTML(shown, content)
                                 : KXWebViewController::withText(shown, content));
                restyle();
            } else {
                auto* modal = html ? KXModalWebViewController::withHTML(content)
                                   : KXModalWebViewController::withText(content);
                modal->present(self, restyle);
            }
            emit self->messageOpened(message);
        },
        [self](const KXError&) {
            if (!self) {
                return;
            }
            KXPlatform::current().alertPresenter().present(
                {KXInboxScreenController::kErrorTitle,
                 KXInboxScreenController::kErrorMessage,
                 {KXInboxScreenController::kErrorButton}});
        });
}
