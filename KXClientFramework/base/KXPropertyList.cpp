#include <KXClientFramework/KXPropertyList.h>

#include <plist/plist.h>

#include <fmt/format.h>

#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <utility>

namespace {

// Seconds between the Unix epoch and the property-list epoch (2001-01-01T00:00:00Z).
constexpr std::int64_t kPropertyListEpochOffset = 978307200;

struct PlistDeleter {
    void operator()(plist_t node) const {
        if (node != nullptr) {
            plist_free(node);
        }
    }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

// ---------------------------------------------------------------------------------------------
// UTF-8

// Length of the valid UTF-8 sequence starting at `s[i]`, or 0 when it is not valid (overlong
// forms, surrogates and code points above U+10FFFF are invalid).
std::size_t validSequenceLength(std::string_view s, std::size_t i) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char c = byte(i);
    if (c < 0x80) {
        return 1;
    }
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
        length = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        length = 3;
        if (c == 0xE0) {
            low = 0xA0;
        } else if (c == 0xED) {
            high = 0x9F;
        }
    } else if (c >= 0xF0 && c <= 0xF4) {
        length = 4;
        if (c == 0xF0) {
            low = 0x90;
        } else if (c == 0xF4) {
            high = 0x8F;
        }
    } else {
        return 0;
    }
    if (i + length > s.size()) {
        return 0;
    }
    if (byte(i + 1) < low || byte(i + 1) > high) {
        return 0;
    }
    for (std::size_t k = 2; k < length; ++k) {
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) {
            return 0;
        }
    }
    return length;
}

bool isValidUTF8(std::string_view s) {
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t n = validSequenceLength(s, i);
        if (n == 0) {
            return false;
        }
        i += n;
    }
    return true;
}

// `s` with every byte that does not start a valid sequence, and every U+0000 (which libplist
// cannot store inside a string), replaced by U+FFFD.
std::string sanitizedUTF8(const std::string& s) {
    if (isValidUTF8(s) && s.find('\0') == std::string::npos) {
        return s;
    }
    std::string out;
    out.reserve(s.size() + 8);
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t n = validSequenceLength(s, i);
        if (n == 0 || s[i] == '\0') {
            out += "\xEF\xBF\xBD";
            ++i;
        } else {
            out.append(s, i, n);
            i += n;
        }
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// Structural checks made before the input reaches libplist, whose parsers recurse without a
// depth limit and expand shared objects of binary property lists without a size limit.

std::uint64_t readBigEndian(const std::uint8_t* p, std::size_t n) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < n; ++i) {
        v = (v << 8) | p[i];
    }
    return v;
}

class BinaryStructureCheck {
public:
    explicit BinaryStructureCheck(std::span<const std::uint8_t> data) : data_(data) {}

    bool run() {
        constexpr std::size_t kHeader = 8;
        constexpr std::size_t kTrailer = 32;
        if (data_.size() < kHeader + kTrailer + 1) {
            return false;
        }
        const std::uint8_t* trailer = data_.data() + data_.size() - kTrailer;
        offsetSize_ = trailer[6];
        refSize_ = trailer[7];
        objectCount_ = readBigEndian(trailer + 8, 8);
        const std::uint64_t top = readBigEndian(trailer + 16, 8);
        tableOffset_ = readBigEndian(trailer + 24, 8);
        const std::uint64_t objectsEnd = data_.size() - kTrailer;
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) {
            return false;
        }
        if (objectCount_ == 0 || top >= objectCount_ || tableOffset_ < kHeader ||
            tableOffset_ >= objectsEnd) {
            return false;
        }
        if (objectCount_ > (objectsEnd - tableOffset_) / offsetSize_) {
            return false;
        }
        // A reference wider than needed is fine, but one that cannot address every object
        // would make later indexes wrap.
        if (refSize_ < 8 && objectCount_ > (std::uint64_t{1} << (8 * refSize_))) {
            return false;
        }
        offsets_.resize(objectCount_);
        for (std::uint64_t i = 0; i < objectCount_; ++i) {
            const std::uint64_t offset =
                readBigEndian(data_.data() + tableOffset_ + i * offsetSize_, offsetSize_);
            if (offset < kHeader || offset >= tableOffset_) {
                return false;
            }
            offsets_[i] = offset;
        }
        return walk(top);
    }

