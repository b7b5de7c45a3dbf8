#pragma once

#include <KXClientFramework/KXExport.h>

#include <map>
#include <string>
#include <string_view>

/// Orders header names without regard to ASCII case, so that a lookup of "newRecordId" finds
/// "newrecordid" (HTTP/2 sends every header name in lower case).
struct KX_EXPORT KXCaseInsensitiveLess {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const noexcept;
    /// True when `a` and `b` differ at most in ASCII case.
    static bool equal(std::string_view a, std::string_view b) noexcept;
};

/// HTTP header fields by name, compared case-insensitively. When an answer repeats a field, the
/// values are joined with ", " into one entry.
using KXHTTPHeaders = std::map<std::string, std::string, KXCaseInsensitiveLess>;

/// One HTTP answer as the transport hands it to callbacks: what a data task and its URL response
/// were on the phone. A callback receives it only when a complete answer arrived; transport
/// failures and token failures give a null response instead.
struct KX_EXPORT KXHTTPResponse {
    /// The HTTP status code (0 only for a record that was never answered).
    long statusCode = 0;
    /// The response header fields (after redirects: those of the final answer).
    KXHTTPHeaders headers;
    /// The body as received, after content decoding.
    std::string body;
    /// The absolute URL that gave this answer.
    std::string URL;
    /// The HTTP version the answer came in: "1.0", "1.1", "2" or "3" (empty when unknown).
    /// HTTP/2 is used over HTTPS when the server offers it.
    std::string HTTPVersion;

    /// The value of header `name`, or the empty string.
    std::string valueForHTTPHeaderField(std::string_view name) const;
};
