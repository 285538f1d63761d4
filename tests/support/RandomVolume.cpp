#include "support/RandomVolume.h"

#include <algorithm>

namespace {

constexpr uint32_t kBlockSizes[] = {512, 512, 1024, 2048, 4096, 4096, 4096, 8192, 16384, 65536};
constexpr uint32_t kExtentsNodeSizes[] = {512, 512, 1024, 4096, 8192};
constexpr uint64_t kMostBytes = 8 << 20;
constexpr uint32_t kFewestBlocks = 120;
constexpr uint32_t kMostBlocks = 5000;
constexpr uint64_t kBytesPerFile = 800;  // of the catalog, on the safe side

}  // namespace

HFSPlusVolumeBuilder RandomVolume::make()
{
    HFSPlusVolumeBuilder builder;
    _chooseGeometry();
    builder.blockSize(_blockSize).totalBlocks(_totalBlocks);
    // What a wrapper or trailing bytes add may end in the middle of a larger device block.
    _deviceBlockSize = _blockSize >= 4096 && _chance(30) ? 4096 : 512;
    if (_isHFSX) {
        builder.hfsx(_chance(50));
    } else if (_deviceBlockSize == 512 && _chance(15)) {
        builder.wrapper();
    }
    if (_deviceBlockSize == 512 && _chance(20)) {
        builder.trailingBytes(512 * uint64_t{_below(_blockSize / 512)});
    }
    if (_isJournaled) {
        _addJournal(builder);
    }
    _addSpecialFiles(builder);
    if (_chance(30)) {
        _addObstacles(builder);
    }
    _addFiles(builder);
    return builder;
}

std::string RandomVolume::description() const
{
    return std::to_string(_totalBlocks) + " blocks of " + std::to_string(_blockSize) + " bytes, " +
           std::to_string(_usedBlocks) + " in use, " + std::to_string(_fileCount) + " files" +
           (_isJournaled ? ", journaled" : "") + (_isHFSX ? ", HFSX" : "") +
           (_hasObstacles ? ", obstacles" : "");
}

void RandomVolume::_chooseGeometry()
{
    _blockSize = kBlockSizes[_below(std::size(kBlockSizes))];
    const auto most = static_cast<uint32_t>(
        std::clamp<uint64_t>(kMostBytes / _blockSize, kFewestBlocks + 60, kMostBlocks));
    _totalBlocks = kFewestBlocks + _below(most - kFewestBlocks);
    _isHFSX = _chance(35);
    _isJournaled = _chance(30);
    _hasObstacles = _isJournaled;
    _fileCount = 1 + _below(_chance(20) ? 120 : 25);
    // The builder may have to place what is left to it in one piece: some room stays.
    _usedLimit = _totalBlocks / 100 * (20 + _below(70));
    _usedBlocks = 0;
    _used.assign(_totalBlocks, false);
    const uint32_t front = (1536 + _blockSize - 1) / _blockSize;
    std::fill_n(_used.begin(), front, true);
    std::fill_n(_used.rbegin(), 2, true);
    // Half of all volumes keep a front that is free when the builder chooses places.
    if (_chance(50)) {
        std::fill_n(_used.begin() + front, _totalBlocks / 6, true);
    }
}

/** Claims a run of @p count blocks, mostly anywhere. */
std::optional<uint32_t> RandomVolume::_take(uint32_t count)
{
    const uint32_t first = _below(_totalBlocks);
    uint32_t run = 0;
    for (uint32_t step = 0; step < _totalBlocks + count; step++) {
        const uint32_t block = (first + step) % _totalBlocks;
        run = _used[block] || block == 0 ? 0 : run + 1;
        if (run == count) {
            const uint32_t start = block + 1 - count;
            std::fill_n(_used.begin() + start, count, true);
            _usedBlocks += count;
            return start;
        }
    }
    return std::nullopt;
}

/** @p blocks blocks in up to @p most pieces of whole units; fewer where there is no room. */
HFSPlusBuilderExtents RandomVolume::_pieces(uint64_t blocks, uint32_t most, uint32_t unit)
{
    HFSPlusBuilderExtents extents;
    uint64_t rest = (blocks + unit - 1) / unit;
    while (rest != 0) {
        const bool isLast = extents.size() + 1 >= most;
        const uint64_t average = std::max<uint64_t>(1, 2 * rest / (most - extents.size() + 1));
        const uint64_t count = isLast ? rest : std::min<uint64_t>(rest, 1 + _below(average));
        const std::optional<uint32_t> start = _take(static_cast<uint32_t>(count * unit));
        if (!start.has_value()) {
            break;
        }
        extents.push_back({*start, static_cast<uint32_t>(count * unit)});
        rest -= count;
    }
    return extents;
}

/** Blocks of a B-tree file that stay together: on a journaled volume whole nodes. */
uint32_t RandomVolume::_unitFor(uint32_t nodeSize) const
{
    return _isJournaled ? std::max(1U, nodeSize / _blockSize) : 1;
}

