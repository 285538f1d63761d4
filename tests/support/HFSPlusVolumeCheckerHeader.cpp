#include "support/HFSPlusVolumeCheckerHeader.h"

#include <algorithm>
#include <bit>

namespace {

constexpr uint16_t kHFSSignature = 0x4244;
constexpr uint16_t kHFSPlusSignature = 0x482B;
constexpr uint16_t kHFSXSignature = 0x4858;
constexpr uint64_t kHeaderOffset = 1024;
constexpr uint64_t kAlternateOffset = 1024;  // from the end
constexpr uint32_t kUnmounted = 0x00000100;
constexpr uint32_t kBootInconsistent = 0x00000800;
constexpr uint32_t kJournaled = 0x00002000;
constexpr uint32_t kFoundInconsistent = 0x00004000;
constexpr uint32_t kUnusedNodesAreZero = 0x80000000;
constexpr uint32_t kJournalInFileSystem = 1;
constexpr uint32_t kJournalNeedsInit = 4;
constexpr uint32_t kJournalMagic = 0x4A4E4C78;
constexpr uint32_t kJournalEndian = 0x12345678;
constexpr uint64_t kJournalHeaderSize = 44;

unsigned long long printed(uint64_t number)
{
    return number;
}

}  // namespace

bool HFSPlusCheckHeader::read()
{
    _volume.size = _volume.reader.size();
    if (!_volume.reader.read(_bytes.data(), _bytes.size(), kHeaderOffset)) {
        _volume.problems.report("the volume header cannot be read");
        return false;
    }
    if (checkedUInt16(_bytes.data()) == kHFSSignature && !_enterWrapper()) {
        return false;
    }
    _copyFields();
    const uint16_t version = checkedUInt16(_bytes.data() + 2);
    if (!(_result.signature == kHFSPlusSignature && version == 4) &&
        !(_result.signature == kHFSXSignature && version == 5)) {
        _volume.problems.report("signature 0x%04X and version %u are no HFS Plus volume",
                                _result.signature, version);
        return false;
    }
    if (_volume.isHFSX && _volume.offset != 0) {
        _volume.problems.report("a wrapper holds an HFSX volume");
    }
    if (!_checkSizes()) {
        return false;
    }
    _checkState();
    return true;
}

bool HFSPlusCheckHeader::_enterWrapper()
{
    const uint64_t deviceSize = _volume.size;
    const uint64_t wrapperBlockSize = checkedUInt32(_bytes.data() + 20);
    const uint64_t firstByte = uint64_t{checkedUInt16(_bytes.data() + 28)} * 512;
    const uint64_t start = checkedUInt16(_bytes.data() + 126);
    const uint64_t count = checkedUInt16(_bytes.data() + 128);
    if (checkedUInt16(_bytes.data() + 124) != kHFSPlusSignature) {
        _volume.problems.report("the HFS volume wraps no HFS Plus volume");
        return false;
    }
    if (wrapperBlockSize == 0 || wrapperBlockSize % 512 != 0) {
        _volume.problems.report("the wrapper has blocks of %llu bytes", printed(wrapperBlockSize));
        return false;
    }
    _volume.offset = firstByte + start * wrapperBlockSize;
    _volume.size = count * wrapperBlockSize;
    if (_volume.offset + _volume.size > deviceSize ||
        _volume.size < kHeaderOffset + _bytes.size() + kAlternateOffset ||
        start + count > checkedUInt16(_bytes.data() + 18)) {
        _volume.problems.report("the wrapped volume at %llu with %llu bytes is not in the wrapper",
                                printed(_volume.offset), printed(_volume.size));
        return false;
    }
    Bytes alternate;
    if (!_volume.reader.read(alternate.data(), alternate.size(), deviceSize - kAlternateOffset) ||
        checkedUInt16(alternate.data()) != kHFSSignature) {
        _volume.problems.report("the wrapper has no alternate master directory block");
    }
    if (!_volume.reader.read(_bytes.data(), _bytes.size(), _volume.offset + kHeaderOffset)) {
        _volume.problems.report("the wrapped volume header cannot be read");
        return false;
    }
    return true;
}

