#include "Tasks/HFSPlusBitmapTask.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusAllocationReadAhead.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLStringUtilities.h"
#include "Tasks/HFSPlusBitmapPicture.h"
#include "VZDefragOutput.h"

namespace {

/** The integer that @p word begins with, whatever follows it; the nearest one of 32 bits. */
std::optional<int32_t> scaleAtStart(std::string_view word)
{
    constexpr int64_t kLowest = std::numeric_limits<int32_t>::min();
    constexpr int64_t kHighest = std::numeric_limits<int32_t>::max();
    const std::optional<int64_t> number = integerAtStart(word);
    if (!number) {
        return std::nullopt;
    }
    return static_cast<int32_t>(std::clamp(*number, kLowest, kHighest));
}

}  // namespace

HFSPlusBitmapTask::HFSPlusBitmapTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event)
    : HFSPlusReportTask(volume, std::move(event), "BITMAP")
{
    setAction([this] { performTask([this](auto& error) { _bitmap(error); }); });
}

void HFSPlusBitmapTask::_bitmap(std::unique_ptr<VZDefragError>& error)
{
    int32_t scale = 0;
    if (_parseArguments(scale, &error)) {
        const KLClosedGate gate(_volume.gate());
        std::ignore = _parseAllocationWithScale(scale, &error);  // the error says it all
    }
}

bool HFSPlusBitmapTask::_parseArguments(int32_t& scale, VZDefragErrorSlot error)
{
    std::optional<int32_t> found;
    for (size_t index = 1; index < arguments().size(); ++index) {
        const std::string& word = arguments()[index];
        if (word == "-m") {
            _maskMD = true;
        } else if (found) {
            return VZDefragFail(error, "Unknown option: %1$@", word);
        } else {
            found = scaleAtStart(word);
            if (!found || *found <= 0) {
                return VZDefragFail(error, "%1$@ is not a positive integer.", word);
            }
        }
    }
    if (!found) {
        return VZDefragFail(error, "Scale argument is required.");
    }
    scale = *found;
    return true;
}

uint32_t HFSPlusBitmapTask::_lastUsedLimit() const
{
    // The alternate header's blocks are always in use and say nothing about the data.
    const HFSPlusHostVolumeHeader& header = _volume.hostVolumeHeader();
    const uint32_t headerBlocks = header.blockSize <= 512 ? 2 : 1;
    return header.totalBlocks - std::min(header.totalBlocks, headerBlocks);
}

bool HFSPlusBitmapTask::_parseAllocationWithScale(int32_t scale, VZDefragErrorSlot error)
{
    const uint64_t totalBlocks = _volume.hostVolumeHeader().totalBlocks;
    const auto blocksPerBit = static_cast<uint32_t>(scale);
    const uint64_t bits = (blocksPerBit - 1 + totalBlocks) / blocksPerBit;
    VZDefragWriteOutput(KLFormatString("%s,LENGTH,%llu\n", name(), (bits + 7) / 8));

    HFSPlusBitmapPicture picture(blocksPerBit, [this](std::string_view digits) {
        VZDefragWriteOutput(std::string(name()).append(",DATA,").append(digits).append("\n"));
    });
    picture.setFirstUnmaskedBlock(_maskMD ? _volume.firstDataBlock() : 0);
    picture.setLastUsedLimit(_lastUsedLimit());

    HFSPlusAllocation& allocation = _volume.allocation();
    const HFSPlusAllocationReadAhead readAhead(allocation);
    const uint64_t chunkBlocks = uint64_t{allocation.chunkSize()} * 8;
    for (uint64_t block = 0; block < totalBlocks; block += chunkBlocks) {
        if (!VZDefragCheckNotAborted(error)) {
            return false;
        }
        const HFSPlusCachedChunk chunk =
            allocation.cachedChunkWithBlockIndex(static_cast<uint32_t>(block), error);
        if (!chunk) {
            return false;
        }
        const uint64_t size = std::min<uint64_t>(chunk->size(), (totalBlocks - block + 7) / 8);
        picture.append({chunk->data(), size});
    }
    picture.finish();
    VZDefragWriteOutput(
        KLFormatString("%s,FIRSTUNUSEDBLOCK,%u\n", name(), picture.firstUnusedBlock()));
    VZDefragWriteOutput(KLFormatString("%s,LASTUSEDBLOCK,%u\n", name(), picture.lastUsedBlock()));
    return true;
}
