#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>

#include <stdexcept>
#include <string>

/// Raised where the library deliberately stops the caller (for example engaging off the main
/// thread). Carries a name and a reason; what() returns the reason.
class KX_EXPORT KXException : public std::runtime_error {
public:
    KXException(std::string name, const std::string& reason, KXJSON userInfo = nullptr);

    const std::string& name() const noexcept { return name_; }
    std::string reason() const { return what(); }
    const KXJSON& userInfo() const noexcept { return userInfo_; }

private:
    std::string name_;
    KXJSON userInfo_;
};