void HFSPlusCheckHeader::_copyFields()
{
    const uint8_t* bytes = _bytes.data();
    _result.volumeOffset = _volume.offset;
    _result.volumeSize = _volume.size;
    _result.signature = checkedUInt16(bytes);
    _result.attributes = checkedUInt32(bytes + 4);
    _result.journalInfoBlock = checkedUInt32(bytes + 12);
    _result.modifyDate = checkedUInt32(bytes + 20);
    _result.fileCount = checkedUInt32(bytes + 32);
    _result.folderCount = checkedUInt32(bytes + 36);
    _result.blockSize = checkedUInt32(bytes + 40);
    _result.totalBlocks = checkedUInt32(bytes + 44);
    _result.freeBlocks = checkedUInt32(bytes + 48);
    _result.nextAllocation = checkedUInt32(bytes + 52);
    _result.nextCatalogID = checkedUInt32(bytes + 64);
    _result.writeCount = checkedUInt32(bytes + 68);

    _volume.blockSize = _result.blockSize;
    _volume.totalBlocks = _result.totalBlocks;
    _volume.attributes = _result.attributes;
    _volume.isHFSX = _result.signature == kHFSXSignature;
    _volume.isJournaled = (_result.attributes & kJournaled) != 0;
    _volume.unusedNodesAreZero = (_result.attributes & kUnusedNodesAreZero) != 0;
}

bool HFSPlusCheckHeader::_checkSizes()
{
    if (!std::has_single_bit(_volume.blockSize) || _volume.blockSize < 512) {
        _volume.problems.report("blockSize is %u", _volume.blockSize);
        return false;
    }
    if (_volume.totalBlocks < 4 ||
        uint64_t{_volume.totalBlocks} * _volume.blockSize > _volume.size) {
        _volume.problems.report("%u blocks of %u bytes do not fit a volume of %llu bytes",
                                _volume.totalBlocks, _volume.blockSize, printed(_volume.size));
        return false;
    }
    return true;
}

void HFSPlusCheckHeader::_checkState()
{
    if (_options.demandsUnmounted) {
        if ((_volume.attributes & kUnmounted) == 0) {
            _volume.problems.report("the volume was not unmounted cleanly");
        }
        if ((_volume.attributes & (kBootInconsistent | kFoundInconsistent)) != 0) {
            _volume.problems.report("attributes 0x%08X call the volume inconsistent",
                                    _volume.attributes);
        }
    }
    if (_result.nextCatalogID < 16) {
        _volume.problems.report("nextCatalogID is %u", _result.nextCatalogID);
    }
}

bool HFSPlusCheckHeader::_isAlternate(const Bytes& bytes) const
{
    // The counters and dates of the alternate may be old. What identifies the volume, how large it
    // is and where its special files are may not.
    constexpr size_t kForkCount = 5;
    constexpr size_t kForkSize = 80;
    constexpr size_t kFirstFork = static_cast<size_t>(SpecialFile::kAllocation);
    if (!std::equal(bytes.begin(), bytes.begin() + 4, _bytes.begin()) ||
        !std::equal(bytes.begin() + 16, bytes.begin() + 20, _bytes.begin() + 16) ||
        !std::equal(bytes.begin() + 40, bytes.begin() + 48, _bytes.begin() + 40)) {
        return false;
    }
    for (size_t index = 0; index < kForkCount; ++index) {
        const uint8_t* fork = _bytes.data() + kFirstFork + index * kForkSize;
        const uint8_t* other = bytes.data() + kFirstFork + index * kForkSize;
        // All but the clump size, which is a hint.
        if (std::memcmp(fork, other, 8) != 0 ||
            std::memcmp(fork + 12, other + 12, kForkSize - 12) != 0) {
            return false;
        }
    }
    return true;
}

void HFSPlusCheckHeader::checkAlternate()
{
    if (!_options.demandsAlternate) {
        return;
    }
    Bytes alternate;
    bool found = _volume.reader.read(alternate.data(), alternate.size(),
                                     _volume.offset + _volume.size - kAlternateOffset) &&
                 _isAlternate(alternate);
    // After the partition grew by a block or more the header is kept behind the blocks as well.
    const uint64_t blocksSize = uint64_t{_volume.totalBlocks} * _volume.blockSize;
    if (!found && _volume.size - blocksSize >= _volume.blockSize) {
        found = _volume.reader.read(alternate.data(), alternate.size(),
                                    _volume.offset + blocksSize - kAlternateOffset) &&
                _isAlternate(alternate);
    }
    if (!found) {
        _volume.problems.report("the alternate volume header is missing or differs");
    }
}

