// Fuzzes a message-page reply from the bytes the transport receives to the loaded inbox: the
// body is decoded as the transport decodes it, parsed into messages, appended to the shared
// inbox and looked up. Nothing may crash, throw or leak.

#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxParser.h>

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const KXJSON reply = KXHTTPSessionManager::JSONObjectWithData(
        std::string(reinterpret_cast<const char*>(data), size));
    const auto messages = KXInboxParser::parse(reply);
    KXInbox& inbox = KXInbox::shared();
    inbox.setMessages(messages.value_or(KXInboxMessages()));
    for (const auto& message : inbox.messages()) {
        (void)inbox.indexOfMessage(*message);
        (void)inbox.messageForId(message->messageId());
    }
    (void)inbox.unreadCount();
    return 0;
}
