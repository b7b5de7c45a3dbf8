#include "transport/internal/KXURLUtilities.h"

#include <curl/curl.h>

#include <memory>

namespace kx::url {

namespace {

bool isLegal(unsigned char c) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) {
        return true;
    }
    switch (c) {
        case '-': case '.': case '_': case '~':
        case ':': case '/': case '?': case '#': case '@':
        case '!': case '$': case '&': case '\'': case '(': case ')':
        case '*': case '+': case ',': case ';': case '=':
            return true;
        default:
            return false;
    }
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
    for (char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (isLegal(c)) {
            escaped.push_back(ch);
        } else {
            escaped.push_back('%');
            escaped.push_back(hex[c >> 4]);
            escaped.push_back(hex[c & 0x0F]);
        }
    }
    return escaped;
}

std::string resolve(const std::string& base, const std::string& reference) {
    UrlHandle handle(curl_url());
    if (handle && curl_url_set(handle.get(), CURLUPART_URL, base.c_str(), 0) == CURLUE_OK &&
        curl_url_set(handle.get(), CURLUPART_URL, reference.c_str(), 0) == CURLUE_OK) {
        char* text = nullptr;
        if (curl_url_get(handle.get(), CURLUPART_URL, &text, 0) == CURLUE_OK && text != nullptr) {
            std::unique_ptr<char, CurlStringDeleter> owned(text);
            return std::string(owned.get());
        }
    }
    return base + reference;
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
