#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXList.h>
#include <KXClientFramework/KXListScreenController.h>
#include <KXClientFramework/KXTableViewController.h>

#include <QAction>
#include <QCheckBox>
#include <QColor>
#include <QFont>
#include <QList>

#include <memory>
#include <optional>
#include <string>
#include <vector>

class QScrollArea;

/// The list subscription screen: the business unit's lists, optionally filtered by a tag, each
/// with a switch that shows and changes whether the guest is subscribed. Every decision comes
/// from KXListScreenController; this class shows its answers.
///
/// A business unit has a few dozen lists at most, so each row is a small widget of its own: the
/// switches are real check boxes that take the keyboard focus (Tab, Space) and carry their
/// accessible names ("Newstoggle").
class KX_EXPORT KXListTableViewController : public KXTableViewController {
    Q_OBJECT
public:
    explicit KXListTableViewController(std::string externalId, QWidget* parent = nullptr);
    ~KXListTableViewController() override;

    const std::string& externalId() const { return externalId_; }
    const std::vector<std::shared_ptr<KXList>>& listObjects() const { return lists_; }
    const std::shared_ptr<KXGuest>& guest() const { return guest_; }

    const std::string& tag() const { return screen_.tag; }
    void setTag(std::string tag) { screen_.tag = std::move(tag); }
    const std::string& deliveryProfileId() const { return screen_.deliveryProfileId(); }
    /// An empty id is ignored; otherwise it replaces the old one among the affected profiles.
    void setDeliveryProfileId(const std::string& deliveryProfileId);
    void addAffectedProfile(const std::string& profileId);
    void clearAffectedProfiles();
    const std::optional<std::vector<std::string>>& affectedProfileIds() const {
        return screen_.affectedProfileIds();
    }

    bool pagingEnabled() const { return screen_.paging.pagingEnabled; }
    void setPagingEnabled(bool enabled) { screen_.paging.pagingEnabled = enabled; }
    const KXPagingState& paging() const { return screen_.paging; }

    /// The rows' text font; absent: the default face.
    void setFont(std::optional<QFont> font);
    /// The odd rows' background; absent: none.
    void setAlternateTableViewCellColor(const std::optional<QColor>& colour);

    /// The switch of each shown row, in row order.
    QList<QCheckBox*> switches() const { return switches_; }
    QAction* filterButtonItem() const { return filter_; }

    void viewWillAppear() override;
    void viewWillDisappear() override;

public slots:
    void fetchBussinessUnitList();
    void fetchMoreBusinessUnitLists();
    /// The refresh action: page 1 again with the current filter.
    void refreshListFilter();
    /// Asks for the tag to filter by, then loads page 1 with it (also after Cancel).
    void filterListPressed();
    /// The dialogs an application can attach to its own double and triple taps.
    void handleDoubleTapGesture();
    void handleTripleTapGesture();

protected:
    void showEvent(QShowEvent* event) override;

private:
    void fetchGuest();
    void reloadData();
    QWidget* makeHeader();
    QCheckBox* switchForRow(int row, const std::string& listExternalId);
    void switchToggled(int row, bool on);
    /// The two-button dialogs of the double and triple tap, answered through dialogDismissed().
    void presentYesNoDialog(const KXListDialog& dialog);
    void dialogDismissed(int tag, int buttonIndex, const std::string& text);
    void scrollViewDidScroll();

    KXListScreenController screen_;
    std::string externalId_;
    std::vector<std::shared_ptr<KXList>> lists_;
    std::shared_ptr<KXGuest> guest_;
    std::vector<std::string> recipientListIds_;
    std::optional<QFont> font_;
    std::optional<QColor> alternateColour_;
    QColor tableBackground_ = Qt::white;

    QScrollArea* scroll_;
    QList<QCheckBox*> switches_;
    QAction* filter_;
    QAction* refresh_;
};
