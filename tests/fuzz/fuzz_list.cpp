// Fuzzes the list replies: the body decoded as the transport decodes it, read as a page of
// lists and as one list record (the reply of a fetch by id).

#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXListParser.h>

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const KXJSON reply = KXHTTPSessionManager::JSONObjectWithData(
        std::string(reinterpret_cast<const char*>(data), size));
    if (const auto lists = KXListParser::parse(reply)) {
        for (const auto& list : *lists) {
            if (!list) {
                __builtin_trap();
            }
        }
    }
    KXList list;
    (void)KXListParser::parseRootWithList(&list, reply);
    return 0;
}
