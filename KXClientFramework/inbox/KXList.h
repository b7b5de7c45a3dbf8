#pragma once

#include <KXClientFramework/KXChannel.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

/// One subscription list of the business unit, as the service describes it.
///
/// A plain value holder filled by KXListParser. A guest subscribes to a list
/// through its delivery profiles; the list itself only says what it is and on
/// which channels it delivers.
class KX_EXPORT KXList {
public:
    /// "type".
    const std::optional<std::string>& type() const { return type_; }
    void setType(std::optional<std::string> v) { type_ = std::move(v); }

    /// The list's identifier at the service ("externalId").
    const std::optional<std::string>& externalId() const { return externalId_; }
    void setExternalId(std::optional<std::string> v) { externalId_ = std::move(v); }

    /// "description".
    const std::optional<std::string>& desc() const { return desc_; }
    void setDesc(std::optional<std::string> v) { desc_ = std::move(v); }

    /// "name".
    const std::optional<std::string>& name() const { return name_; }
    void setName(std::optional<std::string> v) { name_ = std::move(v); }

    /// The channels the list delivers on: which of "APNS_PUSH", "EMAIL" and "SMS"
    /// its "channelCounts" names. Null until parsed.
    const std::shared_ptr<KXChannel>& channel() const { return channel_; }
    void setChannel(std::shared_ptr<KXChannel> v) { channel_ = std::move(v); }

    /// "tags" exactly as received (normally an array of strings); null when
    /// absent.
    const KXJSON& tags() const { return tags_; }
    void setTags(KXJSON v) { tags_ = std::move(v); }

    /// "buProperties" exactly as received (normally an object); null when absent.
    const KXJSON& buProperties() const { return buProperties_; }
    void setBuProperties(KXJSON v) { buProperties_ = std::move(v); }

private:
    std::optional<std::string> type_;
    std::optional<std::string> externalId_;
    std::optional<std::string> desc_;
    std::optional<std::string> name_;
    std::shared_ptr<KXChannel> channel_;
    KXJSON tags_;
    KXJSON buProperties_;
};

/// The lists of one reply, in the service's order.
using KXLists = std::vector<std::shared_ptr<KXList>>;
