// Fuzzes the configuration loader: arbitrary bytes either as a sealed file opened with a fixed
// key, or as the opened property list itself (which real keys almost never reach by chance).
// Neither may crash; whatever opens must apply cleanly.

#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXPropertyList.h>

#include <cstddef>
#include <cstdint>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::vector<std::uint8_t> body(data + 1, data + size);
    KXConfig config;
    if (data[0] & 1) {
        if (auto opened = KXConfig::openSealedConfiguration(body, "fuzz-key")) {
            config.applyConfiguration(*opened);
        }
    } else if (auto plist = KXPropertyList::parse(body)) {
        config.applyConfiguration(*plist);
        (void)KXPropertyList::toXML(*plist);
    }
    (void)config.validateInboxDomainId();
    return 0;
}
