#pragma once

#include <KXClientFramework/KXExport.h>

#include <cstdint>
#include <optional>
#include <string>

/// The summary of the guest's inbox domain: its name and description, the message counts and
/// whether the guest may delete messages.
///
/// The library keeps one summary, KXInbox::shared().summary(), and every domain fetch
/// overwrites it field by field, so a screen holding it sees each new fetch.
class KX_EXPORT KXInboxSummary {
public:
    /// The configured inbox domain id at the last fetch (not taken from the reply).
    const std::optional<std::string>& inboxDomainId() const { return inboxDomainId_; }
    void setInboxDomainId(std::optional<std::string> v) { inboxDomainId_ = std::move(v); }

    /// The domain's name ("name").
    const std::optional<std::string>& name() const { return name_; }
    void setName(std::optional<std::string> v) { name_ = std::move(v); }

    /// The domain's description ("description").
    const std::optional<std::string>& desc() const { return desc_; }
    void setDesc(std::optional<std::string> v) { desc_ = std::move(v); }

    /// "unreadMessageCount".
    std::uint64_t unreadMessageCount() const { return unreadMessageCount_; }
    void setUnreadMessageCount(std::uint64_t v) { unreadMessageCount_ = v; }

    /// "totalMessageCount".
    std::uint64_t totalMessageCount() const { return totalMessageCount_; }
    void setTotalMessageCount(std::uint64_t v) { totalMessageCount_ = v; }

    /// "deleteByGuestForbidden".
    bool deleteByGuestForbidden() const { return deleteByGuestForbidden_; }
    void setDeleteByGuestForbidden(bool v) { deleteByGuestForbidden_ = v; }

    /// "inboxDomainId: <id>, name: <name>, desc: <desc>, _totalMessageCount: <n>,
    /// _unreadMessageCount: <n>, deleteByGuestForbidden: <0 or 1>"; an absent text reads
    /// "(null)".
    std::string description() const;

private:
    std::optional<std::string> inboxDomainId_;
    std::optional<std::string> name_;
    std::optional<std::string> desc_;
    std::uint64_t unreadMessageCount_ = 0;
    std::uint64_t totalMessageCount_ = 0;
    bool deleteByGuestForbidden_ = false;
};
