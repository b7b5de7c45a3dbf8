// Fuzzes the decoder of the service's answers: arbitrary bytes as a body, decoded as the
// transport decodes every answer, then used the ways answers are used (described in an error,
// printed, checked as a token answer, converted to a property list). Nothing may crash, recurse
// without a bound or build more than the limits allow.

#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXOAuth2Client.h>
#include <KXClientFramework/KXPropertyList.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view body(reinterpret_cast<const char*>(data), size);
    std::optional<KXError> refusal;
    const KXJSON object = KXHTTPSessionManager::decodeJSONAnswer(body, &refusal);
    if (!object.is_null() && !object.is_object() && !object.is_array()) {
        std::abort();  // only a top-level object or array is an answer
    }
    if (refusal && !object.is_null()) {
        std::abort();  // a refused body gives nothing
    }
    if (KXJSONReader::depth(object) > KXJSONLimits{}.maximumDepth) {
        std::abort();
    }
    (void)KXError(NSOSStatusErrorDomain, 500, object).description();
    if (refusal) {
        (void)refusal->description();
    }
    if (object.is_object()) {
        (void)KXOAuth2Client::unusableTokenAnswer(object);
    }
    (void)KXPropertyList::toXML(object);
    return 0;
}
