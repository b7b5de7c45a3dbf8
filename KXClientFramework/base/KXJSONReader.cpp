#include <KXClientFramework/KXJSONReader.h>

#include <fmt/format.h>

#include <utility>
#include <vector>

namespace {

/// Builds the value from the parser's events, refusing what the limits forbid. Returning false
/// from an event stops the parser at once.
class BoundedBuilder {
public:
    BoundedBuilder(KXJSON& root, const KXJSONLimits& limits) : root_(root), limits_(limits) {}

    bool null() { return place(nullptr) != nullptr; }
    bool boolean(bool value) { return place(value) != nullptr; }
    bool number_integer(KXJSON::number_integer_t value) { return place(value) != nullptr; }
    bool number_unsigned(KXJSON::number_unsigned_t value) { return place(value) != nullptr; }
    bool number_float(KXJSON::number_float_t value, const KXJSON::string_t& /*text*/) {
        return place(value) != nullptr;
    }
    bool string(KXJSON::string_t& value) { return place(std::move(value)) != nullptr; }
    bool binary(KXJSON::binary_t& value) {
        return place(KXJSON::binary(std::move(value))) != nullptr;
    }
    bool start_object(std::size_t /*elements*/) { return open(KXJSON::object()); }
    bool start_array(std::size_t /*elements*/) { return open(KXJSON::array()); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }

    bool key(KXJSON::string_t& key) {
        KXJSON& object = *open_.back();
        if (limits_.rejectDuplicateKeys && object.contains(key)) {
            fail(KXJSONReadError::Kind::DuplicateKey, fmt::format("duplicate key \"{}\"", key));
            return false;
        }
        slot_ = &object[key];
        return true;
    }

    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& exception) {
        fail(KXJSONReadError::Kind::Malformed, exception.what());
        return false;
    }

    const KXJSONReadError& error() const { return error_; }

private:
    void fail(KXJSONReadError::Kind kind, std::string message) {
        error_.kind = kind;
        error_.message = std::move(message);
    }

    KXJSON* place(KXJSON value) {
        if (++values_ > limits_.maximumValues) {
            fail(KXJSONReadError::Kind::TooManyValues,
                 fmt::format("JSON with more than {} values", limits_.maximumValues));
            return nullptr;
        }
        if (open_.empty()) {
            root_ = std::move(value);
            return &root_;
        }
        KXJSON& parent = *open_.back();
        if (parent.is_array()) {
            // The element stays where it is while it is open: nothing else is appended to
            // this array until it is closed.
            parent.push_back(std::move(value));
            return &parent.back();
        }
        *slot_ = std::move(value);
        return slot_;
    }

    bool open(KXJSON container) {
        if (open_.size() >= limits_.maximumDepth) {
            fail(KXJSONReadError::Kind::TooDeep,
                 fmt::format("JSON nested deeper than {} levels", limits_.maximumDepth));
            return false;
        }
        KXJSON* placed = place(std::move(container));
        if (placed == nullptr) {
            return false;
        }
        open_.push_back(placed);
        return true;
    }

    bool close() {
        open_.pop_back();
        return true;
    }

    KXJSON& root_;
    const KXJSONLimits& limits_;
    std::vector<KXJSON*> open_;
    KXJSON* slot_ = nullptr;
    std::size_t values_ = 0;
    KXJSONReadError error_{KXJSONReadError::Kind::Malformed, "malformed JSON"};
};

}  // namespace

std::optional<KXJSON> KXJSONReader::parse(std::string_view text, const KXJSONLimits& limits,
                                          KXJSONReadError* error) {
    KXJSON root;
    BoundedBuilder builder(root, limits);
    if (!KXJSON::sax_parse(text, &builder)) {
        if (error != nullptr) {
            *error = builder.error();
        }
        return std::nullopt;
    }
    return root;
}

std::size_t KXJSONReader::depth(const KXJSON& value) {
    std::size_t deepest = 0;
    std::vector<std::pair<const KXJSON*, std::size_t>> pending{{&value, 0}};
    while (!pending.empty()) {
        const auto [current, level] = pending.back();
        pending.pop_back();
        if (!current->is_structured()) {
            continue;
        }
        deepest = std::max(deepest, level + 1);
        for (const KXJSON& child : *current) {
            if (child.is_structured()) {
                pending.emplace_back(&child, level + 1);
            }
        }
    }
    return deepest;
}

std::string KXJSONReader::dump(const KXJSON& value, int indent) {
    const std::size_t limit = KXJSONLimits{}.maximumDepth;
    if (depth(value) > limit) {
        return fmt::format("\"<JSON nested deeper than {} levels>\"", limit);
    }
    return value.dump(indent, ' ', false, KXJSON::error_handler_t::replace);
}
