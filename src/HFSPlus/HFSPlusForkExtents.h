#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusCatalogScanDelegate.h"

class HFSPlusVolume;

/** The whole extent list of one fork, its relocation and its write-back.
 *
 *  Unchanged, then modified by moveTo() or deleteAllExtents(), then written by update(). Blocks
 *  are allocation blocks of the volume, host order. Reading refuses a fork whose extents leave
 *  the volume or whose overflow records do not follow on one another.
 */
class HFSPlusForkExtents : private HFSPlusCatalogScanDelegate {
public:
    [[nodiscard]] static std::unique_ptr<HFSPlusForkExtents> initWithVolume(
        HFSPlusVolume& volume, uint32_t fileID, uint8_t forkType,
        VZDefragErrorSlot error = nullptr);

    /** The extents as read that end beyond @p startBlock, in file order, the one that contains it
     *  cut to begin there. */
    [[nodiscard]] bool copyExtentDescriptors(std::vector<HFSPlusHostExtentDescriptor>& extents,
                                             uint32_t startBlock, VZDefragErrorSlot error) const;
    void deleteAllExtents();
    /** Records that the @p count blocks from @p from on now lie at @p to.
     *
     *  They must lie in one extent. Moving the pieces of a fork in fork order takes time linear
     *  in their number.
     */
    [[nodiscard]] bool moveTo(uint32_t from, uint32_t to, uint32_t count,
                              VZDefragErrorSlot error = nullptr);
    /** Writes the working list to catalog or header, overflow file and bitmap.
     *
     *  All or nothing: on failure no record and no bit has changed, and the working list stays.
     */
    [[nodiscard]] bool update(VZDefragErrorSlot error = nullptr);
    /** Extents that update() would store: the working list with neighbours joined. */
    [[nodiscard]] uint32_t mergedExtentCount() const;
    [[nodiscard]] std::vector<HFSPlusHostExtentDescriptor> mergedExtents() const;
    void dump() const;

private:
    /** An extent of the working list, linked so that splits move nothing. */
    struct Piece {
        HFSPlusHostExtentDescriptor extent;
        uint32_t next;  // index of the piece that follows in the fork, or kNoPiece
    };
    static constexpr uint32_t kNoPiece = UINT32_MAX;

    /** What update() keeps back until every change of the overflow file went through. */
    struct PendingChanges {
        std::optional<HFSPlusHostExtentRecord> firstRecord;
        bool setZeroLength = false;
        std::vector<HFSPlusHostExtentDescriptor> freed;
        std::vector<HFSPlusHostExtentDescriptor> used;  // may hold blocks that are freed as well
    };

    HFSPlusForkExtents(HFSPlusVolume& volume, uint32_t fileID, uint8_t forkType);

    [[nodiscard]] bool _checkForkType(VZDefragErrorSlot error);
    [[nodiscard]] bool _readForkStuff(VZDefragErrorSlot error);
    [[nodiscard]] bool _readFileRecord(VZDefragErrorSlot error);
    [[nodiscard]] bool _readOverflowRecord(HFSPlusHostExtentRecord& record, uint32_t startBlock,
                                           VZDefragErrorSlot error);
    [[nodiscard]] bool _addOriginalRecord(const HFSPlusHostExtentRecord& record, uint64_t& sum,
                                          VZDefragErrorSlot error);
    [[nodiscard]] HFSPlusHostForkData& _forkData();
    [[nodiscard]] const HFSPlusHostForkData& _forkData() const;
    [[nodiscard]] std::vector<HFSPlusHostExtentDescriptor> _originalDescriptors() const;
    [[nodiscard]] std::vector<HFSPlusHostExtentDescriptor> _currentDescriptors() const;
    void _makeModifiedDescriptors();
    [[nodiscard]] uint32_t _pieceWithBlock(uint32_t block) const;
    [[nodiscard]] uint32_t _splitPiece(uint32_t piece, uint32_t count);

    [[nodiscard]] bool _writeRecords(const std::vector<HFSPlusHostExtentRecord>& records,
                                     PendingChanges& changes, VZDefragErrorSlot error);
    [[nodiscard]] bool _deleteRecordsFrom(size_t first, const std::vector<uint32_t>& starts,
                                          PendingChanges& changes, VZDefragErrorSlot error);
    [[nodiscard]] bool _deleteAllRecords(PendingChanges& changes, VZDefragErrorSlot error);
    [[nodiscard]] bool _deleteForkExtents(uint32_t startBlock, bool setZeroLength,
                                          PendingChanges& changes, VZDefragErrorSlot error);
    [[nodiscard]] bool _insertForkExtents(const HFSPlusHostExtentRecord& record,
                                          uint32_t startBlock, PendingChanges& changes,
                                          VZDefragErrorSlot error);
    [[nodiscard]] bool _updateForkExtents(const HFSPlusHostExtentRecord& record,
                                          uint32_t startBlock, PendingChanges& changes,
                                          VZDefragErrorSlot error);
    [[nodiscard]] bool _writeFirstRecord(const PendingChanges& changes, VZDefragErrorSlot error);
    [[nodiscard]] bool _loadBitmap(const PendingChanges& changes, VZDefragErrorSlot error);
    void _applyToBitmap(const PendingChanges& changes);
    void _clearExtents(const HFSPlusHostExtentRecord& record, uint32_t startBlock,
                       PendingChanges& changes) const;
    [[nodiscard]] uint64_t _countedBlocks(const HFSPlusHostExtentRecord& record,
                                          uint64_t startBlock) const;

    bool _failWithMissingExtents(VZDefragErrorSlot error);
    [[nodiscard]] std::string _nameForMessage(VZDefragErrorSlot error);
    [[nodiscard]] std::string _nameForFileID();
    [[nodiscard]] bool scanCatalogFile(const HFSPlusCatalogFile& file, std::span<const uint8_t> key,
                                       VZDefragErrorSlot error) override;

    HFSPlusVolume& _volume;
    uint32_t _fileID;
    uint8_t _forkType;
    bool _specialFile;
    HFSPlusCatalogLookupRecord _fileRecord;
    uint32_t _originalDescriptorCount = 0;  // until the fork's blocks are reached
    std::vector<HFSPlusHostExtentRecord> _originalRecords;
    std::optional<std::vector<Piece>> _modifiedDescriptors;  // the first piece is at index 0
    uint32_t _lastPiece = 0;  // moved last; the next move is likely to concern what follows it
    std::string _fileName;
};
