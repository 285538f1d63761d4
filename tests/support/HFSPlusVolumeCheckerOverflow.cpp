#include "support/HFSPlusVolumeCheckerOverflow.h"

#include <algorithm>
#include <limits>
#include <tuple>

namespace {

constexpr uint32_t kExtentsFileID = 3;
constexpr uint32_t kBadBlockFileID = 5;
constexpr size_t kInlineExtentsOffset = 16;

}  // namespace

size_t appendCheckedExtents(const uint8_t* record, const char* forkName,
                            HFSPlusCheckProblems& problems,
                            std::vector<HFSPlusCheckedExtent>& extents, uint64_t& blockCount)
{
    size_t used = 0;
    for (size_t index = 0; index < kHFSPlusCheckExtentDensity; ++index) {
        const HFSPlusCheckedExtent extent = {checkedUInt32(record + 8 * index),
                                             checkedUInt32(record + 8 * index + 4)};
        if (extent.blockCount == 0) {
            if (extent.startBlock != 0) {
                problems.report("%s has an extent of no blocks at %u", forkName, extent.startBlock);
            }
            continue;
        }
        if (used != index) {
            problems.report("%s has an extent after an unused one", forkName);
        }
        used = index + 1;
        extents.push_back(extent);
        blockCount += extent.blockCount;
    }
    return used;
}

void HFSPlusCheckOverflow::visitRecord(std::span<const uint8_t> key, std::span<const uint8_t> data)
{
    Record record = {
        checkedUInt32(key.data() + 4), key[2], false, checkedUInt32(key.data() + 8), {}};
    if (data.size() != record.extents.size()) {
        _volume.problems.report("the overflow record of file %u at block %u has %zu bytes",
                                record.fileID, record.startBlock, data.size());
        return;
    }
    std::copy(data.begin(), data.end(), record.extents.begin());
    _records.push_back(record);
}

void HFSPlusCheckOverflow::sort()
{
    std::stable_sort(_records.begin(), _records.end(), [](const Record& left, const Record& right) {
        return std::tie(left.fileID, left.forkType, left.startBlock) <
               std::tie(right.fileID, right.forkType, right.startBlock);
    });
}

HFSPlusCheckOverflow::Record* HFSPlusCheckOverflow::_find(uint32_t fileID, uint8_t forkType,
                                                          uint64_t startBlock)
{
    const auto wanted = std::make_tuple(fileID, forkType, startBlock);
    auto found = std::lower_bound(
        _records.begin(), _records.end(), wanted, [](const Record& record, const auto& value) {
            return std::make_tuple(record.fileID, record.forkType, uint64_t{record.startBlock}) <
                   value;
        });
    if (found == _records.end() || found->fileID != fileID || found->forkType != forkType ||
        found->startBlock != startBlock) {
        return nullptr;
    }
    return &*found;
}

void HFSPlusCheckOverflow::_appendRecords(HFSPlusCheckedFork& fork, const char* name,
                                          uint64_t wantedBlocks, uint64_t& blockCount)
{
    size_t lastUsed = kHFSPlusCheckExtentDensity;  // the inline record, or the one before
    // A record that adds no block ends the walk, and so does one reached before.
    while (blockCount < wantedBlocks) {
        Record* record = _find(fork.cnid, fork.forkType, blockCount);
        if (record == nullptr || record->isReached) {
            if (fork.cnid != kBadBlockFileID) {
                _volume.problems.report("%s has no overflow record for its block %llu", name,
                                        static_cast<unsigned long long>(blockCount));
            }
            return;
        }
        record->isReached = true;
        if (lastUsed != kHFSPlusCheckExtentDensity) {
            _volume.problems.report("%s has an overflow record after one that is not full", name);
        }
        lastUsed = appendCheckedExtents(record->extents.data(), name, _volume.problems,
                                        fork.extents, blockCount);
        if (lastUsed == 0) {
            _volume.problems.report("%s has an empty overflow record", name);
            return;
        }
    }
}

HFSPlusCheckedFork HFSPlusCheckOverflow::resolve(const uint8_t* forkData, uint32_t cnid,
                                                 uint8_t forkType, bool isSpecial)
{
    HFSPlusCheckedFork fork;
    fork.cnid = cnid;
    fork.forkType = forkType;
    fork.isSpecial = isSpecial;
    fork.logicalSize = checkedUInt64(forkData);
    fork.totalBlocks = checkedUInt32(forkData + 12);
    const std::string name = checkedForkName(cnid, forkType);

    uint64_t blockCount = 0;
    const size_t used = appendCheckedExtents(forkData + kInlineExtentsOffset, name.c_str(),
                                             _volume.problems, fork.extents, blockCount);
    if (blockCount < fork.totalBlocks && cnid != kExtentsFileID) {
        if (used != kHFSPlusCheckExtentDensity) {
            _volume.problems.report("%s has %zu of 8 extents in use but lacks blocks", name.c_str(),
                                    used);
        } else {
            _appendRecords(fork, name.c_str(), fork.totalBlocks, blockCount);
        }
    }
    if (blockCount != fork.totalBlocks) {
        _volume.problems.report("%s has %u blocks, its extents %llu", name.c_str(),
                                fork.totalBlocks, static_cast<unsigned long long>(blockCount));
    }
    if (fork.logicalSize > uint64_t{fork.totalBlocks} * _volume.blockSize) {
        _volume.problems.report("%s has %llu bytes in %u blocks", name.c_str(),
                                static_cast<unsigned long long>(fork.logicalSize),
                                fork.totalBlocks);
    }
    _claim(fork);
    return fork;
}

HFSPlusCheckedFork HFSPlusCheckOverflow::resolveBadBlocks()
{
    HFSPlusCheckedFork fork;
    fork.cnid = kBadBlockFileID;
    fork.isSpecial = true;
    // Nothing says how many blocks there are, so the walk ends with the records.
    uint64_t blockCount = 0;
    _appendRecords(fork, checkedForkName(kBadBlockFileID, 0).c_str(),
                   std::numeric_limits<uint64_t>::max(), blockCount);
    fork.totalBlocks = static_cast<uint32_t>(std::min<uint64_t>(blockCount, UINT32_MAX));
    fork.logicalSize = uint64_t{fork.totalBlocks} * _volume.blockSize;
    _claim(fork);
    return fork;
}

void HFSPlusCheckOverflow::_claim(const HFSPlusCheckedFork& fork)
{
    for (const HFSPlusCheckedExtent& extent : fork.extents) {
        _usage.add(extent, fork.cnid, fork.forkType, HFSPlusCheckOwner::kFork);
    }
}

void HFSPlusCheckOverflow::reportUnreached()
{
    for (const Record& record : _records) {
        if (!record.isReached) {
            _volume.problems.report("the overflow record of %s at its block %u belongs to no fork",
                                    checkedForkName(record.fileID, record.forkType).c_str(),
                                    record.startBlock);
        }
    }
}
