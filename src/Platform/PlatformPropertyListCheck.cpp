#include "Platform/PlatformPropertyListCheck.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace {

// A table of messages is one dictionary of some hundred texts; everything here is far above that.
constexpr size_t kMaximumContainers = 1000;  // bounds the nesting too
constexpr size_t kMaximumObjects = 200000;
constexpr uint64_t kMaximumPayload = 16 << 20;       // bytes of all objects, repeated ones too
constexpr uint64_t kMaximumEntityWork = 1ULL << 34;  // bytes that entities move, at most

constexpr std::string_view kBinaryMagic = "bplist00";
constexpr size_t kTrailerSize = 32;  // bytes, at the very end
constexpr uint64_t kMaximumNumberSize = 8;

/** Kinds of objects in a binary property list: the upper half of an object's first byte. */
enum Kind : uint8_t {
    kSimple = 0x0,
    kInteger = 0x1,
    kReal = 0x2,
    kDate = 0x3,
    kData = 0x4,
    kASCII = 0x5,
    kUnicode = 0x6,
    kUID = 0x8,
    kArray = 0xA,
    kSet = 0xC,
    kDictionary = 0xD,
};

/** One object: what it is and where its bytes or references are. */
struct Object {
    uint8_t kind = 0;
    uint64_t count = 0;     // bytes, units, elements or pairs
    uint64_t position = 0;  // behind kind and count

    [[nodiscard]] bool isContainer() const
    {
        return kind == kArray || kind == kSet || kind == kDictionary;
    }
    [[nodiscard]] bool isText() const { return kind == kASCII || kind == kUnicode; }
};

/** Follows a binary property list's references as its reader does, up to the limits. */
class BinaryPropertyList {
public:
    explicit BinaryPropertyList(std::string_view bytes) : _bytes(bytes) {}

    [[nodiscard]] bool isWithinLimits();

private:
    [[nodiscard]] bool _readTrailer();
    [[nodiscard]] bool _visit(const Object& object);
    [[nodiscard]] bool _followReferences(const Object& object);
    [[nodiscard]] std::optional<Object> _objectAtIndex(uint64_t index) const;
    [[nodiscard]] bool _readCount(Object& object) const;
    [[nodiscard]] uint64_t _sizeOf(const Object& object) const;
    [[nodiscard]] bool _hasNulCharacter(const Object& text) const;
    [[nodiscard]] uint64_t _number(uint64_t position, uint64_t size) const;

    std::string_view _bytes;
    uint64_t _offsetSize = 0;     // bytes of an entry in the offset table
    uint64_t _referenceSize = 0;  // bytes of a reference to an object
    uint64_t _objectCount = 0;
    uint64_t _rootIndex = 0;
    uint64_t _tablePosition = 0;  // where the objects end and the offset table begins

    std::vector<uint64_t> _pending;  // indexes of objects still to visit
    size_t _objectsFound = 1;
    size_t _containersFound = 0;
    uint64_t _payload = 0;  // bytes
};

bool BinaryPropertyList::isWithinLimits()
{
    if (!_readTrailer()) {
        return false;
    }
    _pending.push_back(_rootIndex);
    // Ends on cycles as well: every turn through one finds its container again.
    while (!_pending.empty()) {
        const std::optional<Object> object = _objectAtIndex(_pending.back());
        _pending.pop_back();
        if (!object || !_visit(*object)) {
            return false;
        }
    }
    return true;
}

bool BinaryPropertyList::_readTrailer()
{
    if (_bytes.size() < kBinaryMagic.size() + kTrailerSize || !_bytes.starts_with(kBinaryMagic)) {
        return false;
    }
    const uint64_t trailer = _bytes.size() - kTrailerSize;
    _offsetSize = _number(trailer + 6, 1);
    _referenceSize = _number(trailer + 7, 1);
    _objectCount = _number(trailer + 8, 8);
    _rootIndex = _number(trailer + 16, 8);
    _tablePosition = _number(trailer + 24, 8);
    const auto isNumberSize = [](uint64_t size) { return size >= 1 && size <= kMaximumNumberSize; };
    return isNumberSize(_offsetSize) && isNumberSize(_referenceSize) && _rootIndex < _objectCount &&
           _tablePosition >= kBinaryMagic.size() && _tablePosition <= trailer &&
           _objectCount <= (trailer - _tablePosition) / _offsetSize;
}

bool BinaryPropertyList::_visit(const Object& object)
{
    _payload += _sizeOf(object);
    if (_payload > kMaximumPayload) {
        return false;
    }
    return !object.isContainer() ||
           (++_containersFound <= kMaximumContainers && _followReferences(object));
}

