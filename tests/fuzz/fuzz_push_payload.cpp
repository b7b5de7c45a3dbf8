// Fuzzes what the analytics engine takes from outside: a push payload (its broadcast identifier
// goes into the session documents and back to the service) and the session identifier the
// service answers with (it becomes part of later URLs). The payload is read within the JSON
// limits, as everything from outside is. Nothing may crash or throw, and a document built from
// any payload must serialise.

#include <KXClientFramework/KXAnalytics.h>
#include <KXClientFramework/KXAnalyticsManager.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXSession.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    (void)KXAnalyticsManager::isUsableSessionIdentifier(text);

    const KXJSON payload = KXJSONReader::parse(text).value_or(KXJSON());
    const KXJSON identifier = KXAnalytics::parseBroadcastId(payload);
    // Dates from about 1780 to 2160: within the clock's range, across the 32-bit seconds limit.
    const std::int64_t seconds =
        static_cast<std::int64_t>(size * 7919U % 12000000000U) - 6000000000;
    const auto received = std::chrono::system_clock::time_point(std::chrono::seconds(seconds));
    auto broadcast = std::make_shared<KXBroadcast>(identifier, received);

    KXSession session;
    session.setBroadcast(broadcast);
    session.setCurrentDate(received);
    session.reset();
    session.remoteBroadcastIds()->push_back(broadcast);
    // The document nodes fill in objects only and refuse anything else, leaving it as it was.
    using Node = bool (KXSession::*)(KXJSON&) const;
    for (const Node node : {&KXSession::setStartRootNode, &KXSession::setEndRootNode,
                            &KXSession::setGuestSessionNode, &KXSession::setDeviceDataNode,
                            &KXSession::setLocationNode, &KXSession::setRemoteBroadcastNode}) {
        KXJSON untouched = payload;
        if (!payload.is_object() && ((session.*node)(untouched) || untouched != payload)) {
            __builtin_trap();
        }
    }
    KXJSON document = KXJSON::object();
    session.setStartRootNode(document);
    session.setEndRootNode(document);
    session.setRemoteBroadcastNode(document);
    (void)document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return 0;
}
