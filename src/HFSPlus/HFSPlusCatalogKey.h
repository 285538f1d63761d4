#pragma once

#include <array>
#include <span>
#include <string_view>

#include "HFSPlus/HFSPlusCatalogFormat.h"

inline constexpr uint16_t kHFSPlusCatalogMinKeyLength = 6;    // bytes, of an empty name
inline constexpr uint16_t kHFSPlusCatalogMaxKeyLength = 516;  // bytes, of 255 units

/** A catalog key to search for, in the bytes that it would have on disk. */
class HFSPlusCatalogKey {
public:
    /** The key of the thread record of @p cnid: an empty name. */
    explicit HFSPlusCatalogKey(uint32_t cnid);
    /** @p name in host order; it has at most 255 units. */
    HFSPlusCatalogKey(uint32_t parentID, std::u16string_view name);
    /** @p name as it lies on disk; what goes beyond 255 units is cut. */
    HFSPlusCatalogKey(uint32_t parentID, std::span<const uint8_t> name);

    [[nodiscard]] uint32_t parentID() const;
    [[nodiscard]] std::span<const uint8_t> name() const;  // big-endian units
    [[nodiscard]] std::span<const uint8_t> bytes() const { return {_bytes.data(), _size}; }

private:
    void _setHead(uint32_t parentID, size_t nameLength);

    std::array<uint8_t, 2 + kHFSPlusCatalogMaxKeyLength> _bytes = {};
    size_t _size = 0;
};

/** The parent that a raw key of at least eight bytes names. */
[[nodiscard]] uint32_t HFSPlusCatalogKeyParentID(std::span<const uint8_t> key);
/** The name in a raw key of at least eight bytes, as on disk; cut where the key ends. */
[[nodiscard]] std::span<const uint8_t> HFSPlusCatalogKeyName(std::span<const uint8_t> key);

/** A record of a catalog node, its key checked; the parts lie in the node's bytes. */
class HFSPlusCatalogRecord {
public:
    /** False when the key has an impossible length or does not fit the record. */
    [[nodiscard]] bool setBytes(std::span<const uint8_t> record);

    [[nodiscard]] std::span<const uint8_t> key() const { return _key; }  // whole, with its length
    [[nodiscard]] std::span<const uint8_t> data() const { return _data; }
    /** The record type of a leaf record; 0 when the data are too short to have one. */
    [[nodiscard]] uint16_t recordType() const;
    /** The data as a structure, or null when they are too short for it. */
    template <typename T>
    [[nodiscard]] const T* dataAs() const
    {
        static_assert(alignof(T) == 1);
        return _data.size() < sizeof(T) ? nullptr : reinterpret_cast<const T*>(_data.data());
    }

private:
    std::span<const uint8_t> _key;
    std::span<const uint8_t> _data;
};
