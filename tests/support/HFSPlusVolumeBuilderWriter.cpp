#include "support/HFSPlusVolumeBuilderWriter.h"

#include <algorithm>

#include "support/HFSPlusVolumeBuilderContents.h"

namespace {

constexpr uint32_t kDate = 3600000000;  // in 2018
constexpr size_t kHeaderSize = 512;
constexpr size_t kContentsPiece = 1 << 20;
constexpr uint32_t kUnmounted = 0x100;
constexpr uint32_t kSparedBlocks = 0x200;
constexpr uint32_t kJournaled = 0x2000;
constexpr uint32_t kUnusedNodesAreZero = 0x80000000;
constexpr uint8_t kFoldingCompare = 0xCF;
constexpr uint8_t kBinaryCompare = 0xBC;

/** The journal's own byte order is that of the machine that made it. */
void putJournal(uint8_t* target, uint64_t value, size_t size, bool littleEndian)
{
    putBigEndian(target, value, size);
    if (littleEndian) {
        std::reverse(target, target + size);
    }
}

/** The checksum of TN1150, "Journal Header". */
uint32_t journalChecksum(std::span<const uint8_t> bytes)
{
    uint32_t sum = 0;
    for (const uint8_t byte : bytes) {
        sum = (sum << 8) ^ (sum + byte);
    }
    return ~sum;
}

}  // namespace

HFSPlusVolumeBuilderWriter::HFSPlusVolumeBuilderWriter(const HFSPlusVolumeBuilderPlan& plan,
                                                       SparseSink& sink)
    : _plan(plan), _spec(plan.spec), _sink(sink)
{
}

bool HFSPlusVolumeBuilderWriter::write()
{
    if (!_sink.setSize(_plan.deviceSize)) {
        return false;
    }
    const auto contents = [&](uint32_t cnid, uint8_t forkType, const HFSPlusBuilderFork& fork) {
        return _writeContents(cnid, forkType, fork);
    };
    const HFSPlusBuilderFork badBlocks{_spec.badBlocks, {}, 0, {}};
    // Contents come first, so that structures win where a broken layout puts both in one place.
    return visitForks(_spec, contents) && contents(kHFSPlusBuilderStartupID, 0, _spec.startup) &&
           contents(kHFSPlusBuilderBadBlocksID, 0, badBlocks) && _writeWrapper() &&
           _writeBitmap() && _writeCatalog() && _writeAttributes() && _writeExtents() &&
           _writeJournal() && _writeHeaders();
}

bool HFSPlusVolumeBuilderWriter::writeFork(const HFSPlusBuilderExtents& extents,
                                           uint64_t forkOffset, std::span<const uint8_t> bytes)
{
    uint64_t extentOffset = 0;  // of the extent within the fork
    for (const HFSPlusBuilderExtent& extent : extents) {
        const uint64_t size = uint64_t{extent.blockCount} * _spec.blockSize;
        if (!bytes.empty() && forkOffset < extentOffset + size) {
            const uint64_t start = forkOffset - extentOffset;
            const size_t count =
                static_cast<size_t>(std::min<uint64_t>(bytes.size(), size - start));
            const uint64_t base = uint64_t{extent.startBlock} * _spec.blockSize;
            if (!_writeAt(base + start, bytes.first(count))) {
                return false;
            }
            bytes = bytes.subspan(count);
            forkOffset += count;
        }
        extentOffset += size;
    }
    return bytes.empty();
}

