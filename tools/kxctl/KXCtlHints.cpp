#include "KXCtlHints.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXOAuth2Client.h>

#include <fmt/format.h>

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

namespace kxctl {
namespace {

bool startsWith(const std::string& text, const std::string& prefix) {
    return !prefix.empty() && text.rfind(prefix, 0) == 0;
}

std::string hostOf(const std::string& url) {
    const std::size_t scheme = url.find("://");
    const std::size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    const std::size_t end = url.find_first_of(":/?#", start);
    return url.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

}  // namespace

std::optional<std::string> hintForError(const KXError& error) {
    if (error.domain != NSURLErrorDomain || !error.userInfo.is_object()) {
        return std::nullopt;
    }
    const auto failing = error.userInfo.find("NSErrorFailingURLStringKey");
    if (failing == error.userInfo.end() || !failing->is_string()) {
        return std::nullopt;
    }
    const std::string url = failing->get<std::string>();
    const std::string host = hostOf(url);
    constexpr std::string_view kPlaceholder = ".invalid";
    if (host.size() < kPlaceholder.size() ||
        host.compare(host.size() - kPlaceholder.size(), kPlaceholder.size(), kPlaceholder) != 0) {
        return std::nullopt;
    }
    const KXServiceEndpoints endpoints = KXClientFramework::serviceEndpoints();
    const std::array<std::pair<const char*, const std::string*>, 7> names = {{
        {"production-token", &endpoints.productionToken},
        {"staging-token", &endpoints.stagingToken},
        {"production", &endpoints.production},
        {"test", &endpoints.test},
        {"staging", &endpoints.staging},
        {"local", &endpoints.localServer},
        {"development", &endpoints.development},
    }};
    std::string name = "NAME";
    for (const auto& [candidate, address] : names) {
        if (startsWith(url, *address)) {
            name = candidate;
            break;
        }
    }
    return fmt::format(
        "{} is a placeholder, not the service: give its address with --endpoint "
        "{}=URL",
        host, name);
}

std::string timeoutReason(double seconds, bool haveToken) {
    if (haveToken) {
        return fmt::format("no answer within {} s", seconds);
    }
    return fmt::format(
        "no bearer token within {} s: the token endpoint {} gave no token and no "
        "error (an answer that is not JSON leaves the library waiting for good)",
        seconds, KXOAuth2Client::tokenURL());
}

std::string callPath(const std::string& path) {
    return !path.empty() && path.front() == '/' ? path : "/" + path;
}

std::optional<std::string> environmentProblem(std::int64_t environment, bool hasBusinessUnit,
                                              bool inProduction) {
    if (inProduction || hasBusinessUnit || environment < 1 || environment > 3) {
        return std::nullopt;
    }
    return fmt::format("--env {} puts the business unit into every path: add --business-unit BU",
                       environment);
}

std::optional<std::string> configurationProblem(const std::string& path, const std::string& key,
                                                KXJSON& configuration) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        return fmt::format("cannot read the configuration file {}: {}", path, std::strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) {
        return fmt::format(
            "the configuration file {} is not a file: pass the sealed "
            "KXConfig.enc itself",
            path);
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return fmt::format("cannot read the configuration file {}: {}", path, std::strerror(errno));
    }
    const std::vector<std::uint8_t> sealed((std::istreambuf_iterator<char>(file)),
                                           std::istreambuf_iterator<char>());
    if (sealed.empty()) {
        return fmt::format("the configuration file {} is empty", path);
    }
    std::optional<KXJSON> opened = KXConfig::openSealedConfiguration(sealed, key);
    if (!opened || !opened->is_object()) {
        return fmt::format(
            "the configuration file {} does not open with this key: wrong key or "
            "damaged file",
            path);
    }
    configuration = std::move(*opened);
    return std::nullopt;
}

}  // namespace kxctl
