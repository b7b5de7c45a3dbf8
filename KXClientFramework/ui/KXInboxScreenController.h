#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXPagingState.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What a tap on an inbox row does.
enum class KXInboxTapAction {
    Nothing,        ///< the list is empty (the empty cell was tapped)
    UpdateButtons,  ///< editing: the selection changed, so the Delete title follows
    OpenMessage,    ///< fetch the message's details and show them in the viewer
};

/// The buttons of the inbox's navigation bar.
enum class KXInboxBarButton { None, Edit, Cancel, Delete };

struct KXInboxBarButtons {
    KXInboxBarButton left = KXInboxBarButton::None;
    KXInboxBarButton right = KXInboxBarButton::None;
    bool editEnabled = false;

    bool operator==(const KXInboxBarButtons&) const = default;
};

/// Everything the inbox screen decides, without a toolkit: paging, rows, editing buttons and
/// titles, what a tap does. The widgets ask it and show the answers.
class KX_EXPORT KXInboxScreenController {
public:
    static constexpr long kPageLimit = 20;
    static constexpr double kRowHeight = 44.0;
    /// On a touch screen, letting go of the list pulled this far below its top refreshes it.
    static constexpr double kPullToRefreshDistance = 60.0;
    /// The gap a pull opens above the rows grows with the finger up to this height.
    static constexpr double kPullMaximumGap = 90.0;
    static constexpr const char* kPullToRefreshText = "Pull to refresh";
    static constexpr const char* kReleaseToRefreshText = "Release to refresh";

    static constexpr const char* kTitle = "Inbox";
    static constexpr const char* kTabImage = "folder";
    static constexpr const char* kReadImage = "envelope_open";
    static constexpr const char* kUnreadImage = "envelope_closed";
    static constexpr const char* kMessageCellIdentifier = "InboxCell";
    static constexpr const char* kEmptyCellIdentifier = "InboxEmptyCellReuseIdentifier";
    static constexpr const char* kEmptyText = "YOUR\nINBOX IS\nCURRENTLY\nEMPTY";
    static constexpr const char* kEditTitle = "Edit";
    static constexpr const char* kCancelTitle = "Cancel";
    static constexpr const char* kDeleteTitle = "Delete";
    static constexpr const char* kConfirmButtonTitle = "OK";
    static constexpr const char* kErrorTitle = "Error";
    static constexpr const char* kErrorMessage = "Error retrieving message details";
    static constexpr const char* kErrorButton = "Okay";
    static constexpr const char* kLoadingLabel = "Loading";

    KXPagingState paging;
    bool editing = false;

    /// The screen comes on screen: with paging on, back to page 1 with no more records known.
    /// Returns the page to request (0 with paging off, on purpose).
    long pageForAppearance();
    /// The refresh action requests the current page as it stands and replaces the whole list.
    long pageForRefresh() const { return paging.currentPage; }
    /// Whether letting go of a touch that pulled the list `pastTop` pixels below its top refreshes.
    static bool refreshesOnRelease(double pastTop) { return pastTop >= kPullToRefreshDistance; }
    /// A whole-list load ended; `more` counts only on success.
    void loadFinished(bool succeeded, bool more);

    /// One empty cell once the first load ended with no messages, else one row a message.
    static std::size_t rowCount(bool initialLoadComplete, std::size_t messageCount);
    /// The empty cell fills the table; message rows are 44 high.
    static double rowHeight(std::size_t messageCount, double tableHeight);
    /// The editing style of every row is the number of messages (1 delete, 2 insert, more a
    /// combined style); kept as the screen has always done it.
    static std::int64_t editingStyle(std::size_t messageCount);

    /// "Delete (%d)" when some but not all rows are selected, else "Delete All".
    static std::string deleteButtonTitle(std::size_t selectedCount, std::size_t messageCount);
    /// The confirmation's title, singular for exactly one selected row.
    static std::string deleteConfirmationTitle(std::size_t selectedCount);
    /// The rows a confirmed deletion removes: the selection in selection order, or every row
    /// when nothing is selected.
    static std::vector<std::size_t> rowsToDelete(const std::vector<std::size_t>& selectedRows,
                                                 std::size_t messageCount);
    /// Leaves editing after a deletion.
    void deletionConfirmed() { editing = false; }

    /// The bar while editing: Delete at the left, Cancel at the right; otherwise Edit at the
    /// right, enabled only when there are messages.
    KXInboxBarButtons barButtons(std::size_t messageCount) const;
    /// Deletion (and so the Edit button) needs a summary with a domain id that allows it.
    static bool deletionAllowed(const std::optional<std::string>& summaryDomainId,
                                bool deleteByGuestForbidden);

    KXInboxTapAction tapAction(std::size_t messageCount) const;
    /// Opening a message lowers the badge by one as computed, so 0 becomes -1.
    static std::int64_t badgeAfterOpening(std::int64_t currentBadge) { return currentBadge - 1; }
    /// Details whose content type contains "html" are shown as a page, others as text.
    static bool isHTMLContent(const std::optional<std::string>& contentType);
};
