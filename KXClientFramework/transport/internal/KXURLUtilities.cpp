#include "transport/internal/KXURLUtilities.h"

#include <curl/curl.h>

#include <memory>
#include <optional>

namespace kx::url {

namespace {

bool isLegal(unsigned char c) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) {
        return true;
    }
    switch (c) {
        case '-':
        case '.':
        case '_':
        case '~':
        case ':':
        case '/':
        case '?':
        case '#':
        case '@':
        case '!':
        case '$':
        case '&':
        case '\'':
        case '(':
        case ')':
        case '*':
        case '+':
        case ',':
        case ';':
        case '=':
            return true;
        default:
            return false;
    }
}

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

// A "%" that begins a percent-escape ("%2F") which the caller made on purpose.
bool isEscapeAt(std::string_view text, std::size_t i) {
    return i + 2 < text.size() && isHexDigit(text[i + 1]) && isHexDigit(text[i + 2]);
}

struct UrlDeleter {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlDeleter>;

struct CurlStringDeleter {
    void operator()(char* text) const { curl_free(text); }
};

}  // namespace

std::string escapeIllegalCharacters(std::string_view text) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string escaped;
    escaped.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (isLegal(c) || (c == '%' && isEscapeAt(text, i))) {
            escaped.push_back(text[i]);
        } else {
            escaped.push_back('%');
            escaped.push_back(hex[c >> 4]);
            escaped.push_back(hex[c & 0x0F]);
        }
    }
    return escaped;
}

namespace {

std::optional<std::string> resolveWithCurl(const std::string& base, const std::string& reference) {
    UrlHandle handle(curl_url());
    if (handle && curl_url_set(handle.get(), CURLUPART_URL, base.c_str(), 0) == CURLUE_OK &&
        curl_url_set(handle.get(), CURLUPART_URL, reference.c_str(), 0) == CURLUE_OK) {
        char* text = nullptr;
        if (curl_url_get(handle.get(), CURLUPART_URL, &text, 0) == CURLUE_OK && text != nullptr) {
            std::unique_ptr<char, CurlStringDeleter> owned(text);
            return std::string(owned.get());
        }
    }
    return std::nullopt;
}

// A reference made of an absolute path (and maybe a query and fragment) whose path has no dot
// segments: resolving it keeps the base's scheme and authority and takes the reference as it
// is, so nothing needs parsing.
bool isPlainAbsolutePath(std::string_view reference) {
    if (reference.empty() || reference[0] != '/' || (reference.size() > 1 && reference[1] == '/')) {
        return false;
    }
    const std::string_view path = reference.substr(0, reference.find_first_of("?#"));
    for (std::size_t at = 0; at < path.size(); ++at) {
        if (path[at] == '.' && path[at - 1] == '/') {
            const std::size_t next = at + 1 < path.size() && path[at + 1] == '.' ? at + 2 : at + 1;
            if (next == path.size() || path[next] == '/') {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

std::string resolve(const std::string& base, const std::string& reference) {
    if (!isPlainAbsolutePath(reference)) {
        return resolveWithCurl(base, reference).value_or(base + reference);
    }
    // Every request of a process resolves against the same base URL, so its normalised
    // scheme and authority ("http://host:port") are worked out once per thread.
    thread_local std::optional<std::string> cachedBase;
    thread_local std::optional<std::string> cachedOrigin;
    if (cachedBase != base) {
        cachedOrigin = resolveWithCurl(base, "/");
        if (cachedOrigin && cachedOrigin->back() == '/') {
            cachedOrigin->pop_back();
        } else {
            cachedOrigin.reset();
        }
        cachedBase = base;
    }
    if (!cachedOrigin) {
        return resolveWithCurl(base, reference).value_or(base + reference);
    }
    return *cachedOrigin + reference;
}

std::string host(const std::string& URL) {
    UrlHandle handle(curl_url());
    char* text = nullptr;
    if (handle && curl_url_set(handle.get(), CURLUPART_URL, URL.c_str(), 0) == CURLUE_OK &&
        curl_url_get(handle.get(), CURLUPART_HOST, &text, 0) == CURLUE_OK && text != nullptr) {
        std::unique_ptr<char, CurlStringDeleter> owned(text);
        return std::string(owned.get());
    }
    return {};
}

}  // namespace kx::url
