#pragma once

#include <KXClientFramework/KXExport.h>

#include <string>

/// Where the service lives: the base URLs (scheme, host, port; no path) that the environment
/// table chooses from, and the token hosts. Deployment data, set by the application through
/// KXClientFramework::setServiceEndpoints() before or after start-up.
///
/// The defaults are placeholders under the reserved ".invalid" domain, which never resolves, so
/// an application that forgets to set them fails fast with a transport error instead of talking
/// to someone else's server. The local development server is a real default: the sandbox
/// service listens there.
struct KX_EXPORT KXServiceEndpoints {
    /// Production API host (https), used whenever the configuration is in production.
    std::string production = "https://api.kx-production.invalid";
    /// Internal test API host (plain http), environment 1.
    std::string test = "http://api.kx-test.invalid";
    /// Internal staging API host (plain http), environment 2.
    std::string staging = "http://api.kx-staging.invalid";
    /// Local development server given by IP address (plain http, port 9650), environment 3.
    std::string localServer = "http://127.0.0.1:9650";
    /// Development API host (https), environment 0, 4, 5 and every other value.
    std::string development = "https://api.kx-development.invalid";
    /// Token host in production (https); the token endpoint is this + "/token".
    std::string productionToken = "https://auth.kx-production.invalid";
    /// Token host outside production (https); the token endpoint is this + "/token".
    std::string stagingToken = "https://auth.kx-staging.invalid";

    bool operator==(const KXServiceEndpoints&) const = default;
};
