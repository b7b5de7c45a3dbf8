#include <KXClientFramework/KXInboxSummary.h>

#include <fmt/format.h>

namespace {

std::string_view textOrNull(const std::optional<std::string>& text) {
    return text ? std::string_view(*text) : std::string_view("(null)");
}

}  // namespace

std::string KXInboxSummary::description() const {
    return fmt::format(
        "inboxDomainId: {}, name: {}, desc: {}, _totalMessageCount: {}, _unreadMessageCount: {}, "
        "deleteByGuestForbidden: {}",
        textOrNull(inboxDomainId_), textOrNull(name_), textOrNull(desc_), totalMessageCount_,
        unreadMessageCount_, deleteByGuestForbidden_ ? 1 : 0);
}
