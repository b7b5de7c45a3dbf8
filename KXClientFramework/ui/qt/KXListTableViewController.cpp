#include "KXListTableViewController.h"

#include "KXFonts.h"
#include "KXProgressOverlay.h"

#include <KXClientFramework/KXAlertPresenter.h>
#include <KXClientFramework/KXChannel.h>
#include <KXClientFramework/KXDeliveryMembership.h>
#include <KXClientFramework/KXDeliveryProfile.h>
#include <KXClientFramework/KXGuestManager.h>
#include <KXClientFramework/KXListManager.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPlatform.h>

#include <QHBoxLayout>
#include <QInputDialog>
#include <QLabel>
#include <QPointer>
#include <QScrollArea>
#include <QScrollBar>
#include <QShowEvent>
#include <QVBoxLayout>

#include <fmt/ranges.h>

namespace {

QColor colourOf(KXListColour colour) {
    switch (colour) {
        case KXListColour::White:
            return Qt::white;
        case KXListColour::Yellow:
            return Qt::yellow;
        case KXListColour::Green:
            return Qt::green;
        case KXListColour::LightGrey:
            return {170, 170, 170};  // the phone's light grey
        case KXListColour::Blue:
            return Qt::blue;
        case KXListColour::Default:
            break;
    }
    return {};
}

std::string profileIds(const std::shared_ptr<KXGuest>& guest) {
    std::vector<std::string> ids;
    if (guest && guest->deliveryProfiles()) {
        for (const auto& profile : *guest->deliveryProfiles()) {
            ids.push_back(profile ? profile->profileId().value_or("") : "");
        }
    }
    return fmt::format("({})", fmt::join(ids, ", "));
}

// The empty cell: four centred light grey lines of 32 pixels, 40 above the middle.
QLabel* makeEmptyCell(const QString& text, int height) {
    auto* label = new QLabel;
    label->setObjectName("KXListEmptyCell");
    QFont font = kxFont("Helvetica", 28);
    font.setLetterSpacing(QFont::AbsoluteSpacing, -0.5);
    label->setFont(font);
    label->setAlignment(Qt::AlignCenter);
    label->setTextFormat(Qt::RichText);
    label->setText("<div style='line-height:32px; color:#aaaaaa'>" +
                   text.toHtmlEscaped().replace('\n', "<br>") + "</div>");
    label->setAccessibleName(QString(text).replace('\n', ' '));
    label->setMinimumHeight(height);
    label->setContentsMargins(0, 0, 0, 80);
    label->setStyleSheet("background: white");
    return label;
}

}  // namespace

KXListTableViewController::KXListTableViewController(std::string externalId, QWidget* parent)
    : KXTableViewController(parent),
      externalId_(std::move(externalId)),
      scroll_(new QScrollArea(this)),
      filter_(new QAction(KXListScreenController::kFilterButtonTitle, this)),
      refresh_(new QAction("Refresh", this)) {
    setObjectName("KXListTableViewController");
    setAccessibleName("Subscription lists");
    scroll_->setObjectName("KXListTableView");
    scroll_->setWidgetResizable(true);
    scroll_->setFrameShape(QFrame::NoFrame);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(makeHeader());
    layout->addWidget(scroll_);
    connect(scroll_->verticalScrollBar(), &QScrollBar::valueChanged, this,
            &KXListTableViewController::scrollViewDidScroll);

    filter_->setObjectName("KXListFilterButton");
    filter_->setToolTip(KXListScreenController::kFilterButtonAccessibilityLabel);
    filter_->setShortcut(QKeySequence::Find);
    refresh_->setObjectName("KXListRefreshAction");
    refresh_->setShortcut(QKeySequence::Refresh);
    for (QAction* action : {filter_, refresh_}) {
        action->setShortcutContext(Qt::WidgetWithChildrenShortcut);
        addAction(action);
    }
    connect(filter_, &QAction::triggered, this, &KXListTableViewController::filterListPressed);
    connect(refresh_, &QAction::triggered, this, &KXListTableViewController::refreshListFilter);
    reloadData();
}

KXListTableViewController::~KXListTableViewController() = default;

