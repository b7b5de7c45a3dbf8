// Fuzzes an inbox-domain reply: the body decoded as the transport decodes it, written into the
// shared summary, whose description is then formatted.

#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxParser.h>

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    KXConfig::defaultConfig().setInboxDomainId("fuzz-domain");
    const KXJSON reply = KXHTTPSessionManager::JSONObjectWithData(
        std::string(reinterpret_cast<const char*>(data), size));
    const auto summary = KXInboxParser::parseDomainWithJSON(reply);
    if (summary && summary != KXInbox::shared().summary()) {
        __builtin_trap();  // the parser only ever fills the one shared summary
    }
    (void)KXInbox::shared().summary()->description();
    return 0;
}
