#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXList.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

/// The business unit's subscription lists at the service: paged and tagged
/// reads, a read by id, and creating a list.
///
/// Requests go through KXHTTPSessionManager::sharedManager() to
/// "<kxBaseURI>/lists..."; callbacks run on the main queue and an empty
/// callback is skipped. A failed request is logged at ERROR ("ERROR: <error>")
/// and its error handed to `failure` unchanged.
///
/// Paging: pages count from 1 (0 means 1); the offset is (page - 1) * limit
/// computed from the limit as given, then a limit of 0 is sent as
/// kDefaultListLimit, so a limit of 0 asks for offset 0 on every page.
class KX_EXPORT KXListManager {
public:
    using FailureBlock = std::function<void(const KXError& error)>;
    /// The decoded reply as it is, and its "hasMoreRecords" (false when missing).
    using DataSuccessBlock = std::function<void(const KXJSON& reply, bool hasMoreRecords)>;
    /// The parsed lists (absent when the reply had no JSON body) and
    /// "hasMoreRecords".
    using ListsSuccessBlock =
        std::function<void(const std::optional<KXLists>& lists, bool hasMoreRecords)>;
    using ListSuccessBlock = std::function<void(std::shared_ptr<KXList> list)>;

    /// Limit sent for a page when the caller passes 0.
    static constexpr std::int64_t kDefaultListLimit = 1000;

    /// GET lists?offset=&limit=, handing over the reply unparsed.
    static void fetchListDataForPage(std::int64_t page, std::int64_t limit,
                                     DataSuccessBlock success, FailureBlock failure);

    /// GET lists?offset=&limit=, parsed by KXListParser::parse.
    static void fetchListsForPage(std::int64_t page, std::int64_t limit, ListsSuccessBlock success,
                                  FailureBlock failure);

    /// GET lists/<listId> (an absent id asks for "lists/"): a new list filled
    /// from the reply.
    static void fetchListWithId(const std::optional<std::string>& listId, ListSuccessBlock success,
                                FailureBlock failure);

    /// GET lists?tag=<tag>&offset=&limit=, or without the tag when it is absent
    /// or empty. The tag is percent-encoded, so reserved characters ("&", "#",
    /// "+", "%", ...) reach the service as part of the tag.
    static void fetchListsWithTag(const std::optional<std::string>& tag, std::int64_t page,
                                  std::int64_t limit, ListsSuccessBlock success,
                                  FailureBlock failure);

    /// POST lists/ with {"name", "externalId" (when not empty), "description"
    /// (when not empty), "tags" and "buProperties" (when not null)}; then, when
    /// the service answers, reads the "newRecordId" header of the answer and
    /// hands over the list fetched by that id (fetchListWithId; a missing header
    /// asks for "lists/").
    ///
    /// Validation reports but does not stop the request: with a `failure`, an
    /// external id that contains white space first reports code 99 "invalid
    /// externalId, remove spaces", and an absent or empty name code 99 "invalid
    /// name"; both can be reported before the request's own outcome. An absent
    /// name cannot form a body, so no request is sent then.
    static void createListWithExternalId(const std::optional<std::string>& externalId,
                                         const std::optional<std::string>& name,
                                         const std::optional<std::string>& description,
                                         const KXJSON& tags, const KXJSON& buProperties,
                                         const ListSuccessBlock& success,
                                         const FailureBlock& failure);

    KXListManager() = delete;
};