bool HFSPlusVolumeBuilderWriter::_writeHeaders()
{
    HFSPlusVolumeBuilderBytes header;
    header.put16(_spec.hfsx ? 0x4858 : 0x482B);
    header.put16(_spec.hfsx ? 5 : 4);
    header.put32(_attributes());
    header.put32(_spec.journal.has_value() ? 0x4846534A : 0x31302E30);  // HFSJ or 10.0
    header.put32(_spec.journal.has_value() ? _spec.journal->infoBlock : 0);
    header.put32(kDate);
    header.put32(kDate);
    header.put32(0);
    header.put32(kDate);
    header.put32(_plan.fileCount);
    header.put32(_plan.folderCount);
    header.put32(_spec.blockSize);
    header.put32(_spec.totalBlocks);
    header.put32(_plan.bitmap.freeBlocks());
    header.put32(_plan.bitmap.findRun(1, 0).value_or(0));
    const uint32_t clumpSize = std::max<uint32_t>(65536, _spec.blockSize);
    header.put32(clumpSize);
    header.put32(clumpSize);
    header.put32(_plan.nextCatalogID);
    header.put32(1);  // writeCount
    header.put64(1);  // encodingsBitmap
    header.zeros(24);
    header.put64(0x123456789ABCDEF0);  // volume identifier
    const uint32_t nodeClump = std::max<uint32_t>(_spec.blockSize, 32768);
    header.forkData(_plan.allocationExtents, _plan.allocationSize, _spec.blockSize);
    header.forkData(_plan.extentsTree.extents, _plan.extentsTree.logicalSize(), nodeClump);
    header.forkData(_plan.catalogTree.extents, _plan.catalogTree.logicalSize(), nodeClump);
    header.forkData(_plan.attributesTree.extents, _plan.attributesTree.logicalSize(), nodeClump);
    header.forkData(_spec.startup.extents, _spec.startup.size(_spec.blockSize), 0);
    return header.size() == kHeaderSize && _writeAt(1024, header.bytes()) &&
           _writeAt(_plan.volumeSize - 1024, header.bytes());
}

bool HFSPlusVolumeBuilderWriter::_writeWrapper()
{
    if (!_spec.wrapper.has_value()) {
        return true;
    }
    const HFSPlusBuilderWrapper& wrapper = *_spec.wrapper;
    const uint64_t blocks = _plan.volumeSize / wrapper.wrapperBlockSize;
    HFSPlusVolumeBuilderBytes block;
    block.put16(0x4244);
    block.put32(kDate);
    block.put32(kDate);
    block.put16(0x8300);  // software lock, spared blocks, unmounted
    block.put16(0);
    block.put16(3);  // drVBMSt
    block.put16(0);
    block.put16(static_cast<uint16_t>(wrapper.startBlock + blocks));
    block.put32(wrapper.wrapperBlockSize);
    block.put32(wrapper.wrapperBlockSize);
    block.put16(wrapper.firstSector);
    block.put32(16);  // drNxtCNID
    block.put16(0);
    block.put8(7);
    for (const char letter : {'W', 'r', 'a', 'p', 'p', 'e', 'r'}) {
        block.put8(static_cast<uint8_t>(letter));
    }
    block.zeros(124 - block.size());
    block.put16(0x482B);
    block.put16(wrapper.startBlock);
    block.put16(static_cast<uint16_t>(blocks));
    block.zeros(kHeaderSize - block.size());
    return _sink.writeAt(block.bytes().data(), block.size(), 1024) &&
           _sink.writeAt(block.bytes().data(), block.size(), _plan.deviceSize - 1024);
}

bool HFSPlusVolumeBuilderWriter::_writeBitmap()
{
    return _plan.bitmap.visit([&](uint64_t offset, std::span<const uint8_t> bytes) {
        return writeFork(_plan.allocationExtents, offset, bytes);
    });
}

bool HFSPlusVolumeBuilderWriter::_writeCatalog()
{
    HFSPlusBuilderTreePlan plan = _plan.catalogTree;
    const auto output = [&](uint32_t node, std::span<const uint8_t> bytes) {
        return writeFork(plan.extents, uint64_t{node} * plan.nodeSize, bytes);
    };
    HFSPlusVolumeBuilderTree tree(_spec.catalogTree, plan, output);
    HFSPlusVolumeBuilderCatalog catalog(_spec);
    const auto add = [&](auto key, auto data) { return tree.add(key, data); };
    return catalog.visit(add) && tree.finish() &&
           tree.writeHeader({516, 6, _spec.binaryCompare ? kBinaryCompare : kFoldingCompare});
}

bool HFSPlusVolumeBuilderWriter::_writeAttributes()
{
    if (!_spec.hasAttributesFile) {
        return true;
    }
    HFSPlusBuilderTreePlan plan = _plan.attributesTree;
    const auto output = [&](uint32_t node, std::span<const uint8_t> bytes) {
        return writeFork(plan.extents, uint64_t{node} * plan.nodeSize, bytes);
    };
    HFSPlusVolumeBuilderTree tree(_spec.attributesTree, plan, output);
    const auto add = [&](auto key, auto data) { return tree.add(key, data); };
    return visitAttributeRecords(_spec, add) && tree.finish() && tree.writeHeader({266, 6, 0});
}

