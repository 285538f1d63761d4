#include "HFSPlus/HFSPlusAllocation.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <string_view>

#include "HFSPlus/HFSPlusAllocationReadAhead.h"
#include "HFSPlus/HFSPlusUninterruptedChange.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLMemory.h"
#include "KLKit/KLStringUtilities.h"

namespace {

constexpr uint32_t kMinimumChunkSize = 32768;  // bytes
constexpr uint32_t kIdleChunksSize = 524288;   // bytes of unreferenced chunks kept
constexpr uint64_t kWordBits = 64;
constexpr std::string_view kBlockOutOfRange = "Allocation block %1$lu is out of range.";
constexpr std::string_view kInconsistent = "Allocation file is inconsistent.";
constexpr std::string_view kChunkOutOfRange = "Allocation chunk %1$lu is out of range.";

// Chunks hold whole allocation blocks, so a chunk is a whole number of words. As a big-endian
// word, the bitmap's bits run from the most significant one down, in block order.

uint64_t loadWord(const uint8_t* data, uint64_t word)
{
    HFSPlusBigEndian<uint64_t> value;
    std::memcpy(&value, data + word * sizeof value, sizeof value);
    return value;
}

void storeWord(uint8_t* data, uint64_t word, uint64_t bits)
{
    const HFSPlusBigEndian<uint64_t> value = bits;
    std::memcpy(data + word * sizeof value, &value, sizeof value);
}

/** How many bits from @p bit on are alike, set or clear as asked for, @p count at most. */
template <bool kSet>
uint64_t runLength(const uint8_t* data, uint64_t bit, uint64_t count)
{
    uint64_t length = 0;
    while (length < count) {
        const uint64_t position = bit + length;
        const uint64_t bits = loadWord(data, position / kWordBits);
        const uint64_t others = (kSet ? ~bits : bits) << (position % kWordBits);
        if (others != 0) {
            return std::min(count, length + static_cast<uint64_t>(std::countl_zero(others)));
        }
        length += kWordBits - position % kWordBits;
    }
    return count;
}

/** Makes @p count bits from @p bit on alike; whether one of them was not so before. */
template <bool kSet>
bool markBits(uint8_t* data, uint64_t bit, uint64_t count)
{
    bool changed = false;
    while (count > 0) {
        const uint64_t head = bit % kWordBits;
        const uint64_t length = std::min(count, kWordBits - head);
        const uint64_t mask = (~uint64_t{0} << (kWordBits - length)) >> head;
        const uint64_t before = loadWord(data, bit / kWordBits);
        const uint64_t after = kSet ? before | mask : before & ~mask;
        if (after != before) {
            storeWord(data, bit / kWordBits, after);
            changed = true;
        }
        bit += length;
        count -= length;
    }
    return changed;
}

}  // namespace

HFSPlusCachedChunk::HFSPlusCachedChunk(HFSPlusCachedChunk&& other) noexcept
    : _allocation(std::exchange(other._allocation, nullptr)),
      _chunk(std::exchange(other._chunk, nullptr))
{
}

HFSPlusCachedChunk& HFSPlusCachedChunk::operator=(HFSPlusCachedChunk&& other) noexcept
{
    std::swap(_allocation, other._allocation);
    std::swap(_chunk, other._chunk);
    return *this;
}

HFSPlusCachedChunk::~HFSPlusCachedChunk()
{
    if (_chunk != nullptr) {
        _allocation->cachedChunkRelease(*_chunk);
    }
}

std::unique_ptr<HFSPlusAllocation> HFSPlusAllocation::initWithVolume(HFSPlusVolume& volume,
                                                                     VZDefragErrorSlot error)
{
    std::unique_ptr<HFSPlusAllocation> allocation(new HFSPlusAllocation(volume));
    const HFSPlusHostVolumeHeader& header = volume.hostVolumeHeader();
    allocation->_chunkSize = std::max(header.blockSize, kMinimumChunkSize);
    allocation->_chunkCacheLimit = kIdleChunksSize / allocation->_chunkSize;
    if (!allocation->_holdsBlocks(header.totalBlocks)) {
        std::ignore = VZDefragFail(error, kInconsistent);
        return nullptr;
    }
    KLDebugLog(KLDebugLevel::kInfo, "Allocation size     = %@ (total blocks = %lu)\n",
               stringWithPrettySize(allocation->logicalSize()), allocation->totalBlocks());
    return allocation;
}

HFSPlusAllocation::HFSPlusAllocation(HFSPlusVolume& volume)
    : HFSPlusFile(volume, kHFSAllocationFileID)
{
}

HFSPlusAllocation::~HFSPlusAllocation()
{
    dropDraft();
    while (const auto chunk = _chunkCache.tailObject()) {
        _cachedChunkDealloc(chunk);
    }
}