QWidget* KXListTableViewController::makeHeader() {
    auto* header = new QWidget;
    header->setObjectName("KXListHeader");
    header->setFixedHeight(static_cast<int>(KXListScreenController::kHeaderHeight));
    header->setAutoFillBackground(true);
    QPalette palette = header->palette();
    palette.setColor(QPalette::Window, Qt::white);
    header->setPalette(palette);
    auto* row = new QHBoxLayout(header);
    row->setContentsMargins(15, 5, 15, 5);
    for (const char* text :
         {KXListScreenController::kNameHeader, KXListScreenController::kSubscribedHeader}) {
        auto* label = new QLabel(text);
        label->setFont(kxFont("HelveticaNeue", 12));
        row->addWidget(label);
        if (text == KXListScreenController::kNameHeader) {
            row->addStretch();
        }
    }
    return header;
}

void KXListTableViewController::setDeliveryProfileId(const std::string& deliveryProfileId) {
    screen_.setDeliveryProfileId(deliveryProfileId);
}
void KXListTableViewController::addAffectedProfile(const std::string& profileId) {
    screen_.addAffectedProfile(profileId);
}
void KXListTableViewController::clearAffectedProfiles() {
    screen_.clearAffectedProfiles();
}

void KXListTableViewController::setFont(std::optional<QFont> font) {
    font_ = std::move(font);
    reloadData();
}

void KXListTableViewController::setAlternateTableViewCellColor(
    const std::optional<QColor>& colour) {
    alternateColour_ = colour;
    reloadData();
}

void KXListTableViewController::showEvent(QShowEvent* event) {
    KXTableViewController::showEvent(event);
    if (navigationStack() == nullptr && !event->spontaneous()) {
        viewWillAppear();
    }
}

void KXListTableViewController::viewWillAppear() {
    if (auto guest = KXGuest::currentGuest()) {
        externalId_ = guest->externalId().value_or("");
    }
    fetchBussinessUnitList();
    setRightBarActions({filter_});
}

void KXListTableViewController::viewWillDisappear() {
    screen_.tag.clear();
    screen_.setDeliveryProfileId("");
}

void KXListTableViewController::fetchBussinessUnitList() {
    const long page = screen_.beginFirstPage();
    showHUD(true);
    KX_LOG_DEBUG("Fetching list page: {}", page);
    QPointer<KXListTableViewController> self(this);
    KXListManager::fetchListsWithTag(
        screen_.tag, page, KXListScreenController::kPageLimit,
        [self](const std::optional<KXLists>& lists, bool more) {
            if (!self) {
                return;
            }
            self->screen_.paging.hasMoreRecords = more;
            self->screen_.paging.initialLoadComplete = true;
            self->lists_ = lists.value_or(KXLists{});
            self->fetchGuest();
        },
        [self](const KXError& error) {
            KX_LOG_ERROR("Error: {}", error.localizedDescription());
            if (!self) {
                return;
            }
            self->screen_.paging.initialLoadComplete = true;
            self->showHUD(false);
            self->reloadData();
        });
}

void KXListTableViewController::fetchMoreBusinessUnitLists() {
    const long page = screen_.paging.beginNextPage();
    showHUD(true);
    KX_LOG_DEBUG("Fetching list page: {}", page);
    QPointer<KXListTableViewController> self(this);
    KXListManager::fetchListsWithTag(
        screen_.tag, page, KXListScreenController::kPageLimit,
        [self](const std::optional<KXLists>& lists, bool more) {
            if (!self) {
                return;
            }
            self->screen_.paging.nextPageFinished(true, more);
            if (lists) {
                self->lists_.insert(self->lists_.end(), lists->begin(), lists->end());
            }
            self->fetchGuest();
        },
        [self](const KXError& error) {
            KX_LOG_ERROR("Error: {}", error.localizedDescription());
            if (!self) {
                return;
            }
            self->screen_.paging.nextPageFinished(false, false);
            self->showHUD(false);
            self->reloadData();
        });
}