bool HFSPlusVolumeBuilderWriter::_writeExtents()
{
    HFSPlusBuilderTreePlan plan = _plan.extentsTree;
    const auto output = [&](uint32_t node, std::span<const uint8_t> bytes) {
        return writeFork(plan.extents, uint64_t{node} * plan.nodeSize, bytes);
    };
    HFSPlusVolumeBuilderTree tree(_spec.extentsTree, plan, output);
    const auto add = [&](auto key, auto data) { return tree.add(key, data); };
    return visitOverflowRecords(_plan.overflow, add) && tree.finish() &&
           tree.writeHeader({10, 2, 0});
}

bool HFSPlusVolumeBuilderWriter::_writeJournal()
{
    if (!_spec.journal.has_value()) {
        return true;
    }
    const HFSPlusBuilderJournal& journal = *_spec.journal;
    const uint64_t offset = uint64_t{journal.startBlock} * _spec.blockSize;
    const uint64_t size = uint64_t{journal.blockCount} * _spec.blockSize;
    HFSPlusVolumeBuilderBytes info;
    info.put32(journal.flags);
    info.zeros(32);
    info.put64(offset);
    info.put64(size);
    info.zeros(kHeaderSize - info.size());
    if (!_writeAt(uint64_t{journal.infoBlock} * _spec.blockSize, info.bytes())) {
        return false;
    }
    std::vector<uint8_t> header(kHeaderSize);
    if (!journal.blank) {
        const bool little = journal.littleEndian;
        putJournal(&header[0], 0x4A4E4C78, 4, little);
        putJournal(&header[4], 0x12345678, 4, little);
        putJournal(&header[8], kHeaderSize, 8, little);
        putJournal(&header[16], journal.pending ? 3 * kHeaderSize : kHeaderSize, 8, little);
        putJournal(&header[24], size, 8, little);
        putJournal(&header[32], std::min<uint64_t>(size / 4, 16384), 4, little);
        putJournal(&header[40], kHeaderSize, 4, little);
        putJournal(&header[36], journalChecksum(std::span(header).first(44)), 4, little);
    }
    return _writeAt(offset, header);
}

bool HFSPlusVolumeBuilderWriter::_writeContents(uint32_t cnid, uint8_t forkType,
                                                const HFSPlusBuilderFork& fork)
{
    uint64_t forkOffset = 0;
    for (const HFSPlusBuilderExtent& extent : fork.extents) {
        uint64_t done = 0;
        const uint64_t base = uint64_t{extent.startBlock} * _spec.blockSize;
        const uint64_t size = uint64_t{extent.blockCount} * _spec.blockSize;
        while (_spec.contents && done < size) {
            _buffer.resize(static_cast<size_t>(std::min<uint64_t>(kContentsPiece, size - done)));
            fillForkContents(_buffer, cnid, forkType, forkOffset + done, _spec.blockSize);
            if (!_writeAt(base + done, _buffer)) {
                return false;
            }
            done += _buffer.size();
        }
        forkOffset += size;
    }
    const std::string beginning = fork.beginning.value_or(std::string());
    const std::vector<uint8_t> bytes(beginning.begin(), beginning.end());
    return writeFork(fork.extents, 0, bytes);
}

uint32_t HFSPlusVolumeBuilderWriter::_attributes() const
{
    return kUnusedNodesAreZero | (_spec.unmounted ? kUnmounted : 0) |
           (_spec.badBlocks.empty() ? 0 : kSparedBlocks) |
           (_spec.journal.has_value() ? kJournaled : 0);
}

bool HFSPlusVolumeBuilderWriter::_writeAt(uint64_t volumeOffset, std::span<const uint8_t> bytes)
{
    // A layout that is broken on purpose may reach past the volume, where there is nothing.
    if (_spec.unchecked && volumeOffset + bytes.size() > _plan.volumeSize) {
        return true;
    }
    return _sink.writeAt(bytes.data(), bytes.size(), _plan.volumeOffset + volumeOffset);
}
