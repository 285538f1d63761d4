#include "HFSPlus/HFSPlusVolume.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <limits>
#include <tuple>

#include "HFSPlus/HFSPlusAllocation.h"
#include "HFSPlus/HFSPlusAttributes.h"
#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusChangeMark.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusFormatConversion.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLStringUtilities.h"

// Recognising a volume and building its model.

namespace {

constexpr uint64_t kMiB = uint64_t{1} << 20;
constexpr uint64_t kGiB = uint64_t{1} << 30;
constexpr uint64_t kSectorSize = 512;  // the unit of a wrapper's first block, on every device
constexpr uint64_t kMinimumVolumeSize = kHFSPlusReservedAreaSize + kHFSPlusVolumeHeaderOffset;
constexpr uint32_t kMinimumTotalBlocks = 4;
constexpr std::string_view kUnsupported = "Unsupported volume format.";
constexpr std::string_view kInconsistent = "Volume is inconsistent.";

/** The attribute bits that tell a volume which was unmounted cleanly, and what they must be. */
constexpr uint32_t kCleanStateMask = 0x0000010B;

/** The 512 bytes where a volume header or a wrapper's master directory block lies. */
struct HeaderSector {
    std::array<uint8_t, sizeof(HFSPlusVolumeHeader)> bytes;

    [[nodiscard]] HFSPlusVolumeHeader header() const
    {
        return std::bit_cast<HFSPlusVolumeHeader>(bytes);
    }
    [[nodiscard]] HFSMasterDirectoryBlock masterDirectoryBlock() const
    {
        return std::bit_cast<HFSMasterDirectoryBlock>(bytes);
    }
    [[nodiscard]] bool wrapsVolume() const
    {
        const HFSMasterDirectoryBlock block = masterDirectoryBlock();
        return block.drSigWord == kHFSSigWord &&
               (block.drEmbedSigWord == kHFSPlusSigWord || block.drEmbedSigWord == kHFSXSigWord);
    }
};

/** Where a wrapper says that its volume lies, in bytes of the device. */
struct EmbeddedVolume {
    uint64_t start;
    uint64_t size;

    // 16-bit counts of 32-bit blocks: the sums stay far inside 64 bits.
    explicit EmbeddedVolume(const HFSMasterDirectoryBlock& block)
        : start(block.drAlBlSt * kSectorSize +
                uint64_t{block.drEmbedStartBlock} * block.drAlBlkSiz.value()),
          size(uint64_t{block.drEmbedBlockCount} * block.drAlBlkSiz.value())
    {
    }

    [[nodiscard]] bool isSound(uint64_t deviceSize) const
    {
        // A block size of 0 gives a size of 0.
        return start % kSectorSize == 0 && size % kSectorSize == 0 && size >= kMinimumVolumeSize &&
               start + size <= deviceSize;
    }
};

bool isSupported(const HFSPlusVolumeHeader& primary, const HFSPlusVolumeHeader& alternate)
{
    if (primary.signature != alternate.signature) {
        return false;
    }
    return (primary.signature == kHFSPlusSigWord && primary.version == kHFSPlusVersion) ||
           (primary.signature == kHFSXSigWord && primary.version == kHFSXVersion);
}

uint64_t roundedUp(uint64_t value, uint64_t unit)
{
    return (value + unit - 1) / unit * unit;
}

/** Bytes of a quota file with room for @p count users, a power of two. */
uint64_t quotaFileSize(uint64_t count, uint64_t maximum)
{
    return (std::bit_ceil(std::clamp<uint64_t>(count, 2048, maximum)) + 1) * 64;
}

}  // namespace

bool HFSPlusVolume::probe(VZDefragVolume& volume, bool& valid, VZDefragErrorSlot error)
{
    valid = false;
    // On a device too small for it, the offset wraps and the read is out of range.
    const uint64_t deviceSize = volume.deviceSizeBytes();
    HeaderSector primary = {};
    HeaderSector alternate = {};
    if (!volume.read(primary.bytes.data(), primary.bytes.size(), kHFSPlusVolumeHeaderOffset,
                     error) ||
        !volume.read(alternate.bytes.data(), alternate.bytes.size(),
                     deviceSize - kHFSPlusVolumeHeaderOffset, error)) {
        return false;
    }
    if (primary.wrapsVolume()) {
        const EmbeddedVolume embedded(primary.masterDirectoryBlock());
        if (!volume.read(primary.bytes.data(), primary.bytes.size(),
                         embedded.start + kHFSPlusVolumeHeaderOffset, error) ||
            !volume.read(alternate.bytes.data(), alternate.bytes.size(),
                         embedded.start + embedded.size - kHFSPlusVolumeHeaderOffset, error)) {
            return false;
        }
        if (!embedded.isSound(deviceSize)) {
            return true;
        }
    }
    valid = isSupported(primary.header(), alternate.header());
    return true;
}