void KXListTableViewController::fetchGuest() {
    QPointer<KXListTableViewController> self(this);
    KXGuestManager::fetchGuestWithId(
        externalId_,
        [self](const std::shared_ptr<KXGuest>& guest) {
            if (!self) {
                return;
            }
            self->guest_ = guest;
            KX_LOG_DEBUG("KXGuest: {}, {}", self->externalId_, profileIds(guest));
            if (guest && guest->deliveryProfiles() && !guest->deliveryProfiles()->empty()) {
                const std::string& chosen = self->screen_.deliveryProfileId();
                auto profile = chosen.empty() ? guest->APNSDeliveryProfileForCurrentDevice()
                                              : guest->deliveryProfileForId(chosen);
                self->recipientListIds_.clear();
                if (profile) {
                    for (const auto& membership : profile->memberships()) {
                        if (membership && membership->recipientListId()) {
                            self->recipientListIds_.push_back(*membership->recipientListId());
                        }
                    }
                }
            }
            self->showHUD(false);
            self->reloadData();
        },
        [self](const KXError& error) {
            KX_LOG_ERROR("Error: {}", error.localizedDescription());
            if (self) {
                self->showHUD(false);
            }
        });
}

void KXListTableViewController::refreshListFilter() {
    fetchBussinessUnitList();
}

void KXListTableViewController::reloadData() {
    const int keptScroll = scroll_->verticalScrollBar()->value();
    switches_.clear();
    auto* rows = new QWidget;
    rows->setObjectName("KXListRows");
    rows->setAutoFillBackground(true);
    QPalette palette = rows->palette();
    palette.setColor(QPalette::Window, tableBackground_);
    rows->setPalette(palette);
    auto* column = new QVBoxLayout(rows);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);  // no separators
    const std::size_t count =
        KXListScreenController::rowCount(screen_.paging.initialLoadComplete, lists_.size());
    if (lists_.empty() && count == 1) {
        column->addWidget(
            makeEmptyCell("YOUR\nLIST IS\nCURRENTLY\nEMPTY", scroll_->viewport()->height()));
    }
    for (std::size_t index = 0; index < lists_.size(); ++index) {
        const auto& list = lists_[index];
        const std::string externalId = list ? list->externalId().value_or("") : "";
        const QString text = QString::fromStdString(
            KXListScreenController::rowText(list ? list->name() : std::nullopt, externalId));
        auto* row = new QWidget;
        row->setObjectName("KXListCell");
        row->setAccessibleName(text);
        row->setFixedHeight(static_cast<int>(KXListScreenController::kRowHeight));
        if (KXListScreenController::usesAlternateColour(index, alternateColour_.has_value())) {
            row->setAutoFillBackground(true);
            QPalette rowPalette = row->palette();
            rowPalette.setColor(QPalette::Window, *alternateColour_);
            row->setPalette(rowPalette);
        }
        auto* line = new QHBoxLayout(row);
        line->setContentsMargins(15, 0, 15, 0);
        auto* name = new QLabel(text);
        name->setFont(font_ ? *font_ : kxFont("HelveticaNeue-Light", 12));
        line->addWidget(name, 1);
        line->addWidget(switchForRow(static_cast<int>(index), externalId));
        column->addWidget(row);
    }
    column->addStretch();
    delete scroll_->takeWidget();
    scroll_->setWidget(rows);
    scroll_->verticalScrollBar()->setValue(keptScroll);
}

QCheckBox* KXListTableViewController::switchForRow(int row, const std::string& listExternalId) {
    auto* toggle = new QCheckBox;
    toggle->setObjectName("KXListSwitch");
    // Drawn as the phone's switch: a track with a knob, green when on.
    toggle->setStyleSheet(
        "QCheckBox::indicator { width: 40px; height: 24px; }"
        "QCheckBox::indicator:unchecked { image: "
        "url(:/com.brellix.KXClientFramework/switch_off.svg); }"
        "QCheckBox::indicator:checked { image: url(:/com.brellix.KXClientFramework/switch_on.svg); "
        "}"
        "QCheckBox:focus { border: 1px dotted palette(highlight); border-radius: 4px; }");
    toggle->setProperty("row", row);  // the phone's switch tag
    const std::string text = KXListScreenController::rowText(
        lists_[static_cast<std::size_t>(row)]->name(), listExternalId);
    toggle->setAccessibleName(
        QString::fromStdString(KXListScreenController::switchAccessibilityLabel(text)));
    if (!recipientListIds_.empty() &&
        KXListScreenController::isSubscribed(recipientListIds_, listExternalId)) {
        KX_LOG_DEBUG("tmpList: {}, externalId: {}", fmt::join(recipientListIds_, ", "),
                     listExternalId);
        toggle->setChecked(true);
    }
    connect(toggle, &QCheckBox::toggled, this, [this, row](bool on) { switchToggled(row, on); });
    switches_.push_back(toggle);
    return toggle;
}