bool HFSPlusAllocation::_holdsBlocks(uint64_t count) const
{
    // Counting bytes instead of bits, since eight times a size from disk may not fit.
    return (count + 7) / 8 <= logicalSize();
}

bool HFSPlusAllocation::_checkRange(uint32_t block, uint32_t count, VZDefragErrorSlot error) const
{
    // The message has the 32-bit sum, whatever the comparison needs.
    return _holdsBlocks(uint64_t{block} + count) ||
           VZDefragFail(error, kBlockOutOfRange, block + count);
}

uint64_t HFSPlusAllocation::_chunkCount() const
{
    return logicalSize() / _chunkSize + (logicalSize() % _chunkSize != 0 ? 1 : 0);
}

uint32_t HFSPlusAllocation::chunkCount() const
{
    return static_cast<uint32_t>(
        std::min<uint64_t>(_chunkCount(), std::numeric_limits<uint32_t>::max()));
}

uint32_t HFSPlusAllocation::chunkIndexFromBlockIndex(uint32_t block) const
{
    return static_cast<uint32_t>(block / (uint64_t{_chunkSize} * 8));
}

uint64_t HFSPlusAllocation::_chunkBytesInFile(uint32_t index) const
{
    const uint64_t offset = uint64_t{_chunkSize} * index;
    return offset < logicalSize() ? std::min<uint64_t>(_chunkSize, logicalSize() - offset) : 0;
}

uint32_t HFSPlusAllocation::chunkSizeFromChunkIndex(uint32_t index, VZDefragErrorSlot error) const
{
    const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
    const uint64_t size = (_chunkBytesInFile(index) + blockSize - 1) / blockSize * blockSize;
    if (size == 0) {
        std::ignore = VZDefragFail(error, kChunkOutOfRange, index);
    }
    return static_cast<uint32_t>(size);
}

HFSPlusCachedChunk HFSPlusAllocation::cachedChunkWithBlockIndex(uint32_t block,
                                                                VZDefragErrorSlot error)
{
    return cachedChunkWithChunkIndex(chunkIndexFromBlockIndex(block), error);
}

HFSPlusCachedChunk HFSPlusAllocation::cachedChunkWithChunkIndex(uint32_t index,
                                                                VZDefragErrorSlot error)
{
    if (const auto found = _chunkCacheTOC.find(index); found != _chunkCacheTOC.end()) {
        CacheEntry& entry = found->second;
        if (entry.chunk->index() != index) {
            KLPanic("allocation chunk %lu found as chunk %lu\n", entry.chunk->index(), index);
        }
        if (entry.refcnt == 0 && !_isOfDraft(*entry.chunk)) {
            _chunkCache.dequeueObject(entry.chunk);
        }
        ++entry.refcnt;
        return {*this, *entry.chunk};
    }
    std::shared_ptr<HFSPlusAllocationChunk> chunk =
        HFSPlusAllocationChunk::initWithAllocation(*this, index, error);
    if (chunk == nullptr) {
        return {};
    }
    HFSPlusAllocationChunk& taken = *chunk;
    _chunkCacheTOC.emplace(index, CacheEntry{.chunk = std::move(chunk), .refcnt = 1});
    return {*this, taken};
}

void HFSPlusAllocation::cachedChunkRelease(HFSPlusAllocationChunk& chunk)
{
    const auto found = _chunkCacheTOC.find(chunk.index());
    if (found == _chunkCacheTOC.end() || found->second.chunk.get() != &chunk ||
        found->second.refcnt == 0) {
        KLPanic("allocation chunk %lu released but not referenced\n", chunk.index());
    }
    CacheEntry& entry = found->second;
    --entry.refcnt;
    if (entry.refcnt == 0 && !_isOfDraft(chunk) &&
        KLWithinMemory([&] { _chunkCache.enqueueHeadObject(entry.chunk); })) {
        // Without memory for its place in the queue the chunk stays until it is next given back.
        _trimChunkCache();
    }
}

void HFSPlusAllocation::_trimChunkCache()
{
    // Ends since each turn takes a chunk out of the queue. One turn is all there is to do, except
    // after writes were held.
    while (_chunkCacheLimit != 0 && _chunkCache.count() > _chunkCacheLimit) {
        std::shared_ptr<HFSPlusAllocationChunk> victim = _chunkCache.tailObject();
        while (_holdsWrites && victim != nullptr && victim->dirty()) {
            victim = _chunkCache.prevObject(victim);
        }
        if (victim == nullptr) {
            return;
        }
        _cachedChunkDealloc(victim);
    }
}