private:
    struct Children {
        std::uint64_t refsAt = 0;
        std::uint64_t count = 0;
    };

    // Reads the size field of the object at `at`: the marker's low nibble, or when that is 0x0F
    // the integer object that follows it. Leaves `at` just past the field; false when the field
    // is malformed or runs past the object table.
    bool readSize(std::uint64_t& at, std::uint64_t& size) const {
        size = data_[at] & 0x0F;
        ++at;
        if (size != 0x0F) {
            return true;
        }
        if (at >= tableOffset_) {
            return false;
        }
        const std::uint8_t intMarker = data_[at];
        if ((intMarker >> 4) != 0x1 || (intMarker & 0x0F) > 3) {
            return false;
        }
        const std::size_t width = std::size_t{1} << (intMarker & 0x0F);
        ++at;
        if (at + width > tableOffset_) {
            return false;
        }
        size = readBigEndian(data_.data() + at, width);
        at += width;
        return true;
    }

    // Where the child references of object `index` start and how many there are; a count of
    // zero for scalars. False when the object's header runs out of bounds.
    bool children(std::uint64_t index, Children& out) const {
        std::uint64_t at = offsets_[index];
        const std::uint8_t type = data_[at] >> 4;
        if (type != 0xA && type != 0xB && type != 0xC && type != 0xD) {
            out = {};
            return true;
        }
        std::uint64_t count = 0;
        if (!readSize(at, count)) {
            return false;
        }
        const std::uint64_t refs = type == 0xD ? 2 : 1;
        const std::uint64_t room = (tableOffset_ - at) / refSize_;
        if (count > room / refs) {
            return false;
        }
        out.refsAt = at;
        out.count = count * refs;
        if (type == 0xD) {
            for (std::uint64_t k = 0; k < count; ++k) {
                const std::uint64_t key = child(out, k);
                if (key >= objectCount_ || !isUsableKey(key)) {
                    return false;
                }
            }
        }
        return true;
    }

    // Dictionary keys must be strings without U+0000 (libplist asserts on such keys).
    bool isUsableKey(std::uint64_t index) const {
        std::uint64_t at = offsets_[index];
        const std::uint8_t type = data_[at] >> 4;
        if (type != 0x5 && type != 0x6) {
            return false;
        }
        std::uint64_t length = 0;
        if (!readSize(at, length)) {
            return false;
        }
        const std::uint64_t unit = type == 0x6 ? 2 : 1;
        if (length > (tableOffset_ - at) / unit) {
            return false;
        }
        for (std::uint64_t i = 0; i < length; ++i) {
            const std::uint8_t* p = data_.data() + at + i * unit;
            if (p[0] == 0 && (unit == 1 || p[1] == 0)) {
                return false;
            }
        }
        return true;
    }

    std::uint64_t child(const Children& c, std::uint64_t k) const {
        return readBigEndian(data_.data() + c.refsAt + k * refSize_, refSize_);
    }

    // Depth-first walk from the top object with an explicit stack: rejects cycles, nesting
    // deeper than the limit and a total expansion above the limit (each object counted once
    // for every path that reaches it, which is what the parser will build).
    bool walk(std::uint64_t top) {
        enum : std::uint8_t { Unvisited, Active, Done };
        std::vector<std::uint8_t> state(objectCount_, Unvisited);
        std::vector<std::uint64_t> expanded(objectCount_, 0);
        std::vector<std::uint32_t> height(objectCount_, 0);
        struct Frame {
            std::uint64_t index;
            Children children;
            std::uint64_t next;
        };
        std::vector<Frame> stack;
        auto enter = [&](std::uint64_t index) {
            Children c;
            if (!children(index, c)) {
                return false;
            }
            state[index] = Active;
            stack.push_back({index, c, 0});
            return stack.size() <= KXPropertyList::kMaximumDepth + 1;
        };
        if (!enter(top)) {
            return false;
        }
        while (!stack.empty()) {
            Frame& frame = stack.back();
            if (frame.next < frame.children.count) {
                const std::uint64_t c = child(frame.children, frame.next++);
                if (c >= objectCount_ || state[c] == Active) {
                    return false;
                }
                if (state[c] == Unvisited && !enter(c)) {
                    return false;
                }
                continue;
            }
            std::uint64_t total = 1;
            std::uint32_t tallest = 0;
            for (std::uint64_t k = 0; k < frame.children.count; ++k) {
                const std::uint64_t c = child(frame.children, k);
                total += expanded[c];
                if (total > KXPropertyList::kMaximumObjects) {
                    return false;
                }
                tallest = std::max(tallest, height[c]);
            }
            const std::uint8_t type = data_[offsets_[frame.index]] >> 4;
            const bool container = type == 0xA || type == 0xB || type == 0xC || type == 0xD;
            height[frame.index] = tallest + (container ? 1 : 0);
            if (height[frame.index] > KXPropertyList::kMaximumDepth) {
                return false;
            }
            expanded[frame.index] = total;
            state[frame.index] = Done;
            stack.pop_back();
        }
        return true;
    }

    std::span<const std::uint8_t> data_;
    std::size_t offsetSize_ = 0;
    std::size_t refSize_ = 0;
    std::uint64_t objectCount_ = 0;
    std::uint64_t tableOffset_ = 0;
    std::vector<std::uint64_t> offsets_;
};