void KXListTableViewController::switchToggled(int row, bool on) {
    KX_LOG_DEBUG("sender tag {}", row);
    if (row < 0 || static_cast<std::size_t>(row) >= lists_.size() ||
        !lists_[static_cast<std::size_t>(row)]) {
        return;
    }
    const std::optional<std::string> listId = lists_[static_cast<std::size_t>(row)]->externalId();
    auto failed = [](const KXError& error) {
        KX_LOG_ERROR("ERROR: {}", error.localizedDescription());
    };
    // Successes are not waited for and the switch stays as the user left it; the next load
    // shows the service's state.
    for (const KXListSubscriptionRequest& request : screen_.requestsForSwitch(on)) {
        if (!request.deliveryProfileId) {
            if (request.subscribe) {
                KXGuestManager::subscribeToList(listId, KXChannelTypeAPNS, {}, failed);
            } else {
                KXGuestManager::unsubscribeToList(listId, KXChannelTypeAPNS, {}, failed);
            }
        } else if (request.subscribe) {
            KXGuestManager::subscribeToList(listId, request.deliveryProfileId, {}, failed);
        } else {
            KXGuestManager::unsubscribeToList(listId, request.deliveryProfileId, {}, failed);
        }
    }
}

void KXListTableViewController::scrollViewDidScroll() {
    const QScrollBar* bar = scroll_->verticalScrollBar();
    const auto viewHeight = static_cast<double>(scroll_->viewport()->height());
    if (screen_.paging.shouldFetchMore(bar->value(), bar->maximum() + viewHeight, viewHeight)) {
        fetchMoreBusinessUnitLists();
    }
}

void KXListTableViewController::filterListPressed() {
    const KXListDialog& dialog = KXListScreenController::kFilterDialog;
    auto* input = new QInputDialog(this);
    input->setAttribute(Qt::WA_DeleteOnClose);
    input->setObjectName("KXListFilterDialog");
    input->setWindowTitle(dialog.title);
    input->setLabelText(QString());
    input->setOkButtonText(dialog.otherButton);
    input->setCancelButtonText(dialog.cancelButton);
    QPointer<KXListTableViewController> self(this);
    connect(input, &QInputDialog::finished, this, [self, input, tag = dialog.tag](int result) {
        if (self) {
            self->dialogDismissed(tag, result == QDialog::Accepted ? 1 : 0,
                                  input->textValue().toStdString());
        }
    });
    input->open();
}

void KXListTableViewController::handleDoubleTapGesture() {
    presentYesNoDialog(KXListScreenController::kAlternatingCellsDialog);
}

void KXListTableViewController::handleTripleTapGesture() {
    presentYesNoDialog(KXListScreenController::kAlternatingColourDialog);
}

void KXListTableViewController::presentYesNoDialog(const KXListDialog& dialog) {
    KXAlert alert{dialog.title, "", {dialog.cancelButton, dialog.otherButton}};
    alert.cancelButton = 0;
    QPointer<KXListTableViewController> self(this);
    alert.onDismiss = [self, tag = dialog.tag](std::size_t button) {
        if (self) {
            self->dialogDismissed(tag, static_cast<int>(button), "");
        }
    };
    KXPlatform::current().alertPresenter().present(alert);
}

void KXListTableViewController::dialogDismissed(int tag, int buttonIndex, const std::string& text) {
    const KXListDialogOutcome outcome =
        KXListScreenController::dialogDismissed(tag, buttonIndex, text);
    if (outcome.newTag) {
        screen_.tag = *outcome.newTag;
        fetchBussinessUnitList();
        return;
    }
    if (outcome.tableBackground) {
        tableBackground_ = colourOf(*outcome.tableBackground);
        alternateColour_ = std::nullopt;
        if (outcome.alternateRowColour && *outcome.alternateRowColour != KXListColour::Default) {
            alternateColour_ = colourOf(*outcome.alternateRowColour);
        }
        reloadData();
    }
}
