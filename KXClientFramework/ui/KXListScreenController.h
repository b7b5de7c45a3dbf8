#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXPagingState.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// One subscription change a switch asks for: on the device's push channel when
/// `deliveryProfileId` is absent, else on that delivery profile.
struct KXListSubscriptionRequest {
    bool subscribe = false;
    std::optional<std::string> deliveryProfileId;

    bool operator==(const KXListSubscriptionRequest&) const = default;
};

/// Colours the list screen's dialogs choose between.
enum class KXListColour { Default, White, Yellow, Green, LightGrey, Blue };

/// One of the list screen's dialogs: an alert with an empty message.
struct KXListDialog {
    const char* title;
    const char* cancelButton;  ///< button index 0
    const char* otherButton;   ///< button index 1
    int tag;
    bool hasTextField;
};

/// What dismissing a dialog does.
struct KXListDialogOutcome {
    /// Filter dialog: the new tag, then a reload from page 1 (whichever button was pressed).
    std::optional<std::string> newTag;
    /// Colour dialogs: the table background and the odd rows' colour, then a reload.
    std::optional<KXListColour> tableBackground;
    std::optional<KXListColour> alternateRowColour;  ///< Default: no alternate colour
};

/// Everything the list subscription screen decides, without a toolkit.
class KX_EXPORT KXListScreenController {
public:
    static constexpr long kPageLimit = 20;
    static constexpr double kRowHeight = 44.0;
    static constexpr double kHeaderHeight = 30.0;
    static constexpr const char* kListCellIdentifier = "ListCellReuseIdentifier";
    static constexpr const char* kEmptyCellIdentifier = "ListEmptyCellReuseIdentifier";
    static constexpr const char* kFilterButtonTitle = "FILTER";
    static constexpr const char* kFilterButtonAccessibilityLabel = "Filter";
    static constexpr const char* kNameHeader = "List Name";
    static constexpr const char* kSubscribedHeader = "Subscribed";

    static const KXListDialog kFilterDialog;
    static const KXListDialog kAlternatingCellsDialog;
    static const KXListDialog kAlternatingColourDialog;

    KXPagingState paging;
    std::string tag;

    /// A whole-list load starts at page 1 with no more records known; returns the page.
    long beginFirstPage();

    const std::string& deliveryProfileId() const { return deliveryProfileId_; }
    /// An empty id is ignored on purpose (the old one stays); otherwise the old id leaves the
    /// affected profiles and the new one joins them.
    void setDeliveryProfileId(const std::string& deliveryProfileId);
    /// Appends the id unless it is already there.
    void addAffectedProfile(const std::string& profileId);
    /// When the list exists, it is replaced by one holding only the delivery profile id.
    void clearAffectedProfiles();
    const std::optional<std::vector<std::string>>& affectedProfileIds() const {
        return affectedProfileIds_;
    }

    /// The requests a switch turned `on` or off sends: the push channel when no delivery profile
    /// is chosen, else one request per affected profile, in order.
    std::vector<KXListSubscriptionRequest> requestsForSwitch(bool on) const;

    /// Rows: one empty cell once the first load ended with no lists, else one a list.
    static std::size_t rowCount(bool initialLoadComplete, std::size_t listCount);
    static double rowHeight(std::size_t listCount, double tableHeight);
    /// The row's text: the list's name, or its external id when it has none.
    static std::string rowText(const std::optional<std::string>& name,
                               const std::string& externalId);
    /// The switch's accessibility label: the row's text followed by "toggle".
    static std::string switchAccessibilityLabel(const std::string& rowText);
    /// A list is subscribed when one of the memberships names it.
    static bool isSubscribed(const std::vector<std::string>& recipientListIds,
                             const std::string& listExternalId);
    /// Odd rows take the alternate colour when one is set.
    static bool usesAlternateColour(std::size_t row, bool alternateColourSet) {
        return alternateColourSet && row % 2 == 1;
    }

    /// What dismissing the dialog with `tag` by button `buttonIndex` does; `text` is the filter
    /// dialog's field.
    static KXListDialogOutcome dialogDismissed(int tag, int buttonIndex, const std::string& text);

private:
    std::vector<std::string>& affectedProfiles();  // created on first use

    std::string deliveryProfileId_;
    std::optional<std::vector<std::string>> affectedProfileIds_;
};