bool startsWith(std::string_view text, std::size_t at, std::string_view prefix) {
    return text.compare(at, prefix.size(), prefix) == 0;
}

// An upper bound of how deeply <array> and <dict> elements nest in an XML property list. Tags
// inside comments or CDATA sections are counted too, which can only overestimate.
std::size_t xmlNestingBound(std::string_view xml) {
    std::size_t depth = 0;
    std::size_t deepest = 0;
    for (std::size_t i = xml.find('<'); i != std::string_view::npos; i = xml.find('<', i + 1)) {
        const bool closing = startsWith(xml, i + 1, "/");
        const std::size_t nameAt = i + (closing ? 2 : 1);
        std::size_t nameLength = 0;
        if (startsWith(xml, nameAt, "array")) {
            nameLength = 5;
        } else if (startsWith(xml, nameAt, "dict")) {
            nameLength = 4;
        } else {
            continue;
        }
        const std::size_t after = nameAt + nameLength;
        if (after < xml.size() && xml[after] != '>' && xml[after] != '/' && xml[after] != ' ' &&
            xml[after] != '\t' && xml[after] != '\r' && xml[after] != '\n') {
            continue;  // another element whose name merely starts the same way
        }
        const std::size_t end = xml.find('>', after);
        const bool selfClosing =
            end != std::string_view::npos && end > after && xml[end - 1] == '/';
        if (closing) {
            depth = depth > 0 ? depth - 1 : 0;
        } else if (!selfClosing) {
            deepest = std::max(deepest, ++depth);
        }
    }
    return deepest;
}

// ---------------------------------------------------------------------------------------------
// Property list to KXJSON

std::string isoDate(std::int32_t seconds, std::int32_t microseconds) {
    std::int64_t unixSeconds = kPropertyListEpochOffset + seconds;
    std::int64_t micros = microseconds;
    // Keep the fraction in [0, 1 s) so that dates before a whole second print correctly.
    unixSeconds += micros / 1'000'000;
    micros %= 1'000'000;
    if (micros < 0) {
        micros += 1'000'000;
        unixSeconds -= 1;
    }
    const std::time_t t = static_cast<std::time_t>(unixSeconds);
    std::tm parts{};
    gmtime_r(&t, &parts);
    std::string text =
        fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", parts.tm_year + 1900, parts.tm_mon + 1,
                    parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    if (micros != 0) {
        std::string fraction = fmt::format("{:06}", micros);
        while (!fraction.empty() && fraction.back() == '0') {
            fraction.pop_back();
        }
        text += "." + fraction;
    }
    return text + "Z";
}