void RandomVolume::_addJournal(HFSPlusVolumeBuilder& builder)
{
    const uint32_t blocks = std::max(2U, 32768 / _blockSize);
    const std::optional<uint32_t> start = _take(blocks);
    const std::optional<uint32_t> info = _take(1);
    if (start.has_value() && info.has_value()) {
        builder.journal(*start, blocks).journalInfoBlock(*info);
    }
}

void RandomVolume::_addSpecialFiles(HFSPlusVolumeBuilder& builder)
{
    const uint32_t catalogNode = _chance(70) ? 4096 : 8192;
    builder.catalogNodeSize(catalogNode);
    if (_chance(50)) {
        const uint64_t bytes = uint64_t{_fileCount + 8} * kBytesPerFile * 2 + 6 * catalogNode;
        const uint32_t nodes = static_cast<uint32_t>(bytes / catalogNode + 1);
        const uint64_t blocks = uint64_t{nodes} * catalogNode / _blockSize + 1;
        const uint32_t unit = std::max(_unitFor(catalogNode), catalogNode / _blockSize);
        builder.catalogExtents(_pieces(blocks, 1 + _below(11), std::max(1U, unit)));
    }
    const uint32_t extentsNode = kExtentsNodeSizes[_below(std::size(kExtentsNodeSizes))];
    builder.extentsNodeSize(extentsNode);
    _overflowLimit = _totalBlocks;
    if (_chance(50)) {
        const uint32_t unit = std::max(1U, extentsNode / _blockSize);
        const uint64_t blocks = 2 * unit + _below(_totalBlocks / 25);
        const HFSPlusBuilderExtents extents = _pieces(blocks, 1 + _below(8), unit);
        builder.extentsFileExtents(extents);
        const uint64_t nodes =
            HFSPlusBuilderFork{extents, {}, 0, {}}.size(_blockSize) / extentsNode;
        _overflowLimit =
            nodes < 4 ? 0 : static_cast<uint32_t>((nodes - 3) * ((extentsNode - 16) / 78) / 2);
    } else if (_deviceBlockSize == 512 && _chance(50)) {
        // On larger device blocks the file would end within the first of them.
        builder.freeExtentsNodes(_below(6));
    }
    if (_chance(35)) {
        const uint64_t blocks = (uint64_t{_totalBlocks} / 8 + _blockSize - 1) / _blockSize + 1;
        const HFSPlusBuilderExtents extents = _pieces(blocks + _below(4), 1 + _below(4), 1);
        builder.allocationExtents(extents);
    }
}

/** Blocks that never move: bad ones, a startup file, attributes in forks of their own. */
void RandomVolume::_addObstacles(HFSPlusVolumeBuilder& builder)
{
    _hasObstacles = true;
    if (_chance(60)) {
        builder.badBlocks(_pieces(1 + _below(12), 1 + _below(10), 1));
    }
    if (_chance(30)) {
        builder.startupExtents(_pieces(1 + _below(6), 1 + _below(3), 1));
    }
    if (_chance(50)) {
        builder.attributesFile().attributesNodeSize(4096);
        if (_chance(50)) {
            const uint32_t unit = std::max(1U, 4096 / _blockSize);
            builder.attributesExtents(_pieces(uint64_t{6} * unit, 1 + _below(6), unit));
        }
        builder.file("/with attributes").attribute("small", "of a few bytes");
        builder.forkAttribute("large", _pieces(1 + _below(9), 1 + _below(5), 1));
    }
}

void RandomVolume::_addFiles(HFSPlusVolumeBuilder& builder)
{
    const uint32_t average = _usedLimit > _usedBlocks ? (_usedLimit - _usedBlocks) / _fileCount : 0;
    for (uint32_t number = 0; number < _fileCount && _usedBlocks < _usedLimit; number++) {
        _addFile(builder, number, _below(2 * uint64_t{average} + 2));
    }
}

void RandomVolume::_addFile(HFSPlusVolumeBuilder& builder, uint32_t number, uint32_t blocks)
{
    const std::string folder = _chance(50) ? "" : "/folder " + std::to_string(_below(5));
    builder.file(folder + "/file " + std::to_string(number));
    const auto extents = [&](uint32_t count) {
        uint32_t most = _chance(40) ? 1 : _chance(50) ? 2 + _below(7) : 9 + _below(60);
        most = std::min(most, 8 + _overflowLimit * 8);
        const HFSPlusBuilderExtents pieces = _pieces(count, most, 1);
        const auto records = static_cast<uint32_t>(pieces.size() > 8 ? (pieces.size() - 1) / 8 : 0);
        _overflowLimit -= std::min(_overflowLimit, records);
        return pieces;
    };
    const uint32_t resourceBlocks = _chance(25) ? _below(blocks + 1) : 0;
    const HFSPlusBuilderExtents data = extents(blocks - resourceBlocks);
    const uint64_t bytes = HFSPlusBuilderFork{data, {}, 0, {}}.size(_blockSize);
    builder.data(data).dataSize(bytes - _below(std::min<uint64_t>(bytes, 2 * _blockSize) + 1));
    builder.resource(extents(resourceBlocks));
}
