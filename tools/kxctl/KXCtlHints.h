#pragma once

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXJSON.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What kxctl adds to the library's own texts so that a person knows what to do next. The
// library's messages are printed unchanged; these lines go to standard error after them.
namespace kxctl {

/// For a transport error whose failing URL lies on a placeholder host (the reserved ".invalid"
/// domain that the endpoints default to): which `--endpoint NAME=URL` sets that address.
std::optional<std::string> hintForError(const KXError& error);

/// Why the run stops when the time-out runs out: before any bearer token arrived (naming the
/// token endpoint and the case where the library keeps waiting), or while waiting for answers.
std::string timeoutReason(double seconds, bool haveToken);

/// The path a call appends to the base path: one leading slash, added when missing.
std::string callPath(const std::string& path);

/// A usage problem of the environment: 1, 2 and 3 put the business unit into the base path, so
/// they need `--business-unit` outside production.
std::optional<std::string> environmentProblem(std::int64_t environment, bool hasBusinessUnit,
                                              bool inProduction);

/// Why a configuration file cannot be used, or std::nullopt when it opens with the key; the
/// opened configuration goes to `configuration`.
std::optional<std::string> configurationProblem(const std::string& path, const std::string& key,
                                                KXJSON& configuration);

}  // namespace kxctl
