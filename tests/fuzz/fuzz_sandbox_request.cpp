// The sandbox's reading of request data: JSON bodies (depth check, parse, the typed member
// reads), form bodies of the token endpoint, and request paths (tenant and segments). Every
// input must end in a value or an APIError, never a crash, a hang or another exception.
#include "KXSandboxHTTP.h"

#include <cstddef>
#include <cstdint>
#include <string>

using namespace kxsandbox;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);

    try {
        const JSON body = parseJSONBody(input);
        if (body.is_object()) {
            for (const char* key : {"externalId", "languagePref", "name", "time"}) {
                optionalString(body, key);
            }
            optionalObject(body, "buProperties");
            optionalStringArray(body, "tags");
            optionalFlag(body, "enabled");
            requiredString(body, "name");
        }
    } catch (const APIError& error) {
        if (error.status() != 400) {
            __builtin_trap();
        }
    }

    parseFormBody(input);
    if (const auto tenant = splitTenant(input)) {
        splitPath(tenant->second);
    }
    return 0;
}
