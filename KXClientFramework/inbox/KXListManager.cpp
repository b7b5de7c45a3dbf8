#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXListManager.h>
#include <KXClientFramework/KXListParser.h>
#include <KXClientFramework/KXLog.h>

#include "inbox/internal/KXPaging.h"
#include "inbox/internal/KXPathSegment.h"
#include "inbox/internal/KXReceivedValue.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

namespace {

using Response = std::shared_ptr<const KXHTTPResponse>;

std::string pagedListsPath(const std::string& query, std::int64_t page, std::int64_t limit) {
    return fmt::format("{}/lists?{}offset={}&limit={}", KXSessionManager::kxBaseURI(), query,
                       kx::paging::offsetForPage(page, limit),
                       kx::paging::limitToSend(limit, KXListManager::kDefaultListLimit));
}

bool hasMoreRecords(const KXJSON& reply) {
    return kx::received::boolean(kx::received::member(reply, "hasMoreRecords"));
}

bool containsWhiteSpace(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; });
}

/// Logs a failed request at ERROR as coming from `where` (the public operation), then passes
/// the error on.
KXHTTPSessionManager::FailureBlock loggingFailure(
    KXListManager::FailureBlock failure, KXSourceLocation where = KXSourceLocation::current()) {
    return [failure = std::move(failure), where](const Response&, const KXError& error) {
        if (KXLog::isEnabled(KXLogLevel::Error)) {
            KXLog::write(KXLogLevel::Error, where, fmt::format("ERROR: {}", error.description()));
        }
        if (failure) {
            failure(error);
        }
    };
}

void fetchParsedLists(const std::string& path, KXListManager::ListsSuccessBlock success,
                      KXHTTPSessionManager::FailureBlock failure) {
    KXHTTPSessionManager::sharedManager().GET(
        path, nullptr,
        [success = std::move(success)](const Response&, const KXJSON& reply) {
            if (success) {
                success(KXListParser::parse(reply), hasMoreRecords(reply));
            }
        },
        std::move(failure));
}

}  // namespace

void KXListManager::fetchListDataForPage(std::int64_t page, std::int64_t limit,
                                         DataSuccessBlock success, FailureBlock failure) {
    KXHTTPSessionManager::sharedManager().GET(
        pagedListsPath("", page, limit), nullptr,
        [success = std::move(success)](const Response&, const KXJSON& reply) {
            if (success) {
                success(reply, hasMoreRecords(reply));
            }
        },
        loggingFailure(std::move(failure)));
}

void KXListManager::fetchListsForPage(std::int64_t page, std::int64_t limit,
                                      ListsSuccessBlock success, FailureBlock failure) {
    fetchParsedLists(pagedListsPath("", page, limit), std::move(success),
                     loggingFailure(std::move(failure)));
}

void KXListManager::fetchListsWithTag(const std::optional<std::string>& tag, std::int64_t page,
                                      std::int64_t limit, ListsSuccessBlock success,
                                      FailureBlock failure) {
    const std::string query = tag && !tag->empty() ? "tag=" + kx::pathSegment(tag) + "&" : "";
    fetchParsedLists(pagedListsPath(query, page, limit), std::move(success),
                     loggingFailure(std::move(failure)));
}

void KXListManager::fetchListWithId(const std::optional<std::string>& listId,
                                    ListSuccessBlock success, FailureBlock failure) {
    KXHTTPSessionManager::sharedManager().GET(
        fmt::format("{}/lists/{}", KXSessionManager::kxBaseURI(), kx::pathSegment(listId)), nullptr,
        [success = std::move(success)](const Response&, const KXJSON& reply) {
            auto list = std::make_shared<KXList>();
            KXListParser::parseRootWithList(list.get(), reply);
            if (success) {
                success(std::move(list));
            }
        },
        loggingFailure(std::move(failure)));
}

void KXListManager::createListWithExternalId(const std::optional<std::string>& externalId,
                                             const std::optional<std::string>& name,
                                             const std::optional<std::string>& description,
                                             const KXJSON& tags, const KXJSON& buProperties,
                                             const ListSuccessBlock& success,
                                             const FailureBlock& failure) {
    const bool hasExternalId = externalId && !externalId->empty();
    if (failure && hasExternalId && containsWhiteSpace(*externalId)) {
        failure(KXError::withMessage("invalid externalId, remove spaces"));
    }
    if (failure && (!name || name->empty())) {
        failure(KXError::withMessage("invalid name"));
    }
    if (!name) {
        return;
    }

    KXJSON body = {{"name", *name}};
    if (hasExternalId) {
        body["externalId"] = *externalId;
    }
    if (description && !description->empty()) {
        body["description"] = *description;
    }
    if (!tags.is_null()) {
        body["tags"] = tags;
    }
    if (!buProperties.is_null()) {
        body["buProperties"] = buProperties;
    }

    KXHTTPSessionManager::sharedManager().POST(
        KXSessionManager::kxBaseURI() + "/lists/", body,
        [success, failure](const Response& response, const KXJSON&) {
            std::optional<std::string> newRecordId;
            if (response) {
                newRecordId = response->valueForHTTPHeaderField("newRecordId");
            }
            fetchListWithId(newRecordId, success, failure);
        },
        [failure](const Response&, const KXError& error) {
            if (failure) {
                failure(error);
            }
        });
}
