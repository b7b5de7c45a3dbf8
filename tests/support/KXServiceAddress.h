#pragma once

#include <string>

namespace kxtest {

/// Points every service endpoint, the token endpoints too, at `baseURL` and makes the shared
/// transport take it now. The transport otherwise fixes its base URL when it is first used, and
/// tests that run one after another in a process would all talk to the first test's service.
void pointServiceAt(const std::string& baseURL);

}  // namespace kxtest
