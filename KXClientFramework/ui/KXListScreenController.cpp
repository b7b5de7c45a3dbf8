#include "KXListScreenController.h"

#include <algorithm>

const KXListDialog KXListScreenController::kFilterDialog{"Filter List By Tag", "Cancel", "Ok", 3,
                                                         true};
const KXListDialog KXListScreenController::kAlternatingCellsDialog{"Alternating Cells", "Disable",
                                                                   "Enable", 1, false};
const KXListDialog KXListScreenController::kAlternatingColourDialog{"Alternating Color", "Sonics",
                                                                    "Seahawks", 2, false};

std::vector<std::string>& KXListScreenController::affectedProfiles() {
    if (!affectedProfileIds_) {
        affectedProfileIds_.emplace();
    }
    return *affectedProfileIds_;
}

long KXListScreenController::beginFirstPage() {
    paging.currentPage = 1;
    paging.hasMoreRecords = false;
    return paging.currentPage;
}

void KXListScreenController::setDeliveryProfileId(const std::string& deliveryProfileId) {
    if (deliveryProfileId.empty()) {
        return;
    }
    auto& ids = affectedProfiles();
    std::erase(ids, deliveryProfileId_);
    if (std::find(ids.begin(), ids.end(), deliveryProfileId) == ids.end()) {
        ids.push_back(deliveryProfileId);
    }
    deliveryProfileId_ = deliveryProfileId;
}

void KXListScreenController::addAffectedProfile(const std::string& profileId) {
    auto& ids = affectedProfiles();
    if (std::find(ids.begin(), ids.end(), profileId) == ids.end()) {
        ids.push_back(profileId);
    }
}

void KXListScreenController::clearAffectedProfiles() {
    if (affectedProfileIds_) {
        affectedProfileIds_ = std::vector<std::string>{deliveryProfileId_};
    }
}

std::vector<KXListSubscriptionRequest> KXListScreenController::requestsForSwitch(bool on) const {
    if (deliveryProfileId_.empty()) {
        return {{on, std::nullopt}};
    }
    std::vector<KXListSubscriptionRequest> requests;
    if (affectedProfileIds_) {
        for (const std::string& id : *affectedProfileIds_) {
            requests.push_back({on, id});
        }
    }
    return requests;
}

std::size_t KXListScreenController::rowCount(bool initialLoadComplete, std::size_t listCount) {
    return initialLoadComplete && listCount == 0 ? 1 : listCount;
}

double KXListScreenController::rowHeight(std::size_t listCount, double tableHeight) {
    return listCount == 0 ? tableHeight : kRowHeight;
}

std::string KXListScreenController::rowText(const std::optional<std::string>& name,
                                            const std::string& externalId) {
    return name ? *name : externalId;
}

std::string KXListScreenController::switchAccessibilityLabel(const std::string& rowText) {
    return rowText + "toggle";
}

bool KXListScreenController::isSubscribed(const std::vector<std::string>& recipientListIds,
                                          const std::string& listExternalId) {
    return std::find(recipientListIds.begin(), recipientListIds.end(), listExternalId) !=
           recipientListIds.end();
}

KXListDialogOutcome KXListScreenController::dialogDismissed(int tag, int buttonIndex,
                                                            const std::string& text) {
    KXListDialogOutcome outcome;
    switch (tag) {
        case 3:
            outcome.newTag = text;
            break;
        case 2:
            outcome.tableBackground =
                buttonIndex == 0 ? KXListColour::Yellow : KXListColour::LightGrey;
            outcome.alternateRowColour =
                buttonIndex == 0 ? KXListColour::Green : KXListColour::Blue;
            break;
        case 1:
            outcome.tableBackground = KXListColour::White;
            outcome.alternateRowColour =
                buttonIndex == 0 ? KXListColour::Default : KXListColour::LightGrey;
            break;
        default:
            break;
    }
    return outcome;
}
