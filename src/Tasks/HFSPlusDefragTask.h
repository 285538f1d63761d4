#pragma once

#include <memory>
#include <optional>

#include "HFSPlus/HFSPlusExtentMap.h"
#include "HFSPlus/HFSPlusFileForkSet.h"
#include "Tasks/HFSPlusCopyBuffer.h"
#include "Tasks/HFSPlusDefragProgress.h"
#include "Tasks/HFSPlusExtentMapBuilder.h"
#include "VZDefragTask.h"

class HFSPlusSourceSelection;
class HFSPlusVolume;

/** The commands that move data: DEFRAG makes every movable fork contiguous, COMPACT slides all data
 *  towards the start of the volume. */
class HFSPlusDefragTask : public VZDefragTask {
public:
    HFSPlusDefragTask(HFSPlusVolume& volume, bool compact);

    /** Carries no more than @p size bytes a cycle, instead of what physical memory suggests. */
    void setCopyBufferSize(uint64_t size) { _copyBufferSize = size; }
    /** Maps no more than @p bytes of memory hold at once, instead of what is usual. */
    void setSpanMemory(uint64_t bytes) { _spanMemory = bytes; }
    /** Forks to lay down first, in order. */
    void setProfileFileForks(std::unique_ptr<HFSPlusFileForkSet> fileForks);

private:
    enum class Front { kFailed, kInPlace, kStartHere };

    void _defrag(std::unique_ptr<VZDefragError>& error);
    [[nodiscard]] bool _parseOptions(VZDefragErrorSlot error);
    [[nodiscard]] bool _parseProfiles(const std::string& list, VZDefragErrorSlot error);
    [[nodiscard]] bool _checkVolume(VZDefragErrorSlot error) const;
    [[nodiscard]] bool _moveData(VZDefragErrorSlot error);
    [[nodiscard]] bool _run(VZDefragErrorSlot error);
    [[nodiscard]] bool _writeRepairs(VZDefragErrorSlot error);
    [[nodiscard]] std::unique_ptr<HFSPlusSourceSelection> _makeSelection();
    [[nodiscard]] bool _prepareProfiles(VZDefragErrorSlot error);
    [[nodiscard]] bool _buildProfiles(VZDefragErrorSlot error);
    void _resetBootProfile(VZDefragErrorSlot error);
    void _removeImmutableForksFromProfiles();
    [[nodiscard]] bool _makeSpan(VZDefragErrorSlot error);
    [[nodiscard]] bool _prepareForRun(VZDefragErrorSlot error);
    [[nodiscard]] bool _buildFirstSpan(VZDefragErrorSlot error);
    [[nodiscard]] bool _lookAtAllSpans(VZDefragErrorSlot error);
    [[nodiscard]] bool _buildSpan(uint32_t firstBlock, VZDefragErrorSlot error);
    [[nodiscard]] bool _skipToDataBlocks(VZDefragErrorSlot error);
    [[nodiscard]] bool _skipWhatIsInPlace(VZDefragErrorSlot error);
    [[nodiscard]] bool _removeFrontEntry(VZDefragErrorSlot error);
    [[nodiscard]] Front _frontEntry(const HFSPlusExtentMapEntry& entry, VZDefragErrorSlot error);
    [[nodiscard]] Front _frontEntryToCompact(const HFSPlusExtentMapEntry& entry);
    [[nodiscard]] uint32_t _blocksNeededBehind(const HFSPlusExtentMapEntry& entry);
    [[nodiscard]] Front _frontEntryInProfile(const HFSPlusExtentMapEntry& entry,
                                             const HFSPlusHostExtentDescriptor* extent,
                                             VZDefragErrorSlot error);
    void _startProgress();

    HFSPlusVolume& _volume;
    const bool _compact;
    uint32_t _allocatedBlocks = 0;  // when the run began
    bool _verbose = true;
    bool _useAppProfile = false;
    bool _useBootProfile = false;
    std::optional<uint64_t> _copyBufferSize;  // bytes
    std::optional<uint64_t> _spanMemory;      // bytes
    std::unique_ptr<HFSPlusFileForkSet> _immutableFileForks;
    std::unique_ptr<HFSPlusFileForkSet> _profileFileForks;  // null when no profile applies
    std::unique_ptr<HFSPlusExtentMapBuilder> _span;
    std::unique_ptr<HFSPlusCopyBuffer> _copyBuffer;
    std::unique_ptr<HFSPlusDefragProgress> _progress;
    uint64_t _skippedBlocks = 0;  // allocated blocks that were in place before the pass began
    uint32_t _nextDataStart = 0;  // of COMPACT: the first data behind the holes skipped so far
    uint32_t _nextDataNeeds = 0;  // blocks of them that cannot be parted
};
