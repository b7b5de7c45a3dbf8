#include "KXSandboxHTTP.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <random>

namespace kxsandbox {

namespace {

/// The deepest nesting of arrays and objects in `text`, counted outside strings.
int nestingDepth(const std::string& text) {
    int depth = 0;
    int deepest = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
            if (deepest > kMaxJSONDepth) {
                return deepest;
            }
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return deepest;
}

const char* typeName(const JSON& value) {
    return value.type_name();
}

/// Decodes %XX escapes; '+' stays as it is, because the library sends its form values
/// unencoded and a secret may contain one.
std::string percentDecoded(const std::string& text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() &&
            std::isxdigit(static_cast<unsigned char>(text[i + 1])) != 0 &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2])) != 0) {
            decoded.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)));
            i += 2;
        } else {
            decoded.push_back(text[i]);
        }
    }
    return decoded;
}

}  // namespace

std::map<std::string, std::string> parseFormBody(const std::string& body) {
    std::map<std::string, std::string> fields;
    std::size_t start = 0;
    while (start <= body.size()) {
        std::size_t end = body.find('&', start);
        if (end == std::string::npos) {
            end = body.size();
        }
        const std::string pair = body.substr(start, end - start);
        const std::size_t equals = pair.find('=');
        if (!pair.empty()) {
            fields.emplace(percentDecoded(pair.substr(0, equals)),
                           equals == std::string::npos ? std::string()
                                                       : percentDecoded(pair.substr(equals + 1)));
        }
        start = end + 1;
    }
    return fields;
}

std::optional<std::pair<std::string, std::string>> splitTenant(const std::string& path) {
    static const std::array<std::string, 3> kFixed = {"/KXFrontier", "/KXFrontier-stg",
                                                      "/KXFrontier-devinteg"};
    for (const std::string& base : kFixed) {
        if (path.size() > base.size() && path.compare(0, base.size(), base) == 0 &&
            path[base.size()] == '/') {
            return std::make_pair(base, path.substr(base.size() + 1));
        }
    }
    static const std::string kBusinessUnits = "/ZandrelService/rest/bu/";
    if (path.compare(0, kBusinessUnits.size(), kBusinessUnits) == 0) {
        const std::size_t slash = path.find('/', kBusinessUnits.size());
        if (slash != std::string::npos && slash > kBusinessUnits.size()) {
            return std::make_pair(path.substr(0, slash), path.substr(slash + 1));
        }
    }
    return std::nullopt;
}

JSON parseJSONBody(const std::string& text) {
    if (nestingDepth(text) > kMaxJSONDepth) {
        badRequest("the JSON body is nested deeper than " + std::to_string(kMaxJSONDepth) +
                   " levels");
    }
    JSON parsed = JSON::parse(text, nullptr, false);
    if (parsed.is_discarded()) {
        badRequest("the body is not valid JSON");
    }
    return parsed;
}

std::optional<std::string> optionalString(const JSON& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || found->is_null()) {
        return std::nullopt;
    }
    if (!found->is_string()) {
        badRequest(std::string("\"") + key + "\" must be a string, not " + typeName(*found));
    }
    return found->get<std::string>();
}

std::string requiredString(const JSON& object, const char* key) {
    std::optional<std::string> value = optionalString(object, key);
    if (!value || value->empty()) {
        badRequest(std::string("\"") + key + "\" is required");
    }
    return *value;
}

std::optional<JSON> optionalObject(const JSON& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || found->is_null()) {
        return std::nullopt;
    }
    if (!found->is_object()) {
        badRequest(std::string("\"") + key + "\" must be an object, not " + typeName(*found));
    }
    return *found;
}

std::optional<JSON> optionalStringArray(const JSON& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || found->is_null()) {
        return std::nullopt;
    }
    if (!found->is_array()) {
        badRequest(std::string("\"") + key + "\" must be an array of strings, not " +
                   typeName(*found));
    }
    for (const JSON& element : *found) {
        if (!element.is_string()) {
            badRequest(std::string("\"") + key + "\" must hold only strings, not " +
                       typeName(element));
        }
    }
    return *found;
}

