#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXException.h>
#include <KXClientFramework/KXJSONReader.h>

#include <fmt/format.h>

#include <utility>

KXError::KXError(std::string domain, std::int64_t code, KXJSON userInfo)
    : domain(std::move(domain)), code(code), userInfo(std::move(userInfo)) {}

KXError KXError::withMessage(const std::string& message, std::int64_t code) {
    return {NSOSStatusErrorDomain, code, KXJSON{{"message", message}}};
}

std::string KXError::localizedDescription() const {
    if (userInfo.is_object()) {
        for (const char* key : {"message", "NSLocalizedDescription"}) {
            auto it = userInfo.find(key);
            if (it != userInfo.end() && it->is_string()) {
                return it->get<std::string>();
            }
        }
    }
    return fmt::format("The operation couldn\u2019t be completed. ({} error {}.)", domain, code);
}

std::string KXError::description() const {
    const std::string info = userInfo.is_null() ? "{}" : KXJSONReader::dump(userInfo);
    return fmt::format("Error Domain={} Code={} \"{}\" UserInfo={}", domain, code,
                       localizedDescription(), info);
}

KXException::KXException(std::string name, const std::string& reason, KXJSON userInfo)
    : std::runtime_error(reason), name_(std::move(name)), userInfo_(std::move(userInfo)) {}
