#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <tuple>
#include <vector>

#include "HFSPlus/HFSPlusByteRange.h"
#include "HFSPlus/HFSPlusFormat.h"
#include "VZDefragError.h"

class HFSPlusVolume;
class VZDefragTransferQueue;

/** Byte-addressed access to the data fork of a special file, or of a file whose fork data the
 *  volume caches for as long as this object lives.
 *
 *  Follows the fork data as it changes. Reads and writes make one device request per contiguous
 *  run; a request beyond the logical size fails before anything is transferred.
 */
class HFSPlusFile {
public:
    HFSPlusFile(HFSPlusVolume& volume, uint32_t fileID);
    HFSPlusFile(const HFSPlusFile&) = delete;
    HFSPlusFile& operator=(const HFSPlusFile&) = delete;
    virtual ~HFSPlusFile() = default;

    [[nodiscard]] uint32_t fileID() const { return _fileID; }
    [[nodiscard]] uint64_t logicalSize() const { return _hostForkData->logicalSize; }
    [[nodiscard]] uint32_t totalBlocks() const { return _hostForkData->totalBlocks; }
    /** Turns the file offset @p offset (bytes) into a volume offset; returns the contiguous bytes
     *  there, 0 on failure. */
    [[nodiscard]] virtual uint64_t translateOffset(uint64_t& offset, VZDefragErrorSlot error);
    /** Reads whole allocation blocks, through a buffer where the request is no such. */
    [[nodiscard]] bool read(void* buffer, uint64_t nbyte, uint64_t offset, VZDefragErrorSlot error);
    /** A queue for beginRead(). */
    [[nodiscard]] std::unique_ptr<VZDefragTransferQueue> makeTransferQueue() const;
    /** Begins to read whole allocation blocks on @p queue.
     *
     *  False when the request is out of range, no whole blocks or cannot be found on the volume;
     *  parts of it may then be under way all the same.
     */
    [[nodiscard]] bool beginRead(VZDefragTransferQueue& queue, uint8_t* buffer, uint64_t nbyte,
                                 uint64_t offset);
    /** Writes as asked for, whatever the alignment. Once one has failed on its way to the device,
     *  the volume takes no further writes. */
    [[nodiscard]] bool write(const void* buffer, uint64_t nbyte, uint64_t offset,
                             VZDefragErrorSlot error);

    /** Whether changes wait in memory for a flush. */
    [[nodiscard]] virtual bool isDirty() const { return false; }
    /** Puts what waits outside of the file's own pieces into them. */
    virtual void prepareToFlush() {}
    /** Adds the bytes of the volume that a flush now would write. */
    void appendDirtyRanges(std::vector<HFSPlusByteRange>& ranges);
    /** While set, nothing changed is written on eviction: caches grow past their limits instead. */
    virtual void setHoldsWrites(bool holds) { std::ignore = holds; }

protected:
    /** The changed pieces that are in memory, as ranges of the file. */
    [[nodiscard]] virtual std::vector<HFSPlusByteRange> _dirtyPieces() const;

    HFSPlusVolume& _volume;
    const HFSPlusHostForkData* _hostForkData;  // the volume's own, never null

private:
    /** Takes a contiguous run of the volume: where its bytes belong in memory, how many they are
     *  and their offset on the volume. */
    using RunReader = std::function<bool(uint8_t* buffer, uint64_t nbyte, uint64_t volumeOffset)>;

    [[nodiscard]] bool _prepareToWrite(const HFSPlusByteRange& range, VZDefragErrorSlot error);
    [[nodiscard]] bool _isInRange(uint64_t nbyte, uint64_t offset) const;
    [[nodiscard]] bool _isWholeBlocks(uint64_t nbyte, uint64_t offset) const;
    [[nodiscard]] bool _readRuns(uint8_t* buffer, uint64_t nbyte, uint64_t offset,
                                 const RunReader& readRun, VZDefragErrorSlot error);
    [[nodiscard]] bool _readBlocks(uint8_t* buffer, uint64_t nbyte, uint64_t offset,
                                   VZDefragErrorSlot error);
    [[nodiscard]] bool _readThroughBounceBuffer(uint8_t* buffer, uint64_t nbyte, uint64_t offset,
                                                VZDefragErrorSlot error);

    uint32_t _fileID;
};

/** Keeps a special file from writing to the place that it is being moved away from. */
class HFSPlusHeldWrites {
public:
    explicit HFSPlusHeldWrites(HFSPlusFile& file) : _file(&file) { file.setHoldsWrites(true); }
    HFSPlusHeldWrites(const HFSPlusHeldWrites&) = delete;
    HFSPlusHeldWrites& operator=(const HFSPlusHeldWrites&) = delete;
    HFSPlusHeldWrites(HFSPlusHeldWrites&& other) noexcept : _file(other._file)
    {
        other._file = nullptr;
    }
    HFSPlusHeldWrites& operator=(HFSPlusHeldWrites&&) = delete;
    ~HFSPlusHeldWrites()
    {
        if (_file != nullptr) {
            _file->setHoldsWrites(false);
        }
    }

private:
    HFSPlusFile* _file;
};
