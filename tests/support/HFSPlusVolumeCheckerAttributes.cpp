#include "support/HFSPlusVolumeCheckerAttributes.h"

#include <algorithm>

#include "support/HFSPlusVolumeCheckerOverflow.h"

namespace {

constexpr uint32_t kInlineData = 0x10;
constexpr uint32_t kForkData = 0x20;
constexpr uint32_t kExtents = 0x30;
constexpr uint32_t kVolumeOwnerID = 1;  // attributes of the volume itself
constexpr size_t kInlineHeaderSize = 16;
constexpr size_t kForkRecordSize = 88;
constexpr size_t kExtentsRecordSize = 72;
constexpr size_t kNameOffset = 14;
constexpr const char* kForkName = "an attribute's fork";

}  // namespace

void HFSPlusCheckAttributes::visitRecord(std::span<const uint8_t> key,
                                         std::span<const uint8_t> data)
{
    const uint32_t owner = checkedUInt32(key.data() + 4);
    const uint32_t startBlock = checkedUInt32(key.data() + 8);
    if (_owners.empty() || _owners.back() != owner) {
        _owners.push_back(owner);
    }
    const uint32_t kind = data.size() < kInlineHeaderSize ? 0 : checkedUInt32(data.data());
    if (kind == kExtents && data.size() == kExtentsRecordSize) {
        _visitExtents(key, data);
        return;
    }
    _endFork();
    if (kind == kForkData && data.size() == kForkRecordSize) {
        _visitFork(key, data);
    } else if (kind != kInlineData ||
               data.size() - kInlineHeaderSize < checkedUInt32(data.data() + 12)) {
        _volume.problems.report("an attribute record of file %u has kind 0x%X and %zu bytes", owner,
                                kind, data.size());
    }
    if (startBlock != 0) {
        _volume.problems.report("an attribute of file %u begins at its block %u", owner,
                                startBlock);
    }
}

void HFSPlusCheckAttributes::_visitFork(std::span<const uint8_t> key, std::span<const uint8_t> data)
{
    const uint8_t* forkData = data.data() + 8;
    _openKey.assign(key.begin(), key.end());
    _open.cnid = checkedUInt32(key.data() + 4);
    _open.logicalSize = checkedUInt64(forkData);
    _open.totalBlocks = checkedUInt32(forkData + 12);
    _openLastUsed = appendCheckedExtents(forkData + 16, kForkName, _volume.problems, _open.extents,
                                         _openBlockCount);
}

bool HFSPlusCheckAttributes::_isSameAttribute(std::span<const uint8_t> key) const
{
    const std::span<const uint8_t> open(_openKey);
    return open.size() == key.size() && std::ranges::equal(open.subspan(4, 4), key.subspan(4, 4)) &&
           std::ranges::equal(open.subspan(kNameOffset), key.subspan(kNameOffset));
}

void HFSPlusCheckAttributes::_visitExtents(std::span<const uint8_t> key,
                                           std::span<const uint8_t> data)
{
    const uint32_t startBlock = checkedUInt32(key.data() + 8);
    if (!_isSameAttribute(key) || startBlock != _openBlockCount ||
        _openLastUsed != kHFSPlusCheckExtentDensity || _openBlockCount >= _open.totalBlocks) {
        _volume.problems.report("the attribute extents of file %u at block %u belong to no fork",
                                checkedUInt32(key.data() + 4), startBlock);
        return;
    }
    _openLastUsed = appendCheckedExtents(data.data() + 8, kForkName, _volume.problems,
                                         _open.extents, _openBlockCount);
}

void HFSPlusCheckAttributes::_endFork()
{
    if (_openKey.empty()) {
        return;
    }
    if (_openBlockCount != _open.totalBlocks) {
        _volume.problems.report("an attribute of file %u has %u blocks, its extents %llu",
                                _open.cnid, _open.totalBlocks,
                                static_cast<unsigned long long>(_openBlockCount));
    }
    if (_open.logicalSize > uint64_t{_open.totalBlocks} * _volume.blockSize) {
        _volume.problems.report("an attribute of file %u has %llu bytes in %u blocks", _open.cnid,
                                static_cast<unsigned long long>(_open.logicalSize),
                                _open.totalBlocks);
    }
    for (const HFSPlusCheckedExtent& extent : _open.extents) {
        _usage.add(extent, _open.cnid, kHFSPlusCheckDataFork, HFSPlusCheckOwner::kAttribute);
    }
    _result.attributeForks.push_back(std::move(_open));
    _open = {};
    _openKey.clear();
    _openBlockCount = 0;
}

void HFSPlusCheckAttributes::finish(const HFSPlusCheckCatalog& catalog)
{
    _endFork();
    std::sort(_owners.begin(), _owners.end());
    for (const uint32_t owner : _owners) {
        if (owner != kVolumeOwnerID && !catalog.hasObject(owner)) {
            _volume.problems.report("file %u has attributes but does not exist", owner);
        }
    }
    const std::vector<uint32_t>& flagged = catalog.objectsWithAttributes();
    for (const uint32_t owner : _owners) {
        if (catalog.hasObject(owner) &&
            !std::binary_search(flagged.begin(), flagged.end(), owner)) {
            _volume.problems.report("the flags of file %u do not show its attributes", owner);
        }
    }
    for (const uint32_t cnid : flagged) {
        if (!std::binary_search(_owners.begin(), _owners.end(), cnid)) {
            _volume.problems.report("the flags of file %u show attributes that are missing", cnid);
        }
    }
}
