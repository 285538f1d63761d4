#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "HFSPlus/HFSPlusAllocationChunk.h"
#include "HFSPlus/HFSPlusFile.h"
#include "KLKit/KLQueue.h"

class HFSPlusAllocation;
class HFSPlusAllocationReadAhead;

/** A chunk taken from the bitmap's cache; goes back when the guard goes. Empty when the chunk
 *  could not be had. No guard outlives the bitmap. */
class HFSPlusCachedChunk {
public:
    HFSPlusCachedChunk() = default;
    HFSPlusCachedChunk(const HFSPlusCachedChunk&) = delete;
    HFSPlusCachedChunk& operator=(const HFSPlusCachedChunk&) = delete;
    HFSPlusCachedChunk(HFSPlusCachedChunk&& other) noexcept;
    HFSPlusCachedChunk& operator=(HFSPlusCachedChunk&& other) noexcept;
    ~HFSPlusCachedChunk();

    explicit operator bool() const { return _chunk != nullptr; }
    HFSPlusAllocationChunk* operator->() const { return _chunk; }

private:
    friend class HFSPlusAllocation;
    HFSPlusCachedChunk(HFSPlusAllocation& allocation, HFSPlusAllocationChunk& chunk)
        : _allocation(&allocation), _chunk(&chunk)
    {
    }

    HFSPlusAllocation* _allocation = nullptr;
    HFSPlusAllocationChunk* _chunk = nullptr;
};

/** The allocation bitmap (TN1150, "Allocation File"): one bit a block, set when in use.
 *
 *  Read in chunks through a small write-back cache. Block numbers and counts are allocation
 *  blocks; every range check is against the bits that the file holds.
 */
class HFSPlusAllocation : public HFSPlusFile {
public:
    [[nodiscard]] static std::unique_ptr<HFSPlusAllocation> initWithVolume(HFSPlusVolume& volume,
                                                                           VZDefragErrorSlot error);
    ~HFSPlusAllocation() override;

    /** Stores in @p result how many blocks from @p block on are clear, @p count at most.
     *
     *  Fails when the range ends beyond the bitmap, with @p count subtracted from what @p result
     *  held, or when a chunk cannot be read, with the blocks found before it.
     */
    [[nodiscard]] bool isClear(uint32_t block, uint32_t count, uint32_t& result,
                               VZDefragErrorSlot error);
    [[nodiscard]] bool isSet(uint32_t block, uint32_t count, uint32_t& result,
                             VZDefragErrorSlot error);
    /** Marks the range free and raises the header's free count by every block of it, also by those
     *  that were free before. A range that ends beyond the bitmap changes nothing. */
    [[nodiscard]] bool clear(uint32_t block, uint32_t count, VZDefragErrorSlot error);
    /** Marks the range used and lowers the free count in the same way. */
    [[nodiscard]] bool set(uint32_t block, uint32_t count, VZDefragErrorSlot error);
    /** Writes every dirty chunk, those of a draft as well; goes on past failures. */
    [[nodiscard]] bool flush();
    /** Keeps the changes from now on in memory, to be taken back by dropDraft(), and the free count
     *  as it was, until keepDraft() or flush(). They fail with "Allocation file is inconsistent."
     *  beyond kDraftLimit. A bitmap that has changes to write already makes no draft. */
    void beginDraft();
    void keepDraft();
    void dropDraft();
    static constexpr uint64_t kDraftLimit = uint64_t{64} * 1024 * 1024;  // bytes of changed chunks
    /** Logs the range as a text of "0" and "1"; aborts when it cannot be read. */
    void dump(uint32_t block, uint32_t count);

    [[nodiscard]] uint32_t chunkCount() const;
    [[nodiscard]] uint32_t chunkSize() const { return _chunkSize; }  // bytes
    [[nodiscard]] uint32_t chunkIndexFromBlockIndex(uint32_t block) const;
    /** Bytes of chunk @p index, whole allocation blocks; 0 with an error beyond the last one. */
    [[nodiscard]] uint32_t chunkSizeFromChunkIndex(uint32_t index, VZDefragErrorSlot error) const;
    [[nodiscard]] HFSPlusCachedChunk cachedChunkWithBlockIndex(uint32_t block,
                                                               VZDefragErrorSlot error);
    [[nodiscard]] HFSPlusCachedChunk cachedChunkWithChunkIndex(uint32_t index,
                                                               VZDefragErrorSlot error);
    [[nodiscard]] bool readChunk(uint32_t index, uint8_t* buffer, VZDefragErrorSlot error);
    [[nodiscard]] bool writeChunk(uint32_t index, const uint8_t* buffer, VZDefragErrorSlot error);

    /** Has chunks read through @p readAhead; null ends that. */
    void setReadAhead(HFSPlusAllocationReadAhead* readAhead) { _readAhead = readAhead; }

    [[nodiscard]] bool isDirty() const override;
    void setHoldsWrites(bool holds) override;

    /** Keeps @p extents as the file's whole extent list while its own records are rewritten, so
     *  that no chunk is out of reach meanwhile; an empty list goes back to the records. */
    void setPinnedExtents(std::vector<HFSPlusHostExtentDescriptor> extents);
    [[nodiscard]] uint64_t translateOffset(uint64_t& offset, VZDefragErrorSlot error) override;

protected:
    [[nodiscard]] std::vector<HFSPlusByteRange> _dirtyPieces() const override;

private:
    friend class HFSPlusCachedChunk;

    struct CacheEntry {
        std::shared_ptr<HFSPlusAllocationChunk> chunk;
        uint32_t refcnt = 0;
    };

    explicit HFSPlusAllocation(HFSPlusVolume& volume);

    void cachedChunkRelease(HFSPlusAllocationChunk& chunk);
    /** @p chunk is the caller's own reference: the cache gives up both of its. */
    void _cachedChunkDealloc(const std::shared_ptr<HFSPlusAllocationChunk>& chunk);
    void _trimChunkCache();
    [[nodiscard]] uint64_t _chunkCount() const;
    [[nodiscard]] uint64_t _chunkBytesInFile(uint32_t index) const;
    [[nodiscard]] bool _holdsBlocks(uint64_t count) const;
    [[nodiscard]] bool _checkRange(uint32_t block, uint32_t count, VZDefragErrorSlot error) const;
    template <bool kSet>
    [[nodiscard]] bool _testRun(uint32_t block, uint32_t count, uint32_t& result,
                                VZDefragErrorSlot error);
    template <bool kSet>
    [[nodiscard]] bool _markRun(uint32_t block, uint32_t count, VZDefragErrorSlot error);
    [[nodiscard]] bool _isOfDraft(const HFSPlusAllocationChunk& chunk) const;
    [[nodiscard]] bool _takeIntoDraft(const HFSPlusCachedChunk& chunk, VZDefragErrorSlot error);

    uint32_t _chunkSize = 0;                      // bytes
    KLQueue<HFSPlusAllocationChunk> _chunkCache;  // unreferenced, latest released at the head
    std::unordered_map<uint32_t, CacheEntry> _chunkCacheTOC;
    uint64_t _chunkCacheLimit = 0;  // most unreferenced chunks; 0: no limit
    bool _holdsWrites = false;      // idle chunks that are dirty stay, beyond the limit if need be
    bool _isDraft = false;          // dirty chunks stay out of the queue
    uint64_t _draftChunks = 0;      // dirty ones
    uint32_t _draftDelta = 0;       // free blocks more than the header says; wraps like its field
    std::vector<HFSPlusHostExtentDescriptor> _pinnedExtents;
    HFSPlusAllocationReadAhead* _readAhead = nullptr;  // not owned
};
