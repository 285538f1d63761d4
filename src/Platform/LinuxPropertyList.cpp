#include "Platform/PlatformPropertyList.h"

#include <plist/plist.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <type_traits>

#include "Platform/PlatformPropertyListCheck.h"

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBinaryMagic = "bplist";
constexpr std::string_view kXMLWhitespace = " \t\r\n";

struct NodeDeleter {
    void operator()(void* node) const { plist_free(node); }
};
/** A property list, freed with all that is in it. */
using Node = std::unique_ptr<std::remove_pointer_t<plist_t>, NodeDeleter>;

struct MemoryDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
using Iterator = std::unique_ptr<void, MemoryDeleter>;
using Key = std::unique_ptr<char, MemoryDeleter>;

/** The property list in @p bytes; null for other forms, such as JSON, that the library may know. */
Node nodeWithBytes(std::string_view bytes)
{
    plist_t node = nullptr;
    const auto size = static_cast<uint32_t>(bytes.size());
    if (bytes.starts_with(kBinaryMagic)) {
        if (PlatformCanReadBinaryPropertyList(bytes)) {
            plist_from_bin(bytes.data(), size, &node);
        }
        return Node(node);
    }
    const size_t start = bytes.find_first_not_of(kXMLWhitespace);
    if (start != std::string_view::npos && bytes[start] == '<' &&
        PlatformCanReadXMLPropertyList(bytes)) {
        plist_from_xml(bytes.data(), size, &node);
    }
    return Node(node);
}

PlatformPropertyListStrings stringsOf(plist_t dictionary)
{
    PlatformPropertyListStrings strings;
    plist_dict_iter rawIterator = nullptr;
    plist_dict_new_iter(dictionary, &rawIterator);
    const Iterator iterator(rawIterator);
    if (iterator == nullptr) {
        return strings;
    }
    while (true) {
        char* rawKey = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(dictionary, iterator.get(), &rawKey, &value);
        const Key key(rawKey);
        if (key == nullptr || value == nullptr) {
            return strings;
        }
        if (plist_get_node_type(value) == PLIST_STRING) {
            uint64_t size = 0;
            const char* const text = plist_get_string_ptr(value, &size);
            strings[key.get()] = text != nullptr ? std::string(text, size) : std::string();
        }
    }
}

}  // namespace

std::optional<PlatformPropertyListStrings> PlatformStringsInPropertyList(std::string_view bytes)
{
    if (bytes.starts_with(kByteOrderMark)) {
        bytes.remove_prefix(kByteOrderMark.size());
    }
    if (bytes.size() > std::numeric_limits<uint32_t>::max()) {
        return std::nullopt;
    }
    const Node root = nodeWithBytes(bytes);
    if (root == nullptr || plist_get_node_type(root.get()) != PLIST_DICT) {
        return std::nullopt;
    }
    return stringsOf(root.get());
}
