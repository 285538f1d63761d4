#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>

#include "HFSPlus/HFSPlusCatalogFormat.h"
#include "HFSPlus/HFSPlusFormat.h"
#include "VZDefragVolume.h"

class HFSPlusAllocation;
class HFSPlusAttributes;
class HFSPlusCatalog;
class HFSPlusCatalogScanDelegate;
class HFSPlusChangeMark;
class HFSPlusExtents;
class HFSPlusFileForkSet;

/** One HFS Plus or HFSX volume on an open device.
 *
 *  Offsets of read and write are bytes from the start of the HFS Plus volume, wrapped or not.
 *  Metadata changes stay in memory until flush(). From the first write until finishChanges(), the
 *  volume on disk is marked as not cleanly unmounted. Used by the one thread that holds the gate.
 */
class HFSPlusVolume : public VZDefragVolume {
public:
    /** Says in @p valid whether @p volume holds a supported volume; false when a read fails. */
    [[nodiscard]] static bool probe(VZDefragVolume& volume, bool& valid, VZDefragErrorSlot error);
    [[nodiscard]] static std::unique_ptr<HFSPlusVolume> initWithVolume(
        const VZDefragVolume& volume, VZDefragErrorSlot error = nullptr);
    ~HFSPlusVolume() override;

    /** How many blocks the system reserves for metadata at the front of a journaled volume. */
    [[nodiscard]] static uint32_t estimatedMetadataBlocks(uint64_t blockSize, uint64_t totalBlocks);

    [[nodiscard]] bool hasMetadataZone() const { return _metadata.blockCount != 0; }
    [[nodiscard]] bool hasSparedBlocks() const;
    [[nodiscard]] bool isHFSX() const { return _isHFSX; }
    [[nodiscard]] bool isJournaled() const;
    [[nodiscard]] const HFSPlusHostVolumeHeader& hostVolumeHeader() const
    {
        return _hostVolumeHeader;
    }
    [[nodiscard]] HFSPlusAllocation& allocation() const { return *_allocation; }
    [[nodiscard]] HFSPlusAttributes* attributes() const { return _attributes.get(); }
    [[nodiscard]] HFSPlusCatalog& catalog() const { return *_catalog; }
    [[nodiscard]] HFSPlusExtents& extents() const { return *_extents; }
    [[nodiscard]] HFSPlusChangeMark& changeMark() const { return *_changeMark; }
    [[nodiscard]] uint64_t volumeSizeBytes() const { return _volumeSizeBytes; }
    /** Held by whoever moves data, from the first look at the volume to the last write. */
    [[nodiscard]] KLThreadGate& movingGate() { return _movingGate; }

    [[nodiscard]] bool isSpecialFile(uint32_t fileID) const;
    /** Live fork data of a special or cached file, or null. */
    [[nodiscard]] HFSPlusHostForkData* hostForkData(uint32_t fileID);
    /** Keeps a copy of an ordinary file's fork data, in one place until it has been uncached as
     *  often as it was cached (HFSPlusCachedForkData). */
    void cacheHostForkData(const HFSPlusHostForkData& forkData, uint32_t fileID);
    void uncacheHostForkData(uint32_t fileID);
    /** Replaces the eight extents that the header holds of a special file. */
    [[nodiscard]] bool updateForkExtents(const HFSPlusHostExtentRecord& extents, uint32_t fileID,
                                         VZDefragErrorSlot error);
    /** Adds @p delta blocks to the header's free count. */
    void updateFreeBlocks(int32_t delta);
    /** First allocation block that user data may occupy. */
    [[nodiscard]] uint32_t firstDataBlock() const;
    /** Forks that must never be moved, or null. */
    [[nodiscard]] std::unique_ptr<HFSPlusFileForkSet> immutableForkIDs(bool includeHotFiles,
                                                                       VZDefragErrorSlot error);

