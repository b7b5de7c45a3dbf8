// Fuzzes the guest parser: arbitrary bytes go through the transport's JSON decoder (as a
// service answer does) into the current guest, twice, so that a second answer rewrites what the
// first left. Every lookup and the outbound body must then work on whatever was parsed.

#include <KXClientFramework/KXException.h>
#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXGuestParser.h>
#include <KXClientFramework/KXHTTPSessionManager.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace {

void exercise(const KXGuest& guest, const std::string& probe) {
    (void)guest.guestData().dump(-1, ' ', false, KXJSON::error_handler_t::replace);
    (void)guest.APNSDeliveryProfileWithApplicationToken(probe);
    (void)guest.deliveryProfileForId(probe);
    (void)guest.inboxDeliveryProfileWithInboxId(probe);
    (void)guest.emailDeliveryProfiles();
    (void)guest.hasInboxDeliveryProfile();
    for (auto channel : {KXChannelTypeSMS, KXChannelTypeInbox, KXChannelTypeEmail}) {
        (void)guest.currentDeliveryProfileForChannel(channel);
    }
    try {
        (void)guest.currentDeliveryProfileForChannel(KXChannelType(0));
        __builtin_trap();  // a channel of 0 must be refused
    } catch (const KXException&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string body(reinterpret_cast<const char*>(data), size);
    // The probe is a string that may well occur in the input: its first eight bytes.
    const std::string probe = body.substr(0, 8);
    const KXJSON decoded = KXHTTPSessionManager::JSONObjectWithData(body);
    const auto guest = KXGuest::currentGuest();
    KXGuestParser::parse(decoded);
    exercise(*guest, probe);
    guest->addBuProperties(decoded);
    KXGuestParser::parse(decoded.is_array() && !decoded.empty() ? decoded[0] : decoded);
    exercise(*guest, probe);
    return 0;
}
