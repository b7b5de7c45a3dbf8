#pragma once

#include <KXClientFramework/KXJSON.h>

#include <string>
#include <vector>

namespace kxconfig {

/// Everything in an opened configuration that the library would not read as written, one
/// sentence each: a value of another type than the key's (the library would convert it or
/// ignore it), an analytics interval below the minimum or beyond the integers, and missing
/// client credentials for the environment the configuration selects. Unknown keys are not
/// problems (the library ignores them).
std::vector<std::string> configurationProblems(const KXJSON& configuration);

}  // namespace kxconfig