    [[nodiscard]] bool read(void* buffer, size_t nbyte, uint64_t offset,
                            VZDefragErrorSlot error) override;
    [[nodiscard]] bool write(const void* buffer, size_t nbyte, uint64_t offset,
                             VZDefragErrorSlot error) override;
    /** Turns the fork offset @p offset (bytes) into a volume offset; returns the contiguous bytes
     *  there, 0 on failure. */
    [[nodiscard]] uint64_t translateOffset(uint64_t& offset, uint32_t fileID, uint8_t forkType,
                                           const HFSPlusHostForkData& forkData,
                                           VZDefragErrorSlot error);
    /** The same within @p extents alone, which begin at fork block @p firstBlock; 0 without an
     *  error when none of them holds the offset. */
    [[nodiscard]] uint64_t translateOffsetInExtents(
        uint64_t& offset, std::span<const HFSPlusHostExtentDescriptor> extents, uint32_t firstBlock,
        const HFSPlusHostForkData& forkData) const;
    // Hands every file record of the catalog to the delegate.
    [[nodiscard]] bool scanCatalogFiles(HFSPlusCatalogScanDelegate& delegate,
                                        VZDefragErrorSlot error);
    /** Whether flush() would write anything. */
    [[nodiscard]] bool needsFlush() const;
    /** Writes all changes: special files, a barrier, the headers, a barrier.
     *
     *  Where a special file or a barrier failed, the headers stay as they are and the volume takes
     *  no more writes: this and every later flush fails with "Write failure.".
     */
    [[nodiscard]] bool flush(VZDefragErrorSlot error);
    /** A change to a special file did not reach the disk and may be lost: ends all writing. */
    void metadataWriteDidFail();
    /** Writes what is left to write and takes the mark away, if the volume on disk is whole. */
    [[nodiscard]] bool finishChanges(VZDefragErrorSlot error);
    // Diagnostic aids, at level debug.
    [[nodiscard]] bool dumpFileExtents(const HFSPlusHostCatalogFile& file, VZDefragErrorSlot error);
    [[nodiscard]] bool dumpFileExtentsOverflows(const HFSPlusHostCatalogFile& file,
                                                VZDefragErrorSlot error);
    [[nodiscard]] bool dumpFilePath(const HFSPlusHostCatalogFile& file, VZDefragErrorSlot error);
    [[nodiscard]] bool dumpFilePathFull(const HFSPlusHostCatalogFile& file,
                                        VZDefragErrorSlot error);

private:
    struct CachedForkData;
    HFSPlusVolume(const VZDefragVolume& volume, std::unique_ptr<PlatformBlockDevice> device);

    [[nodiscard]] bool _readVolumeHeader(VZDefragErrorSlot error);
    [[nodiscard]] bool _checkSignatureAndVersion(VZDefragErrorSlot error);
    [[nodiscard]] bool _checkAttributes(VZDefragErrorSlot error);
    [[nodiscard]] bool _checkGeometry(VZDefragErrorSlot error);
    [[nodiscard]] bool _openSpecialFiles(VZDefragErrorSlot error);
    [[nodiscard]] uint32_t _metadataBlockCount() const;
    void _logVolumeInfo() const;
    void _setUpMetadataZone();
    [[nodiscard]] bool _isSound(const HFSPlusHostForkData& forkData) const;
    [[nodiscard]] bool _isInVolume(const HFSPlusHostExtentDescriptor& extent) const;
    [[nodiscard]] bool _isInRange(size_t nbyte, uint64_t offset) const;
    [[nodiscard]] bool _flushSpecialFiles();
    void _writeHeaders(bool headerChanged);
    [[nodiscard]] bool _prepareToFlush(VZDefragErrorSlot error);

    KLThreadGate _movingGate;
    HFSPlusHostVolumeHeader _hostVolumeHeader = {};
    std::string _name;
    uint32_t _version = 0;
    bool _isHFSPlus = false;
    bool _isHFSX = false;
    std::atomic<bool> _willBumpWriteCount = false;  // set by whatever thread writes
    bool _didBumpWriteCount = false;
    bool _dirty = false;
    bool _isFlushing = false;  // special files are being flushed
    bool _writeFailedInFlush = false;
    std::unique_ptr<HFSPlusChangeMark> _changeMark;
    std::unique_ptr<HFSPlusExtents> _extents;
    std::unique_ptr<HFSPlusAllocation> _allocation;
    std::unique_ptr<HFSPlusAttributes> _attributes;  // null without an attributes file
    std::unique_ptr<HFSPlusCatalog> _catalog;
    HFSPlusHostExtentDescriptor _metadata = {};  // the zone; no blocks: there is none
    std::unordered_map<uint32_t, std::unique_ptr<CachedForkData>> _hostForkDataCache;
    uint64_t _volumeStartOffset = 0;  // bytes into the device
    uint64_t _volumeSizeBytes = 0;
};
