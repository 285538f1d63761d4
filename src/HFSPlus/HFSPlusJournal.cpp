#include "HFSPlus/HFSPlusJournal.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "HFSPlus/HFSPlusVolume.h"

bool HFSPlusJournal::copyExtent(HFSPlusHostExtentDescriptor& extent, HFSPlusVolume& volume,
                                VZDefragErrorSlot error)
{
    extent = {};
    const HFSPlusHostVolumeHeader& header = volume.hostVolumeHeader();
    const uint64_t infoOffset = uint64_t{header.journalInfoBlock} * header.blockSize;
    std::vector<uint8_t> bytes(
        std::max<size_t>(volume.deviceBlockSize(), sizeof(HFSPlusJournalInfoBlock)));
    if (!volume.read(bytes.data(), bytes.size(), infoOffset, error)) {
        return false;
    }
    HFSPlusJournalInfoBlock journal;
    std::memcpy(&journal, bytes.data(), sizeof journal);
    if ((journal.flags & kHFSPlusJournalInFSMask) == 0) {
        return true;
    }
    const uint64_t offset = journal.offset;
    const uint64_t size = journal.size;
    const uint64_t volumeSize = uint64_t{header.totalBlocks} * header.blockSize;
    if (size > volumeSize || offset > volumeSize - size) {
        return VZDefragFail(error, "Volume is inconsistent.");
    }
    const uint64_t count =
        (size + header.blockSize - 1 + offset % header.blockSize) / header.blockSize;
    extent = {static_cast<uint32_t>(offset / header.blockSize), static_cast<uint32_t>(count)};
    return true;
}
