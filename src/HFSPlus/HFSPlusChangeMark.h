#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>

#include "HFSPlus/HFSPlusFormat.h"
#include "HFSPlus/HFSPlusRollbackFile.h"
#include "VZDefragError.h"

class VZDefragVolume;

/** Says on disk that a volume is being changed: until end(), the primary volume header is that of
 *  a volume which was not cleanly unmounted, so that whoever finds it after a power cut checks it
 *  first (TN1150, "Volume Attributes"). With a rollback file, old bytes are kept there as well, and
 * nobody has to.
 *
 *  begin() is for any thread, the rest for the one that changes metadata. Ranges are bytes of the
 *  HFS Plus volume.
 */
class HFSPlusChangeMark {
public:
    /** Writes to @p device behind the back of the model of the volume on it. */
    explicit HFSPlusChangeMark(VZDefragVolume& device) : _device(device) {}

    /** Where the volume lies, and its header as on disk. */
    void setVolume(uint64_t startOffset, uint64_t sizeBytes, const HFSPlusVolumeHeader& header);
    void setRollbackFile(std::shared_ptr<HFSPlusRollbackFile> file) { _file = std::move(file); }

    /** Before anything is written: sets the mark, durably, unless that was done. Fails with "Write
     *  failure." when nothing may be written any more. */
    [[nodiscard]] bool begin(VZDefragErrorSlot error);
    [[nodiscard]] bool isSet() const { return _isSet; }
    /** A change was lost on its way to the disk: nothing may be written any more. */
    void setFailed() { _failed = true; }
    [[nodiscard]] bool hasFailed() const { return _failed; }

    /** Whether the old bytes of @p range are kept, or need not be. */
    [[nodiscard]] bool isProtected(const HFSPlusByteRange& range) const;
    /** Keeps the old bytes of @p ranges before they are overwritten. After begin() only. */
    [[nodiscard]] bool protect(std::span<const HFSPlusByteRange> ranges, VZDefragErrorSlot error);
    /** Whether protect() has anything to do. */
    [[nodiscard]] bool keepsOldBytes() const { return _file != nullptr; }
    /** What is on disk is being changed from here on, and not whole before flushDidComplete(). */
    void metadataWillBeWritten() { _isTorn = true; }
    [[nodiscard]] bool isTorn() const { return _isTorn; }
    /** Whether a flush must write the header to be complete. */
    [[nodiscard]] bool needsHeader() const { return _file != nullptr && _file->hasRecords(); }
    /** The primary header to write in place of @p header, which the alternate gets. */
    [[nodiscard]] HFSPlusVolumeHeader primaryHeader(const HFSPlusVolumeHeader& header) const;
    /** All of a flush is durable; @p header is the one that belongs to it. */
    void flushDidComplete(const HFSPlusVolumeHeader& header);

    /** Takes the mark away, durably, where what is on disk is whole. True without a mark. */
    [[nodiscard]] bool end(VZDefragErrorSlot error);

private:
    [[nodiscard]] bool _beginRollbackFile(VZDefragErrorSlot error);
    [[nodiscard]] bool _writePrimary(const HFSPlusVolumeHeader& header, VZDefragErrorSlot error);

    VZDefragVolume& _device;
    std::shared_ptr<HFSPlusRollbackFile> _file;  // null: nothing is kept
    uint64_t _startOffset = 0;                   // bytes into the device
    uint64_t _sizeBytes = 0;
    HFSPlusVolumeHeader _header = {};  // of the last complete flush, without the mark
    std::mutex _beginLock;
    std::atomic<bool> _isSet = false;
    std::atomic<bool> _failed = false;
    bool _isTorn = false;           // metadata were written since the last complete flush
    uint32_t _finalWriteCount = 0;  // of the header, once a flush is complete
};
