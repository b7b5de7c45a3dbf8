#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXList.h>

#include <optional>

/// Turns the list service's decoded JSON into KXList records. It never fails:
/// missing keys leave properties absent, a string property given a number takes
/// its decimal text, and any other wrong type reads as absent.
class KX_EXPORT KXListParser {
public:
    /// One list per element of the reply's "records" array, in order (an element
    /// that is not an object gives an empty list). Absent for a null reply; empty
    /// when "records" is missing or not an array.
    static std::optional<KXLists> parse(const KXJSON& reply);

    /// Fills `list` from `record`: "type", "externalId", "description" (into
    /// desc), "name", "tags" and "buProperties", then the channel
    /// (parseChannelsWithList). Returns false and changes nothing when `list` is
    /// null or `record` is not an object.
    static bool parseRootWithList(KXList* list, const KXJSON& record);

    /// Gives `list` a new channel whose isIos, isEmail and isSMS tell whether the
    /// record's "channelCounts" object has the key "APNS_PUSH", "EMAIL" or "SMS"
    /// (the counts themselves are not kept). Returns false and changes nothing
    /// when `list` is null or `record` is not an object.
    static bool parseChannelsWithList(KXList* list, const KXJSON& record);
};
