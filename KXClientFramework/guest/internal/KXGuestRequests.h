#pragma once

// What the guest operations share: URLs, the validation guard and the transport callbacks.

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXException.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXJSON.h>

#include <exception>
#include <functional>
#include <optional>
#include <string>

namespace kxguest {

using Failure = std::function<void(const KXError&)>;

/// "<base URI>" followed by the given path pieces, inserted unchanged.
std::string guestURL(std::initializer_list<std::string_view> pieces);

/// True for a present, non-empty text.
inline bool isPresent(const std::optional<std::string>& text) {
    return text && !text->empty();
}

/// The text logged for a possibly absent value.
inline std::string describe(const std::optional<std::string>& text) {
    return text ? *text : "(null)";
}

/// Raises the validation exception `name` / `reason` unless `ok`.
inline void require(bool ok, const char* name, const char* reason) {
    if (!ok) {
        throw KXException(name, reason);
    }
}

/// Runs `block` and returns the reason of the exception it raised, if any.
template <typename Block>
std::optional<std::string> failedReason(Block&& block) {
    try {
        block();
        return std::nullopt;
    } catch (const KXException& exception) {
        return exception.reason();
    } catch (const std::exception& exception) {
        return std::string(exception.what());
    }
}

/// Calls `failure`, when given, with the library's code-99 error for `message`.
void failWithMessage(const Failure& failure, const std::string& message);

/// A transport failure callback that logs "ERROR: <error>" and passes the error on.
KXHTTPSessionManager::FailureBlock loggedFailure(Failure failure);

/// The transport's shared client.
inline KXHTTPSessionManager& transport() {
    return KXHTTPSessionManager::sharedManager();
}

/// The "newRecordId" header of an answer, whatever the case of its name; absent when the
/// answer has none or an empty one.
std::optional<std::string> newRecordId(const KXHTTPResponse* response);

}  // namespace kxguest
