#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXInboxMessage.h>
#include <KXClientFramework/KXInboxScreenController.h>
#include <KXClientFramework/KXTableViewController.h>

#include <QAction>
#include <QFont>
#include <QIcon>

#include <memory>
#include <optional>
#include <string>
#include <vector>

class KXInboxListModel;
struct KXInboxRowFonts;
class KXInboxListView;
class QAbstractItemModel;
class QListView;

/// The inbox screen: the guest's messages of one inbox domain, page by page, with the read and
/// unread looks, opening a message in the viewer, refreshing (F5, or pulling the list down on a
/// touch screen) and deleting in an editing mode. Every decision comes from
/// KXInboxScreenController; this class shows its answers.
///
/// The rows are a model over the loaded messages painted by one delegate, so a long inbox costs
/// no widget per row. Put the screen in a KXNavigationStack to have messages pushed; standing
/// alone it presents them.
class KX_EXPORT KXInboxTableViewController : public KXTableViewController {
    Q_OBJECT
public:
    explicit KXInboxTableViewController(QWidget* parent = nullptr);
    ~KXInboxTableViewController() override;

    /// The inbox domain to show; set it before the screen is first shown.
    const std::optional<std::string>& inboxDomainId() const { return inboxDomainId_; }
    void setInboxDomainId(std::optional<std::string> inboxDomainId);

    bool pagingEnabled() const { return screen_.paging.pagingEnabled; }
    void setPagingEnabled(bool enabled) { screen_.paging.pagingEnabled = enabled; }
    const KXPagingState& paging() const { return screen_.paging; }
    bool isEditing() const { return screen_.editing; }

    /// The rows shown, in the service's order.
    const KXInboxMessages& messages() const { return messages_; }

    /// Fonts of read rows (title; sender and time) and of unread rows; absent: the defaults.
    void setTextLabelFont(std::optional<QFont> font);
    void setDetailTextLabelFont(std::optional<QFont> font);
    void setTextLabelBoldFont(std::optional<QFont> font);
    void setDetailTextLabelBoldFont(std::optional<QFont> font);

    /// The "folder" image of the screen, for a tab or a launcher.
    QIcon tabBarIcon() const;

    QListView* tableView() const;
    QAbstractItemModel* model() const;
    QAction* editButtonItem() const { return edit_; }
    QAction* cancelButtonItem() const { return cancel_; }
    QAction* deleteButtonItem() const { return delete_; }
    QAction* refreshAction() const { return refresh_; }

    void viewWillAppear() override;

public slots:
    /// Loads page currentPage as a whole new list.
    void fetchInboxMessages();
    /// Loads the next page and appends it.
    void fetchMoreMessages();
    /// The refresh action: the current page again, replacing the list.
    void refreshTable();
    void editAction();
    void cancelAction();
    /// Asks for confirmation, then deletes the selected rows, or every row when none is.
    void deleteAction();
    /// A tap on `row`: opens its message, or while editing toggles its selection.
    void selectRow(int row);

signals:
    /// A message's details arrived and its viewer was pushed or presented.
    void messageOpened(std::shared_ptr<KXInboxMessage> message);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void viewDidLoad();
    void scrollViewDidScroll();
    void updateButtonsToMatchTableState();
    void updateDeleteButtonTitle();
    void selectionChanged(const QList<int>& selected, const QList<int>& deselected);
    void deleteConfirmed();
    void rowClicked(int row);
    void openMessage(int row);

    KXInboxScreenController screen_;
    std::optional<std::string> inboxDomainId_;
    KXInboxMessages messages_;
    std::vector<std::size_t> selectionOrder_;
    bool loaded_ = false;
    std::unique_ptr<KXInboxRowFonts> fonts_;

    KXInboxListModel* model_;
    KXInboxListView* view_;
    QAction* edit_;
    QAction* cancel_;
    QAction* delete_;
    QAction* refresh_;
};
