#include <KXClientFramework/KXStringExtensions.h>

#include <string_view>

bool KXStringExtensions::stringIsNilOrEmpty(const KXJSON& value) {
    return !value.is_string() || value.get_ref<const std::string&>().empty();
}

std::optional<std::string> KXStringExtensions::urlEncode(const KXJSON& value) {
    if (stringIsNilOrEmpty(value)) {
        return std::nullopt;
    }
    // Characters that are illegal in a URL are always escaped; the reserved characters
    // !*'();:@&=+$,/?%#[] and the blank are escaped as well. What stays is the unreserved set.
    static constexpr std::string_view kHex = "0123456789ABCDEF";
    const auto& text = value.get_ref<const std::string&>();
    std::string encoded;
    encoded.reserve(text.size() * 3);
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool unreserved = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
                                (byte >= '0' && byte <= '9') || byte == '-' || byte == '_' ||
                                byte == '.' || byte == '~';
        if (unreserved) {
            encoded.push_back(c);
        } else {
            encoded.push_back('%');
            encoded.push_back(kHex[byte >> 4]);
            encoded.push_back(kHex[byte & 0x0F]);
        }
    }
    return encoded;
}