void HFSPlusAllocation::_cachedChunkDealloc(const std::shared_ptr<HFSPlusAllocationChunk>& chunk)
{
    // A failure is logged by the chunk and remembered by the volume, which then refuses to write
    // a header over a bitmap that has lost a change.
    if (!KLWithinMemory([&chunk] { std::ignore = chunk->flush(); })) {
        _volume.metadataWriteDidFail();
    }
    if (_chunkCacheTOC.erase(chunk->index()) == 0) {
        KLPanic("allocation chunk %lu is not in the cache\n", chunk->index());
    }
    _chunkCache.dequeueObject(chunk);
}

bool HFSPlusAllocation::readChunk(uint32_t index, uint8_t* buffer, VZDefragErrorSlot error)
{
    const uint64_t size = chunkSizeFromChunkIndex(index, error);
    if (size == 0) {
        return false;
    }
    // A file that ends inside a block has no bits in the rest of it: zeros keep the chunk whole.
    const uint64_t nbyte = _chunkBytesInFile(index);
    std::memset(buffer + nbyte, 0, size - nbyte);
    const uint64_t offset = uint64_t{_chunkSize} * index;
    return (_readAhead != nullptr && _readAhead->copy(buffer, nbyte, offset)) ||
           read(buffer, nbyte, offset, error) || VZDefragFail(error, kChunkOutOfRange, index);
}

bool HFSPlusAllocation::writeChunk(uint32_t index, const uint8_t* buffer, VZDefragErrorSlot error)
{
    if (_readAhead != nullptr) {
        _readAhead->drop();
    }
    return (chunkSizeFromChunkIndex(index, error) != 0 &&
            write(buffer, _chunkBytesInFile(index), uint64_t{_chunkSize} * index, error)) ||
           VZDefragFail(error, kChunkOutOfRange, index);
}

template <bool kSet>
bool HFSPlusAllocation::_testRun(uint32_t block, uint32_t count, uint32_t& result,
                                 VZDefragErrorSlot error)
{
    if (!_checkRange(block, count, error)) {
        result -= count;  // wraps; what a caller made of it before stays what it was
        return false;
    }
    result = count;
    const uint64_t chunkBits = uint64_t{_chunkSize} * 8;
    for (uint64_t examined = 0; examined < count;) {
        const uint64_t current = uint64_t{block} + examined;
        const HFSPlusCachedChunk chunk =
            cachedChunkWithChunkIndex(static_cast<uint32_t>(current / chunkBits), error);
        if (!chunk) {
            result = static_cast<uint32_t>(examined);
            return false;
        }
        const uint64_t offset = current % chunkBits;
        // Not zero, since the whole range lies inside the file: each turn makes progress.
        const uint64_t part = std::min(count - examined, uint64_t{chunk->size()} * 8 - offset);
        const uint64_t run = runLength<kSet>(chunk->data(), offset, part);
        examined += run;
        if (run < part) {
            result = static_cast<uint32_t>(examined);
            return true;
        }
    }
    return true;
}

bool HFSPlusAllocation::isClear(uint32_t block, uint32_t count, uint32_t& result,
                                VZDefragErrorSlot error)
{
    return _testRun<false>(block, count, result, error);
}

bool HFSPlusAllocation::isSet(uint32_t block, uint32_t count, uint32_t& result,
                              VZDefragErrorSlot error)
{
    return _testRun<true>(block, count, result, error);
}

template <bool kSet>
bool HFSPlusAllocation::_markRun(uint32_t block, uint32_t count, VZDefragErrorSlot error)
{
    const HFSPlusUninterruptedChange change(_volume);
    bool marked = _checkRange(block, count, error);
    uint64_t processed = 0;
    const uint64_t chunkBits = uint64_t{_chunkSize} * 8;
    while (marked && processed < count) {
        const uint64_t current = uint64_t{block} + processed;
        const HFSPlusCachedChunk chunk =
            cachedChunkWithChunkIndex(static_cast<uint32_t>(current / chunkBits), error);
        if (!chunk) {
            marked = false;
            break;
        }
        const uint64_t offset = current % chunkBits;
        const uint64_t part = std::min(count - processed, uint64_t{chunk->size()} * 8 - offset);
        marked = !_isDraft || _takeIntoDraft(chunk, error);
        if (!marked) {
            break;
        }
        if (markBits<kSet>(chunk->data(), offset, part)) {
            chunk->setDirty(true);
        }
        processed += part;
    }
    // Counts what was asked for, not the bits that flipped: the extents decide who owns a block,
    // and a caller that repairs the bitmap only marks what differs. Wraps like the header's field.
    const auto delta = static_cast<uint32_t>(processed);
    if (_isDraft) {
        _draftDelta += kSet ? 0 - delta : delta;
    } else {
        _volume.updateFreeBlocks(static_cast<int32_t>(kSet ? 0 - delta : delta));
    }
    return marked;
}

bool HFSPlusAllocation::_isOfDraft(const HFSPlusAllocationChunk& chunk) const
{
    return _isDraft && chunk.dirty();
}