// libplist keeps integers in 64 bits and remembers separately whether a value above
// INT64_MAX is unsigned; that flag shows only in what the writer prints.
bool isUnsignedAboveInt64(plist_t node) {
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(node, &xml, &length);
    if (xml == nullptr) {
        return false;
    }
    const std::string_view text(xml, length);
    const std::size_t at = text.find("<integer>");
    const bool negative = at != std::string_view::npos && startsWith(text, at + 9, "-");
    plist_to_xml_free(xml);
    return !negative;
}

bool toJSON(plist_t node, std::size_t depth, KXJSON& out) {
    if (depth > KXPropertyList::kMaximumDepth) {
        return false;
    }
    switch (plist_get_node_type(node)) {
        case PLIST_DICT: {
            out = KXJSON::object();
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            if (it == nullptr) {
                return false;
            }
            bool ok = true;
            while (ok) {
                char* key = nullptr;
                plist_t value = nullptr;
                plist_dict_next_item(node, it, &key, &value);
                if (value == nullptr) {
                    std::free(key);
                    break;
                }
                std::string name = key != nullptr ? key : "";
                std::free(key);
                KXJSON converted;
                ok = isValidUTF8(name) && toJSON(value, depth + 1, converted);
                if (ok) {
                    out[std::move(name)] = std::move(converted);
                }
            }
            std::free(it);
            return ok;
        }
        case PLIST_ARRAY: {
            out = KXJSON::array();
            const std::uint32_t n = plist_array_get_size(node);
            for (std::uint32_t i = 0; i < n; ++i) {
                KXJSON converted;
                if (!toJSON(plist_array_get_item(node, i), depth + 1, converted)) {
                    return false;
                }
                out.push_back(std::move(converted));
            }
            return true;
        }
        case PLIST_STRING: {
            std::uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            if (text == nullptr) {
                out = "";
                return true;
            }
            std::string value(text, length);
            if (!isValidUTF8(value)) {
                return false;
            }
            out = std::move(value);
            return true;
        }
        case PLIST_BOOLEAN: {
            std::uint8_t value = 0;
            plist_get_bool_val(node, &value);
            out = value != 0;
            return true;
        }
        case PLIST_UINT: {
            std::uint64_t value = 0;
            plist_get_uint_val(node, &value);
            if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) &&
                isUnsignedAboveInt64(node)) {
                out = value;
            } else {
                out = static_cast<std::int64_t>(value);
            }
            return true;
        }
        case PLIST_REAL: {
            double value = 0.0;
            plist_get_real_val(node, &value);
            out = value;
            return true;
        }
        case PLIST_DATE: {
            std::int32_t seconds = 0;
            std::int32_t microseconds = 0;
            plist_get_date_val(node, &seconds, &microseconds);
            out = isoDate(seconds, microseconds);
            return true;
        }
        case PLIST_DATA: {
            std::uint64_t length = 0;
            const char* bytes = plist_get_data_ptr(node, &length);
            KXJSON::binary_t::container_type buffer;
            if (bytes != nullptr && length > 0) {
                buffer.assign(reinterpret_cast<const std::uint8_t*>(bytes),
                              reinterpret_cast<const std::uint8_t*>(bytes) + length);
            }
            out = KXJSON::binary(std::move(buffer));
            return true;
        }
        case PLIST_UID: {
            std::uint64_t value = 0;
            plist_get_uid_val(node, &value);
            out = KXJSON{{"CF$UID", value}};
            return true;
        }
        case PLIST_KEY:
        case PLIST_NONE:
        default:
            return false;
    }
}

// ---------------------------------------------------------------------------------------------
// KXJSON to property list

plist_t newUnsigned(std::uint64_t value) {
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return plist_new_uint(value);
    }
    // libplist's public interface makes every new integer signed; the XML reader is the one
    // way to get a node that keeps an unsigned value above INT64_MAX.
    const std::string xml = fmt::format("<plist><integer>{}</integer></plist>", value);
    plist_t node = nullptr;
    plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &node);
    return node != nullptr ? node : plist_new_uint(value);
}