std::unique_ptr<HFSPlusVolume> HFSPlusVolume::initWithVolume(const VZDefragVolume& volume,
                                                             VZDefragErrorSlot error)
{
    std::unique_ptr<PlatformBlockDevice> device = volume.duplicateDevice();
    if (device == nullptr) {
        std::ignore = VZDefragFail(error, "Unable to open %1$@. An error %2$d occurred.",
                                   volume.path(), errno);
        return nullptr;
    }
    std::unique_ptr<HFSPlusVolume> opened(new HFSPlusVolume(volume, std::move(device)));
    if (!opened->_readVolumeHeader(error) || !opened->_checkSignatureAndVersion(error) ||
        !opened->_checkAttributes(error) || !opened->_checkGeometry(error)) {
        return nullptr;
    }
    opened->_logVolumeInfo();
    if (!opened->_openSpecialFiles(error)) {
        return nullptr;
    }
    opened->_setUpMetadataZone();
    return opened;
}

bool HFSPlusVolume::_readVolumeHeader(VZDefragErrorSlot error)
{
    HeaderSector sector = {};
    if (!read(sector.bytes.data(), sector.bytes.size(), kHFSPlusVolumeHeaderOffset, error)) {
        return false;
    }
    if (sector.wrapsVolume()) {
        const EmbeddedVolume embedded(sector.masterDirectoryBlock());
        if (!embedded.isSound(deviceSizeBytes())) {
            return VZDefragFail(error, kUnsupported);
        }
        _volumeStartOffset = embedded.start;
        _volumeSizeBytes = embedded.size;
        if (!read(sector.bytes.data(), sector.bytes.size(), kHFSPlusVolumeHeaderOffset, error)) {
            return false;
        }
    }
    _hostVolumeHeader = hostOrder(sector.header());
    _changeMark->setVolume(_volumeStartOffset, _volumeSizeBytes, sector.header());
    return true;
}

bool HFSPlusVolume::_checkSignatureAndVersion(VZDefragErrorSlot error)
{
    _version = _hostVolumeHeader.version;
    _isHFSX = _hostVolumeHeader.signature == kHFSXSigWord;
    _isHFSPlus = _hostVolumeHeader.signature == kHFSPlusSigWord;
    if (!_isHFSX && !_isHFSPlus) {
        return VZDefragFail(error, kUnsupported);
    }
    _name = _isHFSX ? "HFSX" : "HFS Plus";
    return _version == (_isHFSX ? kHFSXVersion : kHFSPlusVersion) ||
           VZDefragFail(error, "%1$@ version %2$u is not supported.", _name, _version);
}

bool HFSPlusVolume::_checkAttributes(VZDefragErrorSlot error)
{
    const uint32_t attributes = _hostVolumeHeader.attributes;
    if ((attributes & (kHFSVolumeHardwareLockMask | kHFSVolumeSoftwareLockMask)) != 0) {
        _writable = false;
    }
    // The system's driver clears the unmounted bit for as long as the volume is mounted.
    return _mounted || (attributes & kCleanStateMask) == kHFSVolumeUnmountedMask ||
           VZDefragFail(error, kInconsistent);
}

bool HFSPlusVolume::_checkGeometry(VZDefragErrorSlot error)
{
    const HFSPlusHostVolumeHeader& header = _hostVolumeHeader;
    const bool sound =
        std::has_single_bit(header.blockSize) && header.blockSize >= kSectorSize &&
        header.blockSize >= deviceBlockSize() && header.totalBlocks >= kMinimumTotalBlocks &&
        header.freeBlocks <= header.totalBlocks && _volumeSizeBytes >= kMinimumVolumeSize &&
        uint64_t{header.totalBlocks} * header.blockSize <= _volumeSizeBytes &&
        std::ranges::all_of(
            std::array{&header.extentsFile, &header.catalogFile, &header.allocationFile,
                       &header.startupFile, &header.attributesFile},
            [&](const HFSPlusHostForkData* fork) { return _isSound(*fork); });
    return sound || VZDefragFail(error, kInconsistent);
}