void HFSPlusCheckHeader::checkJournal(const HFSPlusCheckUsage& usage,
                                      const HFSPlusCheckCatalog& catalog)
{
    if (!_volume.isJournaled) {
        return;
    }
    std::array<uint8_t, 180> info;
    const uint64_t infoOffset = uint64_t{_result.journalInfoBlock} * _volume.blockSize;
    if (_result.journalInfoBlock >= _volume.totalBlocks ||
        !_volume.reader.read(info.data(), info.size(), _volume.offset + infoOffset)) {
        _volume.problems.report("journal info block %u is not on the volume",
                                _result.journalInfoBlock);
        return;
    }
    const auto* infoRun = usage.runWithBlock(_result.journalInfoBlock);
    if (infoRun == nullptr || infoRun->owner != HFSPlusCheckOwner::kFork) {
        _volume.problems.report("journal info block %u belongs to no file",
                                _result.journalInfoBlock);
    }
    const uint32_t flags = checkedUInt32(info.data());
    if ((flags & kJournalInFileSystem) == 0) {
        return;  // it is on another device, out of reach
    }
    const uint64_t offset = checkedUInt64(info.data() + 36);
    const uint64_t size = checkedUInt64(info.data() + 44);
    if (size < kJournalHeaderSize || offset > _volume.size || size > _volume.size - offset) {
        _volume.problems.report("the journal at %llu with %llu bytes is not on the volume",
                                printed(offset), printed(size));
        return;
    }
    _checkJournalPlace(offset, size, usage, catalog);
    _checkJournalHeader(offset, size, (flags & kJournalNeedsInit) != 0);
}

void HFSPlusCheckHeader::_checkJournalPlace(uint64_t start, uint64_t size,
                                            const HFSPlusCheckUsage& usage,
                                            const HFSPlusCheckCatalog& catalog)
{
    const uint64_t firstBlock = start / _volume.blockSize;
    const uint64_t endBlock = (start + size - 1) / _volume.blockSize + 1;
    const auto* run = firstBlock < _volume.totalBlocks
                          ? usage.runWithBlock(static_cast<uint32_t>(firstBlock))
                          : nullptr;
    if (run == nullptr || run->owner != HFSPlusCheckOwner::kFork ||
        endBlock > uint64_t{run->startBlock} + run->blockCount) {
        _volume.problems.report("the journal at block %llu is in no single extent of a file",
                                printed(firstBlock));
    }
    const auto& infoExtents = catalog.journalInfoExtents();
    if (!infoExtents.empty() && infoExtents[0].startBlock != _result.journalInfoBlock) {
        _volume.problems.report("the journal info file is at block %u, the header says %u",
                                infoExtents[0].startBlock, _result.journalInfoBlock);
    }
    const auto& extents = catalog.journalExtents();
    if (!extents.empty() && (extents.size() != 1 || extents[0].startBlock != firstBlock)) {
        _volume.problems.report("the journal file is at block %u, the journal at %llu",
                                extents[0].startBlock, printed(firstBlock));
    }
}

void HFSPlusCheckHeader::_checkJournalHeader(uint64_t offset, uint64_t size, bool mayBeZero)
{
    std::array<uint8_t, kJournalHeaderSize> header;
    if (!_volume.reader.read(header.data(), header.size(), _volume.offset + offset)) {
        _volume.problems.report("the journal header cannot be read");
        return;
    }
    if (mayBeZero || !_options.demandsEmptyJournal) {
        return;  // nothing was ever written, or it does not matter
    }
    // The machine that made the journal wrote it in its own byte order.
    const bool isBig = checkedUInt32(header.data()) == kJournalMagic;
    if (!isBig) {
        for (const auto& [first, nbyte] : {std::pair{0, 4}, {4, 4}, {8, 8}, {16, 8}, {24, 8}}) {
            std::reverse(header.begin() + first, header.begin() + first + nbyte);
        }
    }
    if (checkedUInt32(header.data()) != kJournalMagic ||
        checkedUInt32(header.data() + 4) != kJournalEndian) {
        _volume.problems.report("the journal has no header");
        return;
    }
    const uint64_t start = checkedUInt64(header.data() + 8);
    const uint64_t end = checkedUInt64(header.data() + 16);
    if (start != end) {
        _volume.problems.report("transactions wait in the journal from %llu to %llu",
                                printed(start), printed(end));
    }
    if (checkedUInt64(header.data() + 24) != size) {
        _volume.problems.report("the journal header says %llu bytes, the info block %llu",
                                printed(checkedUInt64(header.data() + 24)), printed(size));
    }
}