std::optional<bool> optionalFlag(const JSON& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || found->is_null()) {
        return std::nullopt;
    }
    if (found->is_boolean()) {
        return found->get<bool>();
    }
    if (found->is_number_integer() && (*found == 0 || *found == 1)) {
        return *found == 1;
    }
    badRequest(std::string("\"") + key + "\" must be true, false, 0 or 1");
}

void appendJSONString(std::string& out, std::string_view text) {
    // Printable ASCII other than the quote and the backslash stands for itself; anything else
    // (escapes, UTF-8, ill-formed bytes) is left to the JSON library's own writer.
    static constexpr auto kPlain = [] {
        std::array<bool, 256> plain{};
        for (int byte = 0x20; byte < 0x7f; ++byte) {
            plain[static_cast<std::size_t>(byte)] = byte != '"' && byte != '\\';
        }
        return plain;
    }();
    for (const char c : text) {
        if (!kPlain[static_cast<unsigned char>(c)]) {
            out += JSON(std::string(text)).dump(-1, ' ', false, JSON::error_handler_t::replace);
            return;
        }
    }
    out += '"';
    out += text;
    out += '"';
}

void appendJSONInteger(std::string& out, std::int64_t value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(digits, end);
}

std::int64_t nowMilliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string newIdentifier(const std::string& prefix) {
    thread_local std::mt19937_64 generator{std::random_device{}()};
    static constexpr char kDigits[] = "0123456789abcdef";
    std::uint64_t bits = generator();
    std::string id = prefix;
    for (int i = 0; i < 16; ++i) {
        id.push_back(kDigits[bits & 0xf]);
        bits >>= 4;
    }
    return id;
}

JSON Context::object() const {
    if (body.empty()) {
        badRequest("a JSON object body is required");
    }
    JSON parsed = parseJSONBody(body);
    if (!parsed.is_object()) {
        badRequest(std::string("the body must be a JSON object, not ") + parsed.type_name());
    }
    return parsed;
}

JSON Context::objectOrEmpty() const {
    return body.empty() ? JSON::object() : object();
}

std::optional<std::string> Context::parameter(const std::string& name) const {
    const auto found = query.find(name);
    if (found == query.end()) {
        return std::nullopt;
    }
    return found->second;
}

std::int64_t Context::integerParameter(const std::string& name, std::int64_t fallback,
                                       std::int64_t maximum) const {
    const std::optional<std::string> text = parameter(name);
    if (!text) {
        return fallback;
    }
    std::int64_t value = -1;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc() || end != text->data() + text->size() || value < 0 ||
        value > maximum) {
        badRequest("\"" + name + "\" must be a whole number from 0 to " + std::to_string(maximum) +
                   ", not \"" + *text + "\"");
    }
    return value;
}

Reply Reply::created(const std::string& id, JSON record) {
    Reply reply;
    reply.status = 201;
    reply.body = std::move(record);
    reply.headers.emplace_back("newRecordId", id);
    return reply;
}

void Router::add(const std::string& method, const std::string& pattern, Handler handler) {
    routes_.push_back({method, splitPath(pattern), std::move(handler)});
}

Router::Match Router::match(const std::string& method,
                            const std::vector<std::string>& segments) const {
    Match result;
    for (const Route& route : routes_) {
        if (route.pattern.size() != segments.size()) {
            continue;
        }
        bool matches = true;
        for (std::size_t i = 0; i < segments.size() && matches; ++i) {
            matches = route.pattern[i] == "{}" || route.pattern[i] == segments[i];
        }
        if (!matches) {
            continue;
        }
        result.allowed.push_back(route.method);
        if (route.method == method && result.handler == nullptr) {
            result.handler = &route.handler;
            for (std::size_t i = 0; i < segments.size(); ++i) {
                if (route.pattern[i] == "{}") {
                    result.arguments.push_back(segments[i]);
                }
            }
        }
    }
    return result;
}

std::vector<std::string> splitPath(const std::string& path) {
    std::vector<std::string> pieces;
    std::size_t start = 0;
    for (;;) {
        const std::size_t slash = path.find('/', start);
        pieces.push_back(path.substr(start, slash - start));
        if (slash == std::string::npos) {
            return pieces;
        }
        start = slash + 1;
    }
}

}  // namespace kxsandbox
