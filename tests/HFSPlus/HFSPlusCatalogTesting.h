#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusCatalog.h"
#include "support/HFSPlusOpenedVolume.h"
#include "support/HFSPlusVolumeBuilder.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

/** What the tests of the catalog and of its scans share. */

inline constexpr const char* kCatalogInconsistent = "Catalog file is inconsistent.";
inline constexpr const char* kVolumeInconsistent = "Volume is inconsistent.";

/** "/Readme" 20, "/Library" 30 with "Fonts" 31 in it and "Arial" 32 in that, "/a:b" 40; one leaf.
 */
[[nodiscard]] inline HFSPlusVolumeBuilder smallCatalog()
{
    HFSPlusVolumeBuilder builder;
    builder.file("/Readme", 20).data({{600, 10}}).resource({{700, 5}});
    builder.folder("/Library", 30).folder("/Library/Fonts", 31);
    builder.file("/Library/Fonts/Arial", 32).data({{620, 3}, {640, 4}});
    builder.file("/a:b", 40);
    return builder;
}

/** The bytes of a catalog key as it lies on disk. */
[[nodiscard]] inline std::vector<uint8_t> rawKey(uint32_t parentID, std::u16string_view name)
{
    std::vector<uint8_t> bytes;
    const auto append = [&bytes](uint32_t value, unsigned size) {
        for (unsigned shift = 8 * size; shift > 0; shift -= 8) {
            bytes.push_back(static_cast<uint8_t>(value >> (shift - 8) & 0xFF));
        }
    };
    append(static_cast<uint32_t>(6 + 2 * name.size()), 2);
    append(parentID, 4);
    append(static_cast<uint32_t>(name.size()), 2);
    for (const char16_t unit : name) {
        append(unit, 2);
    }
    return bytes;
}

/** A leaf record in memory, for a test to damage: the node stays in the cache, never written. */
class HFSPlusCatalogRecordInMemory {
public:
    /** The record with this key, wherever it is. */
    HFSPlusCatalogRecordInMemory(HFSPlusCatalog& catalog, uint32_t parentID,
                                 std::u16string_view name)
    {
        const std::vector<uint8_t> key = rawKey(parentID, name);
        for (uint32_t index = catalog.firstLeafNode(); index != 0; index = _node->fLink()) {
            _node = catalog.cachedNodeWithIndex(index, {}, nullptr);
            for (uint32_t record = 0; record < _node->recordCount(); ++record) {
                const std::span<const uint8_t> bytes = _node->recordAtIndex(record);
                if (std::equal(key.begin(), key.end(), bytes.begin())) {
                    _bytes = _node->recordDataAtIndex(record);
                    _dataOffset = key.size();
                    return;
                }
            }
        }
        ADD_FAILURE() << "no record of parent " << parentID;
    }

    [[nodiscard]] HFSPlusCachedNode& node() { return _node; }
    /** Overwrites two bytes at @p offset of the key. */
    void setKey16(size_t offset, uint16_t value) { _set(offset, value, 2); }
    void setKey32(size_t offset, uint32_t value) { _set(offset, value, 4); }
    /** Overwrites bytes at @p offset of the data. */
    void setData16(size_t offset, uint16_t value) { _set(_dataOffset + offset, value, 2); }
    void setData32(size_t offset, uint32_t value) { _set(_dataOffset + offset, value, 4); }
    [[nodiscard]] uint32_t data32(size_t offset) const
    {
        uint32_t value = 0;
        for (size_t index = 0; index < 4; ++index) {
            value = value << 8 | _bytes[_dataOffset + offset + index];
        }
        return value;
    }

private:
    void _set(size_t offset, uint32_t value, size_t size)
    {
        for (size_t index = size; index > 0; --index, value >>= 8) {
            _bytes[offset + index - 1] = static_cast<uint8_t>(value & 0xFF);
        }
    }

    HFSPlusCachedNode _node;
    uint8_t* _bytes = nullptr;
    size_t _dataOffset = 0;
};

/** How a lookup went: the record, or why there is none. */
struct HFSPlusCatalogAnswer {
    bool succeeded = false;
    std::string error;
    HFSPlusCatalogLookupRecord record;
    std::string path;
};

[[nodiscard]] inline HFSPlusCatalogAnswer lookUp(HFSPlusCatalog& catalog, uint32_t cnid)
{
    HFSPlusCatalogAnswer answer;
    std::unique_ptr<VZDefragError> error;
    answer.record.recordType = 99;
    answer.succeeded = catalog.copyRecordForCNID(answer.record, cnid, &error);
    answer.error = error != nullptr ? error->description() : "";
    return answer;
}

[[nodiscard]] inline HFSPlusCatalogAnswer lookUp(HFSPlusCatalog& catalog, std::string_view path)
{
    HFSPlusCatalogAnswer answer;
    std::unique_ptr<VZDefragError> error;
    answer.record.recordType = 99;
    answer.succeeded = catalog.copyRecordForPath(answer.record, path, &error);
    answer.error = error != nullptr ? error->description() : "";
    return answer;
}

[[nodiscard]] inline HFSPlusCatalogAnswer pathOf(HFSPlusCatalog& catalog, uint32_t cnid)
{
    HFSPlusCatalogAnswer answer;
    std::unique_ptr<VZDefragError> error;
    answer.path = "not touched";
    answer.succeeded = catalog.copyPathForCNID(answer.path, cnid, &error);
    answer.error = error != nullptr ? error->description() : "";
    return answer;
}
