#include "inbox/internal/KXPathSegment.h"

#include <KXClientFramework/KXStringExtensions.h>

namespace kx {

std::string pathSegment(const std::optional<std::string>& value) {
    if (!value) {
        return {};
    }
    // "." and ".." would be resolved away as dot segments and reach another resource.
    if (*value == ".") {
        return "%2E";
    }
    if (*value == "..") {
        return "%2E%2E";
    }
    return KXStringExtensions::urlEncode(*value).value_or(std::string());
}

}  // namespace kx
