// Fuzzes a message-details reply: the body decoded as the transport decodes it, then read into
// a message that already holds a header, as a details fetch does.

#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXInboxParser.h>

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const KXJSON reply = KXHTTPSessionManager::JSONObjectWithData(
        std::string(reinterpret_cast<const char*>(data), size));
    KXInboxMessage message;
    KXInboxParser::parseMessage({{"id", "m1"}, {"subject", "s"}, {"flags", {{"read", true}}}},
                                message);
    KXInboxParser::parseMessage(message, reply, message.messageId());
    if (message.messageId() != "m1") {
        __builtin_trap();  // the id given always wins over the reply's
    }
    return 0;
}