/** Makes @p chunk, which is referenced, one of those that a draft keeps. */
bool HFSPlusAllocation::_takeIntoDraft(const HFSPlusCachedChunk& chunk, VZDefragErrorSlot error)
{
    if (chunk->dirty()) {
        return true;
    }
    // Only a bitmap that contradicts the extents all over changes as much.
    if (_draftChunks >= std::max<uint64_t>(kDraftLimit / _chunkSize, 1)) {
        return VZDefragFail(error, kInconsistent);
    }
    ++_draftChunks;
    chunk->setDirty(true);
    return true;
}

void HFSPlusAllocation::beginDraft()
{
    // Taking the draft back must not take with it what is to be written anyway.
    _isDraft = _isDraft || !isDirty();
}

void HFSPlusAllocation::keepDraft()
{
    if (!_isDraft) {
        return;
    }
    const HFSPlusUninterruptedChange change(_volume);
    _isDraft = false;
    _draftChunks = 0;
    for (const auto& [index, entry] : _chunkCacheTOC) {
        if (entry.refcnt == 0 && entry.chunk->dirty()) {
            _chunkCache.enqueueTailObject(entry.chunk);
        }
    }
    _volume.updateFreeBlocks(static_cast<int32_t>(std::exchange(_draftDelta, 0)));
}

void HFSPlusAllocation::dropDraft()
{
    if (!_isDraft) {
        return;
    }
    std::erase_if(_chunkCacheTOC, [](const auto& item) {
        if (item.second.chunk->dirty() && item.second.refcnt != 0) {
            KLPanic("allocation chunk %lu of a draft is referenced\n", item.first);
        }
        return item.second.chunk->dirty();
    });
    _isDraft = false;
    _draftChunks = 0;
    _draftDelta = 0;
}

bool HFSPlusAllocation::clear(uint32_t block, uint32_t count, VZDefragErrorSlot error)
{
    return _markRun<false>(block, count, error);
}

bool HFSPlusAllocation::set(uint32_t block, uint32_t count, VZDefragErrorSlot error)
{
    return _markRun<true>(block, count, error);
}

bool HFSPlusAllocation::flush()
{
    keepDraft();
    std::vector<std::shared_ptr<HFSPlusAllocationChunk>> chunks;
    for (const auto& [index, entry] : _chunkCacheTOC) {
        if (entry.chunk->dirty()) {
            chunks.push_back(entry.chunk);
        }
    }
    // In file order, so that the device sees ascending writes.
    std::ranges::sort(chunks, {}, [](const auto& chunk) { return chunk->index(); });
    bool flushed = true;
    for (const auto& chunk : chunks) {
        flushed = chunk->flush() && flushed;
    }
    return flushed;
}

bool HFSPlusAllocation::isDirty() const
{
    return std::ranges::any_of(_chunkCacheTOC,
                               [](const auto& item) { return item.second.chunk->dirty(); });
}

std::vector<HFSPlusByteRange> HFSPlusAllocation::_dirtyPieces() const
{
    std::vector<HFSPlusByteRange> pieces;
    for (const auto& [index, entry] : _chunkCacheTOC) {
        if (entry.chunk->dirty()) {
            pieces.push_back({uint64_t{_chunkSize} * index, _chunkBytesInFile(index)});
        }
    }
    return pieces;
}

void HFSPlusAllocation::setHoldsWrites(bool holds)
{
    _holdsWrites = holds;
}

void HFSPlusAllocation::setPinnedExtents(std::vector<HFSPlusHostExtentDescriptor> extents)
{
    _pinnedExtents = std::move(extents);
}

uint64_t HFSPlusAllocation::translateOffset(uint64_t& offset, VZDefragErrorSlot error)
{
    if (_pinnedExtents.empty()) {
        return HFSPlusFile::translateOffset(offset, error);
    }
    const uint64_t contiguous =
        _volume.translateOffsetInExtents(offset, _pinnedExtents, 0, *_hostForkData);
    if (contiguous == 0) {
        std::ignore = VZDefragFail(error, "Offset %1$llu is out of range for file ID %2$lu.",
                                   offset, fileID());
    }
    return contiguous;
}

void HFSPlusAllocation::dump(uint32_t block, uint32_t count)
{
    for (uint32_t dumped = 0; dumped < count; ++dumped) {
        uint32_t set = 0;
        std::unique_ptr<VZDefragError> failure;
        if (!_checkRange(block, count, &failure) || !isSet(block + dumped, 1, set, &failure)) {
            KLPanic("%@\n", failure->description());
        }
        KLDebugLog(KLDebugLevel::kDebug, "%c", set != 0 ? '1' : '0');
    }
    KLDebugLog(KLDebugLevel::kDebug, "\n");
}
