#include "KXInboxScreenController.h"

#include <fmt/format.h>

long KXInboxScreenController::pageForAppearance() {
    if (paging.pagingEnabled) {
        paging.currentPage = 1;
        paging.hasMoreRecords = false;
    }
    return paging.currentPage;
}

void KXInboxScreenController::loadFinished(bool succeeded, bool more) {
    if (succeeded) {
        paging.hasMoreRecords = more;
    }
    paging.initialLoadComplete = true;
}

std::size_t KXInboxScreenController::rowCount(bool initialLoadComplete, std::size_t messageCount) {
    return initialLoadComplete && messageCount == 0 ? 1 : messageCount;
}

double KXInboxScreenController::rowHeight(std::size_t messageCount, double tableHeight) {
    return messageCount == 0 ? tableHeight : kRowHeight;
}

std::int64_t KXInboxScreenController::editingStyle(std::size_t messageCount) {
    return static_cast<std::int64_t>(messageCount);
}

std::string KXInboxScreenController::deleteButtonTitle(std::size_t selectedCount,
                                                       std::size_t messageCount) {
    if (selectedCount != 0 && selectedCount != messageCount) {
        return fmt::format("Delete ({})", selectedCount);
    }
    return "Delete All";
}

std::string KXInboxScreenController::deleteConfirmationTitle(std::size_t selectedCount) {
    return selectedCount == 1 ? "Are you sure you want to delete this message?"
                              : "Are you sure you want to delete these messages?";
}

std::vector<std::size_t> KXInboxScreenController::rowsToDelete(
    const std::vector<std::size_t>& selectedRows, std::size_t messageCount) {
    if (!selectedRows.empty()) {
        std::vector<std::size_t> rows;
        for (std::size_t row : selectedRows) {
            if (row < messageCount) {
                rows.push_back(row);
            }
        }
        return rows;
    }
    std::vector<std::size_t> all(messageCount);
    for (std::size_t row = 0; row < messageCount; ++row) {
        all[row] = row;
    }
    return all;
}

KXInboxBarButtons KXInboxScreenController::barButtons(std::size_t messageCount) const {
    if (editing) {
        return {KXInboxBarButton::Delete, KXInboxBarButton::Cancel, true};
    }
    return {KXInboxBarButton::None, KXInboxBarButton::Edit, messageCount > 0};
}

bool KXInboxScreenController::deletionAllowed(const std::optional<std::string>& summaryDomainId,
                                              bool deleteByGuestForbidden) {
    return summaryDomainId.has_value() && !deleteByGuestForbidden;
}

KXInboxTapAction KXInboxScreenController::tapAction(std::size_t messageCount) const {
    if (messageCount == 0) {
        return KXInboxTapAction::Nothing;
    }
    return editing ? KXInboxTapAction::UpdateButtons : KXInboxTapAction::OpenMessage;
}

bool KXInboxScreenController::isHTMLContent(const std::optional<std::string>& contentType) {
    return contentType && contentType->find("html") != std::string::npos;
}
