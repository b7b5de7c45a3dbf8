#include "KXWebViewerController.h"

std::vector<KXWebToolbarItem> KXWebViewerController::toolbarItems(bool tablet, bool loading) {
    using Item = KXWebToolbarItem;
    const Item reloadOrStop = loading ? Item::Stop : Item::Reload;
    if (tablet) {
        return {Item::FixedSpace, reloadOrStop,  Item::FixedSpace, Item::Back,
                Item::FixedSpace, Item::Forward, Item::FixedSpace};
    }
    return {Item::FixedSpace,    Item::Back,   Item::FlexibleSpace, Item::Forward,
            Item::FlexibleSpace, reloadOrStop, Item::FlexibleSpace, Item::FixedSpace};
}
