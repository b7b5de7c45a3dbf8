#include "transport/internal/KXArchive.h"

#include <plist/plist.h>

#include <cstdlib>
#include <limits>
#include <memory>

namespace kx::archive {

namespace {

struct NodeDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Node = std::unique_ptr<void, NodeDeleter>;

plist_t toNode(const KXJSON& value) {
    switch (value.type()) {
        case KXJSON::value_t::string:
            return plist_new_string(value.get_ref<const std::string&>().c_str());
        case KXJSON::value_t::boolean:
            return plist_new_bool(value.get<bool>() ? 1 : 0);
        case KXJSON::value_t::number_unsigned:
            return plist_new_uint(value.get<std::uint64_t>());
        case KXJSON::value_t::number_integer: {
            const auto number = value.get<std::int64_t>();
            return number >= 0 ? plist_new_uint(static_cast<std::uint64_t>(number))
                               : plist_new_real(static_cast<double>(number));
        }
        case KXJSON::value_t::number_float:
            return plist_new_real(value.get<double>());
        case KXJSON::value_t::array: {
            plist_t array = plist_new_array();
            for (const KXJSON& item : value) {
                if (plist_t node = toNode(item)) {
                    plist_array_append_item(array, node);
                }
            }
            return array;
        }
        case KXJSON::value_t::object: {
            plist_t dict = plist_new_dict();
            for (const auto& [key, item] : value.items()) {
                if (plist_t node = toNode(item)) {
                    plist_dict_set_item(dict, key.c_str(), node);
                }
            }
            return dict;
        }
        default:
            return nullptr;
    }
}

KXJSON fromNode(plist_t node) {
    switch (plist_get_node_type(node)) {
        case PLIST_STRING: {
            char* text = nullptr;
            plist_get_string_val(node, &text);
            KXJSON result = text != nullptr ? KXJSON(std::string(text)) : KXJSON("");
            std::free(text);
            return result;
        }
        case PLIST_BOOLEAN: {
            std::uint8_t flag = 0;
            plist_get_bool_val(node, &flag);
            return flag != 0;
        }
        case PLIST_UINT: {
            std::uint64_t number = 0;
            plist_get_uint_val(node, &number);
            return number;
        }
        case PLIST_REAL: {
            double number = 0;
            plist_get_real_val(node, &number);
            return number;
        }
        case PLIST_ARRAY: {
            KXJSON array = KXJSON::array();
            const std::uint32_t size = plist_array_get_size(node);
            for (std::uint32_t i = 0; i < size; ++i) {
                array.push_back(fromNode(plist_array_get_item(node, i)));
            }
            return array;
        }
        case PLIST_DICT: {
            KXJSON object = KXJSON::object();
            plist_dict_iter iter = nullptr;
            plist_dict_new_iter(node, &iter);
            for (;;) {
                char* key = nullptr;
                plist_t item = nullptr;
                plist_dict_next_item(node, iter, &key, &item);
                if (key == nullptr) {
                    break;
                }
                object[key] = fromNode(item);
                std::free(key);
            }
            std::free(iter);
            return object;
        }
        default:
            return nullptr;
    }
}

}  // namespace

std::vector<std::uint8_t> archive(const KXJSON& value) {
    Node node(toNode(value));
    if (!node) {
        node.reset(plist_new_dict());
    }
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(static_cast<plist_t>(node.get()), &xml, &length);
    std::vector<std::uint8_t> data(xml, xml + length);
    plist_to_xml_free(xml);
    return data;
}

std::optional<KXJSON> unarchive(const std::vector<std::uint8_t>& data, std::string* why) {
    if (data.empty() || data.size() > std::numeric_limits<std::uint32_t>::max()) {
        if (why != nullptr) {
            *why = "empty or oversized archive";
        }
        return std::nullopt;
    }
    plist_t root = nullptr;
    plist_from_memory(reinterpret_cast<const char*>(data.data()),
                      static_cast<std::uint32_t>(data.size()), &root);
    if (root == nullptr) {
        if (why != nullptr) {
            *why = "data is not a property list";
        }
        return std::nullopt;
    }
    Node owner(root);
    return fromNode(root);
}

}  // namespace kx::archive