bool HFSPlusVolume::_isSound(const HFSPlusHostForkData& forkData) const
{
    uint64_t blocks = 0;
    for (const HFSPlusHostExtentDescriptor& extent : forkData.extents) {
        if (extent.isEmpty()) {
            continue;
        }
        if (!_isInVolume(extent)) {
            return false;
        }
        blocks += extent.blockCount;
    }
    return blocks <= forkData.totalBlocks &&
           forkData.totalBlocks <= _hostVolumeHeader.totalBlocks &&
           forkData.logicalSize <= uint64_t{forkData.totalBlocks} * _hostVolumeHeader.blockSize;
}

void HFSPlusVolume::_logVolumeInfo() const
{
    const HFSPlusHostVolumeHeader& header = _hostVolumeHeader;
    KLDebugLog(KLDebugLevel::kInfo, "Volume info         = %@ (Version = %u), %@, %@%@\n", _name,
               _version, _mounted ? "mounted" : "unmounted",
               isWritable() ? "read/write" : "read-only", isJournaled() ? ", journaled" : "");
    KLDebugLog(KLDebugLevel::kInfo,
               "Volume size         = %@ (block size = %@, total blocks = %lu, free blocks = "
               "%lu)\n",
               stringWithPrettySize(uint64_t{header.blockSize} * header.totalBlocks),
               stringWithPrettySize(header.blockSize), header.totalBlocks, header.freeBlocks);
}

bool HFSPlusVolume::_openSpecialFiles(VZDefragErrorSlot error)
{
    _extents = HFSPlusExtents::initWithVolume(*this, error);
    if (_extents == nullptr) {
        return false;
    }
    _allocation = HFSPlusAllocation::initWithVolume(*this, error);
    if (_allocation == nullptr) {
        return false;
    }
    _catalog = HFSPlusCatalog::initWithVolume(*this, error);
    if (_catalog == nullptr) {
        return false;
    }
    if (!_hostVolumeHeader.attributesFile.extents[0].isEmpty()) {
        _attributes = HFSPlusAttributes::initWithVolume(*this, error);
        return _attributes != nullptr;
    }
    return true;
}

void HFSPlusVolume::_setUpMetadataZone()
{
    const uint32_t count = _metadataBlockCount();
    if (count < 2) {
        return;
    }
    // Block 0 belongs to the boot blocks; the zone is the rest of the estimate.
    _metadata = {.startBlock = 1, .blockCount = count - 1};
    KLDebugLog(KLDebugLevel::kInfo,
               "Metadata zone       = %@ (start block = %u, total blocks = %u)\n",
               stringWithPrettySize(uint64_t{_hostVolumeHeader.blockSize} * count),
               _metadata.startBlock, count);
}

uint32_t HFSPlusVolume::_metadataBlockCount() const
{
    return isJournaled()
               ? estimatedMetadataBlocks(_hostVolumeHeader.blockSize, _hostVolumeHeader.totalBlocks)
               : 0;
}

uint32_t HFSPlusVolume::estimatedMetadataBlocks(uint64_t blockSize, uint64_t totalBlocks)
{
    const uint64_t size = blockSize * totalBlocks;
    if (size < 10 * kGiB) {
        return 0;
    }
    const uint64_t gibibytes = size / kGiB;
    const uint64_t hundreds = size / (100 * kGiB) + 1;
    uint64_t sum = roundedUp(totalBlocks / 8, blockSize);       // bitmap
    sum += std::min(hundreds * 4 * kMiB, 128 * kMiB);           // extents overflow
    sum += std::min(hundreds * 8 * kMiB, 512 * kMiB);           // journal
    sum += std::min(size / 1024 * 10, kGiB);                    // catalog
    sum += std::clamp(size / 1024 * 5, 10 * kMiB, 512 * kMiB);  // hot files
    sum += quotaFileSize(gibibytes * 256, 2097152);             // users
    sum += quotaFileSize(gibibytes * 32, 262144);               // groups
    // Whole bitmap blocks' worth, counted in blocks: their size in bytes may not fit 64 bits.
    const uint64_t blocks = roundedUp(roundedUp(sum, blockSize) / blockSize, blockSize * 8);
    return static_cast<uint32_t>(std::min<uint64_t>(blocks, std::numeric_limits<uint32_t>::max()));
}