// A new node for `value`, or null when `value` is null (skipped) or nests too deeply (`ok`
// then turns false).
plist_t toPlist(const KXJSON& value, std::size_t depth, bool& ok) {
    if (depth > KXPropertyList::kMaximumDepth) {
        ok = false;
        return nullptr;
    }
    switch (value.type()) {
        case KXJSON::value_t::object:
        case KXJSON::value_t::array: {
            const bool isObject = value.is_object();
            PlistPtr container(isObject ? plist_new_dict() : plist_new_array());
            for (auto it = value.begin(); it != value.end(); ++it) {
                plist_t child = toPlist(*it, depth + 1, ok);
                if (!ok) {
                    return nullptr;
                }
                if (child == nullptr) {
                    continue;
                }
                if (isObject) {
                    plist_dict_set_item(container.get(), sanitizedUTF8(it.key()).c_str(), child);
                } else {
                    plist_array_append_item(container.get(), child);
                }
            }
            return container.release();
        }
        case KXJSON::value_t::string:
            return plist_new_string(sanitizedUTF8(value.get_ref<const std::string&>()).c_str());
        case KXJSON::value_t::boolean:
            return plist_new_bool(value.get<bool>() ? 1 : 0);
        case KXJSON::value_t::number_integer:
            return plist_new_uint(static_cast<std::uint64_t>(value.get<std::int64_t>()));
        case KXJSON::value_t::number_unsigned:
            return newUnsigned(value.get<std::uint64_t>());
        case KXJSON::value_t::number_float:
            return plist_new_real(value.get<double>());
        case KXJSON::value_t::binary: {
            const auto& bytes = value.get_binary();
            return plist_new_data(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        }
        case KXJSON::value_t::null:
        case KXJSON::value_t::discarded:
        default:
            return nullptr;
    }
}

PlistPtr rootFor(const KXJSON& value) {
    bool ok = true;
    PlistPtr root(toPlist(value, 0, ok));
    if (!ok) {
        return nullptr;
    }
    if (!root) {
        root.reset(plist_new_dict());
    }
    return root;
}

// `value` written by one of libplist's writers into `Bytes`; empty when it cannot be written.
template <typename Bytes, typename Writer, typename Release>
Bytes written(const KXJSON& value, Writer write, Release release) {
    PlistPtr root = rootFor(value);
    if (!root) {
        return {};
    }
    char* bytes = nullptr;
    std::uint32_t length = 0;
    write(root.get(), &bytes, &length);
    if (bytes == nullptr) {
        return {};
    }
    Bytes out(bytes, bytes + length);
    release(bytes);
    return out;
}

}  // namespace

bool KXPropertyList::isBinary(std::span<const std::uint8_t> bytes) {
    static constexpr char kMagic[] = "bplist00";
    return bytes.size() >= 8 && std::memcmp(bytes.data(), kMagic, 8) == 0;
}

std::optional<KXJSON> KXPropertyList::parse(std::string_view bytes) {
    return parse(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                               bytes.size()));
}

std::optional<KXJSON> KXPropertyList::parse(std::span<const std::uint8_t> bytes) {
    if (bytes.empty() || bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        return std::nullopt;
    }
    const auto* chars = reinterpret_cast<const char*>(bytes.data());
    const auto length = static_cast<std::uint32_t>(bytes.size());
    plist_t raw = nullptr;
    if (isBinary(bytes)) {
        if (!BinaryStructureCheck(bytes).run()) {
            return std::nullopt;
        }
        plist_from_bin(chars, length, &raw);
    } else {
        if (xmlNestingBound(std::string_view(chars, bytes.size())) > kMaximumDepth) {
            return std::nullopt;
        }
        plist_from_xml(chars, length, &raw);
    }
    PlistPtr root(raw);
    if (!root) {
        return std::nullopt;
    }
    KXJSON out;
    if (!toJSON(root.get(), 0, out)) {
        return std::nullopt;
    }
    return out;
}

std::string KXPropertyList::toXML(const KXJSON& value) {
    return written<std::string>(value, plist_to_xml, plist_to_xml_free);
}

std::vector<std::uint8_t> KXPropertyList::toBinary(const KXJSON& value) {
    return written<std::vector<std::uint8_t>>(value, plist_to_bin, plist_to_bin_free);
}