bool BinaryPropertyList::_followReferences(const Object& object)
{
    const uint64_t references = _sizeOf(object) / _referenceSize;
    if (references > kMaximumObjects - _objectsFound) {
        return false;
    }
    _objectsFound += references;
    for (uint64_t number = 0; number < references; ++number) {
        const uint64_t index = _number(object.position + number * _referenceSize, _referenceSize);
        // A dictionary's keys come first. They must be texts, and the library aborts on a NUL.
        if (object.kind == kDictionary && number < object.count) {
            const std::optional<Object> key = _objectAtIndex(index);
            if (!key || !key->isText() || _hasNulCharacter(*key)) {
                return false;
            }
        }
        _pending.push_back(index);
    }
    return true;
}

/** The object at @p index; nothing unless it lies wholly between the magic and the table. */
std::optional<Object> BinaryPropertyList::_objectAtIndex(uint64_t index) const
{
    if (index >= _objectCount) {
        return std::nullopt;
    }
    const uint64_t position = _number(_tablePosition + index * _offsetSize, _offsetSize);
    if (position < kBinaryMagic.size() || position >= _tablePosition) {
        return std::nullopt;
    }
    const uint64_t marker = _number(position, 1);
    Object object{.kind = static_cast<uint8_t>(marker >> 4),
                  .count = marker & 0x0F,
                  .position = position + 1};
    if (!_readCount(object) || object.count > _bytes.size() ||
        _sizeOf(object) > _tablePosition - object.position) {
        return std::nullopt;
    }
    return object;
}

/** Replaces the marker's lower half by the count that it stands for. */
bool BinaryPropertyList::_readCount(Object& object) const
{
    constexpr uint64_t kCountFollows = 0x0F;
    switch (object.kind) {
        case kSimple:
            object.count = 0;
            return true;
        case kInteger:
        case kReal:
        case kDate:
            object.count = 1ULL << object.count;
            return object.count <= 2 * kMaximumNumberSize;
        case kUID:
            ++object.count;
            return true;
        case kData:
        case kASCII:
        case kUnicode:
        case kArray:
        case kSet:
        case kDictionary:
            break;
        default:
            return false;
    }
    if (object.count != kCountFollows) {
        return true;
    }
    if (object.position >= _tablePosition) {
        return false;
    }
    const uint64_t marker = _number(object.position, 1);
    const uint64_t size = 1ULL << (marker & 0x0F);
    ++object.position;
    if (marker >> 4 != kInteger || size > kMaximumNumberSize ||
        size > _tablePosition - object.position) {
        return false;
    }
    object.count = _number(object.position, size);
    object.position += size;
    return true;
}

/** Bytes behind kind and count. The count is at most the size of the whole. */
uint64_t BinaryPropertyList::_sizeOf(const Object& object) const
{
    switch (object.kind) {
        case kUnicode:
            return object.count * 2;
        case kArray:
        case kSet:
            return object.count * _referenceSize;
        case kDictionary:
            return object.count * 2 * _referenceSize;
        default:
            return object.count;
    }
}

bool BinaryPropertyList::_hasNulCharacter(const Object& text) const
{
    const uint64_t unitSize = text.kind == kUnicode ? 2 : 1;
    for (uint64_t unit = 0; unit < text.count; ++unit) {
        if (_number(text.position + unit * unitSize, unitSize) == 0) {
            return true;
        }
    }
    return false;
}

/** The big-endian number of @p size bytes at @p position; both lie within the bytes. */
uint64_t BinaryPropertyList::_number(uint64_t position, uint64_t size) const
{
    uint64_t number = 0;
    for (const char byte : _bytes.substr(position, size)) {
        number = (number << 8) | static_cast<uint8_t>(byte);
    }
    return number;
}

size_t occurrencesOf(std::string_view word, std::string_view text)
{
    size_t count = 0;
    for (size_t index = text.find(word); index != std::string_view::npos;
         index = text.find(word, index + word.size())) {
        ++count;
    }
    return count;
}

/** Bytes that a reader moves when it replaces every entity in place, at most. */
uint64_t entityWorkIn(std::string_view text)
{
    uint64_t work = 0;
    while (!text.empty()) {
        const std::string_view run = text.substr(0, text.find('<', 1));
        work += static_cast<uint64_t>(std::ranges::count(run, '&')) * run.size();
        text.remove_prefix(run.size());
    }
    return work;
}

}  // namespace

bool PlatformCanReadBinaryPropertyList(std::string_view bytes)
{
    return BinaryPropertyList(bytes).isWithinLimits();
}

bool PlatformCanReadXMLPropertyList(std::string_view text)
{
    // Counted wherever the words stand: no comment can hide an element from this.
    return occurrencesOf("<array", text) + occurrencesOf("<dict", text) <= kMaximumContainers &&
           entityWorkIn(text) <= kMaximumEntityWork &&
           // No character of XML, and the library aborts when it stands in a key.
           text.find('\0') == std::string_view::npos &&
           // The library takes a text that was cut off behind its root for whole.
           text.find("</plist") != std::string_view::npos;
}
