#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "support/HFSPlusVolumeBuilderPlan.h"
#include "support/SparseSink.h"

/** Breaks a volume that was just built, one named field at a time.
 *
 *  Fields have their TN1150 names. Every operation is false when the field, the node or the file
 *  does not exist, so that a damage that hits nothing is an error of the test.
 */
class HFSPlusVolumeBuilderPatcher {
public:
    HFSPlusVolumeBuilderPatcher(const HFSPlusVolumeBuilderPlan& plan, SparseSink& sink)
        : _plan(plan), _sink(sink)
    {
    }

    [[nodiscard]] const HFSPlusVolumeBuilderPlan& plan() const { return _plan; }

    /** Sets @p size bytes at byte @p offset of the volume to @p value, big-endian. */
    [[nodiscard]] bool number(uint64_t offset, uint64_t value, size_t size);

    [[nodiscard]] bool bytes(uint64_t offset, std::span<const uint8_t> bytes);

    /** A field of the volume header: "freeBlocks", "catalogFile.extents[1].blockCount", ... */
    [[nodiscard]] bool header(std::string_view field, uint64_t value);
    [[nodiscard]] bool alternateHeader(std::string_view field, uint64_t value);

    /** A field of the master directory block: "drEmbedExtent.startBlock", ... */
    [[nodiscard]] bool wrapper(std::string_view field, uint64_t value);

    /** A field of the journal info block: "flags", "offset" or "size". */
    [[nodiscard]] bool journalInfo(std::string_view field, uint64_t value);

    /** The bit of @p block in the bitmap. */
    [[nodiscard]] bool bitmap(uint32_t block, bool used);

    /** A field of the header record of the tree in file @p treeID: "leafRecords", ... */
    [[nodiscard]] bool treeHeader(uint32_t treeID, std::string_view field, uint64_t value);

    /** The bit of @p node in the map of a tree. */
    [[nodiscard]] bool treeMap(uint32_t treeID, uint32_t node, bool used);

    /** A field of a node's descriptor ("fLink", ...), or "offset[i]" for an entry of its table. */
    [[nodiscard]] bool node(uint32_t treeID, uint32_t node, std::string_view field, uint64_t value);

    /** Sets @p size bytes at byte @p offset of a node. */
    [[nodiscard]] bool nodeBytes(uint32_t treeID, uint32_t node, uint32_t offset, uint64_t value,
                                 size_t size);

    /** A field of the catalog record of a file or folder: "dataFork.totalBlocks", ... */
    [[nodiscard]] bool catalogRecord(uint32_t cnid, std::string_view field, uint64_t value);

    /** A field of the overflow record with this key: "extents[0].blockCount", "startBlock", ... */
    [[nodiscard]] bool overflowRecord(uint32_t fileID, uint8_t forkType, uint32_t startBlock,
                                      std::string_view field, uint64_t value);

    /** The node that holds record @p index of all leaf records, counted in key order. */
    [[nodiscard]] std::optional<uint32_t> leafWithRecord(uint32_t treeID, uint32_t index);

private:
    struct Place {
        uint64_t offset = 0;  // of the record's key, within the volume
        uint32_t node = 0;
    };
    using Match = std::function<bool(std::span<const uint8_t> record)>;

    [[nodiscard]] const HFSPlusBuilderTreePlan* _tree(uint32_t treeID) const;
    [[nodiscard]] std::optional<uint64_t> _offsetOf(const HFSPlusBuilderExtents& extents,
                                                    uint64_t forkOffset) const;
    [[nodiscard]] std::optional<uint64_t> _nodeOffset(uint32_t treeID, uint32_t node) const;
    [[nodiscard]] std::optional<Place> _findRecord(uint32_t treeID, const Match& match);
    [[nodiscard]] bool _bit(std::optional<uint64_t> offset, uint32_t number, bool used);

    const HFSPlusVolumeBuilderPlan& _plan;
    SparseSink& _sink;
};

// The same as values for HFSPlusVolumeBuilder::damage().
[[nodiscard]] HFSPlusBuilderDamage damagedHeader(std::string field, uint64_t value);
[[nodiscard]] HFSPlusBuilderDamage damagedAlternateHeader(std::string field, uint64_t value);
[[nodiscard]] HFSPlusBuilderDamage damagedWrapper(std::string field, uint64_t value);
[[nodiscard]] HFSPlusBuilderDamage damagedJournalInfo(std::string field, uint64_t value);
[[nodiscard]] HFSPlusBuilderDamage damagedBitmap(uint32_t start, uint32_t count, bool used);
[[nodiscard]] HFSPlusBuilderDamage damagedTreeHeader(uint32_t treeID, std::string field,
                                                     uint64_t value);
[[nodiscard]] HFSPlusBuilderDamage damagedTreeMap(uint32_t treeID, uint32_t node, bool used);
[[nodiscard]] HFSPlusBuilderDamage damagedNode(uint32_t treeID, uint32_t node, std::string field,
                                               uint64_t value);
[[nodiscard]] HFSPlusBuilderDamage damagedCatalogRecord(uint32_t cnid, std::string field,
                                                        uint64_t value);
[[nodiscard]] HFSPlusBuilderDamage damagedOverflowRecord(uint32_t fileID, uint8_t forkType,
                                                         uint32_t startBlock, std::string field,
                                                         uint64_t value);
