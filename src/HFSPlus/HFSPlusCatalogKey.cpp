#include "HFSPlus/HFSPlusCatalogKey.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kHeadSize = sizeof(HFSPlusCatalogKeyHead);

HFSPlusCatalogKeyHead headOfKey(std::span<const uint8_t> key)
{
    HFSPlusCatalogKeyHead head;
    std::memcpy(&head, key.data(), kHeadSize);
    return head;
}

}  // namespace

HFSPlusCatalogKey::HFSPlusCatalogKey(uint32_t cnid)
{
    _setHead(cnid, 0);
}

HFSPlusCatalogKey::HFSPlusCatalogKey(uint32_t parentID, std::u16string_view name)
{
    const std::u16string_view fitting = name.substr(0, kHFSPlusMaxFileNameLength);
    _setHead(parentID, fitting.size());
    uint8_t* next = _bytes.data() + kHeadSize;
    for (const char16_t unit : fitting) {
        *next++ = static_cast<uint8_t>(unit >> 8);
        *next++ = static_cast<uint8_t>(unit & 0xFF);
    }
}

HFSPlusCatalogKey::HFSPlusCatalogKey(uint32_t parentID, std::span<const uint8_t> name)
{
    const size_t length = std::min(name.size() / 2, kHFSPlusMaxFileNameLength);
    _setHead(parentID, length);
    std::copy_n(name.data(), 2 * length, _bytes.data() + kHeadSize);
}

uint32_t HFSPlusCatalogKey::parentID() const
{
    return HFSPlusCatalogKeyParentID(bytes());
}

std::span<const uint8_t> HFSPlusCatalogKey::name() const
{
    return bytes().subspan(kHeadSize);
}

void HFSPlusCatalogKey::_setHead(uint32_t parentID, size_t nameLength)
{
    HFSPlusCatalogKeyHead head;
    head.keyLength = static_cast<uint16_t>(kHFSPlusCatalogMinKeyLength + 2 * nameLength);
    head.parentID = parentID;
    head.nameLength = static_cast<uint16_t>(nameLength);
    std::memcpy(_bytes.data(), &head, kHeadSize);
    _size = kHeadSize + 2 * nameLength;
}

uint32_t HFSPlusCatalogKeyParentID(std::span<const uint8_t> key)
{
    return headOfKey(key).parentID;
}

std::span<const uint8_t> HFSPlusCatalogKeyName(std::span<const uint8_t> key)
{
    const size_t nameSize = 2 * size_t{headOfKey(key).nameLength};
    return key.subspan(kHeadSize, std::min(nameSize, key.size() - kHeadSize));
}

bool HFSPlusCatalogRecord::setBytes(std::span<const uint8_t> record)
{
    if (record.size() < kHeadSize) {
        return false;
    }
    const HFSPlusCatalogKeyHead head = headOfKey(record);
    const size_t keyLength = head.keyLength;
    const size_t nameLength = head.nameLength;
    if (keyLength < kHFSPlusCatalogMinKeyLength || keyLength > kHFSPlusCatalogMaxKeyLength ||
        nameLength > kHFSPlusMaxFileNameLength ||
        kHFSPlusCatalogMinKeyLength + 2 * nameLength > keyLength) {
        return false;
    }
    // Data begin on an even offset: a key of odd length is followed by one byte of padding.
    const size_t dataOffset = (sizeof head.keyLength + keyLength + 1) / 2 * 2;
    if (dataOffset > record.size()) {
        return false;
    }
    _key = record.first(sizeof head.keyLength + keyLength);
    _data = record.subspan(dataOffset);
    return true;
}

uint16_t HFSPlusCatalogRecord::recordType() const
{
    const auto* const type = dataAs<HFSPlusDiskOrder::UInt16>();
    return type == nullptr ? uint16_t{0} : type->value();
}
