#include <KXClientFramework/KXHTTPResponse.h>

#include <algorithm>

namespace {

constexpr char lower(char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
}

}  // namespace

bool KXCaseInsensitiveLess::operator()(std::string_view a, std::string_view b) const noexcept {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [](char x, char y) { return lower(x) < lower(y); });
}

bool KXCaseInsensitiveLess::equal(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char x, char y) { return lower(x) == lower(y); });
}

std::string KXHTTPResponse::valueForHTTPHeaderField(std::string_view name) const {
    auto it = headers.find(name);
    return it == headers.end() ? std::string() : it->second;
}
