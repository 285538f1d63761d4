#include "HFSPlus/HFSPlusFormatConversion.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <numeric>

namespace {

/** Bytes of which no two neighbours are alike, so that a field taken from elsewhere shows. */
template <size_t kSize>
std::array<uint8_t, kSize> distinctBytes()
{
    std::array<uint8_t, kSize> bytes = {};
    for (size_t index = 0; index < kSize; ++index) {
        bytes[index] = static_cast<uint8_t>(index * 7 + index / 256 + 1);
    }
    return bytes;
}

template <size_t kSize>
uint64_t numberAt(const std::array<uint8_t, kSize>& bytes, size_t offset, size_t size)
{
    uint64_t number = 0;
    for (size_t index = 0; index < size; ++index) {
        number = number << 8 | bytes[offset + index];
    }
    return number;
}

template <typename Disk>
void expectSameBytesAfterBothDirections()
{
    const auto bytes = distinctBytes<sizeof(Disk)>();
    const Disk disk = std::bit_cast<Disk>(bytes);

    const Disk back = diskOrder(hostOrder(disk));

    EXPECT_EQ((std::bit_cast<std::array<uint8_t, sizeof(Disk)>>(back)), bytes);
}

}  // namespace

TEST(HFSPlusFormatConversion, EveryByteOfAVolumeHeaderComesBack)
{
    expectSameBytesAfterBothDirections<HFSPlusVolumeHeader>();
}

TEST(HFSPlusFormatConversion, EveryByteOfForkDataComesBack)
{
    expectSameBytesAfterBothDirections<HFSPlusForkData>();
}

TEST(HFSPlusFormatConversion, EveryByteOfAnExtentRecordComesBack)
{
    expectSameBytesAfterBothDirections<HFSPlusExtentRecord>();
}

TEST(HFSPlusFormatConversion, EveryByteOfATreeHeaderRecordComesBack)
{
    expectSameBytesAfterBothDirections<BTHeaderRec>();
}

TEST(HFSPlusFormatConversion, VolumeHeaderFieldsLieWhereTheFormatSays)
{
    const auto bytes = distinctBytes<sizeof(HFSPlusVolumeHeader)>();
    const HFSPlusHostVolumeHeader header = hostOrder(std::bit_cast<HFSPlusVolumeHeader>(bytes));

    EXPECT_EQ(header.signature, numberAt(bytes, 0, 2));
    EXPECT_EQ(header.version, numberAt(bytes, 2, 2));
    EXPECT_EQ(header.attributes, numberAt(bytes, 4, 4));
    EXPECT_EQ(header.journalInfoBlock, numberAt(bytes, 12, 4));
    EXPECT_EQ(header.blockSize, numberAt(bytes, 40, 4));
    EXPECT_EQ(header.totalBlocks, numberAt(bytes, 44, 4));
    EXPECT_EQ(header.freeBlocks, numberAt(bytes, 48, 4));
    EXPECT_EQ(header.writeCount, numberAt(bytes, 68, 4));
    EXPECT_EQ(header.encodingsBitmap, numberAt(bytes, 72, 8));
    EXPECT_EQ(header.finderInfo[7], numberAt(bytes, 108, 4));
    EXPECT_EQ(header.allocationFile.logicalSize, numberAt(bytes, 112, 8));
    EXPECT_EQ(header.extentsFile.totalBlocks, numberAt(bytes, 192 + 12, 4));
    EXPECT_EQ(header.catalogFile.extents[0].startBlock, numberAt(bytes, 272 + 16, 4));
    EXPECT_EQ(header.attributesFile.extents[7].blockCount, numberAt(bytes, 352 + 76, 4));
    EXPECT_EQ(header.startupFile.clumpSize, numberAt(bytes, 432 + 8, 4));
}

TEST(HFSPlusFormatConversion, FileRecordFieldsLieWhereTheFormatSays)
{
    const auto bytes = distinctBytes<sizeof(HFSPlusCatalogFile)>();
    const HFSPlusHostCatalogFile file = hostOrder(std::bit_cast<HFSPlusCatalogFile>(bytes));

    EXPECT_EQ(file.recordType, numberAt(bytes, 0, 2));
    EXPECT_EQ(file.flags, numberAt(bytes, 2, 2));
    EXPECT_EQ(file.reserved1, numberAt(bytes, 4, 4));
    EXPECT_EQ(file.fileID, numberAt(bytes, 8, 4));
    EXPECT_EQ(file.createDate, numberAt(bytes, 12, 4));
    EXPECT_EQ(file.contentModDate, numberAt(bytes, 16, 4));
    EXPECT_EQ(file.attributeModDate, numberAt(bytes, 20, 4));
    EXPECT_EQ(file.accessDate, numberAt(bytes, 24, 4));
    EXPECT_EQ(file.backupDate, numberAt(bytes, 28, 4));
    EXPECT_EQ(file.permissions.ownerID, numberAt(bytes, 32, 4));
    EXPECT_EQ(file.permissions.groupID, numberAt(bytes, 36, 4));
    EXPECT_EQ(file.permissions.adminFlags, numberAt(bytes, 40, 1));
    EXPECT_EQ(file.permissions.ownerFlags, numberAt(bytes, 41, 1));
    EXPECT_EQ(file.permissions.fileMode, numberAt(bytes, 42, 2));
    EXPECT_EQ(file.permissions.special, numberAt(bytes, 44, 4));
    EXPECT_EQ(file.fileType, numberAt(bytes, 48, 4));
    EXPECT_EQ(file.fileCreator, numberAt(bytes, 52, 4));
    EXPECT_EQ(file.finderFlags, numberAt(bytes, 56, 2));
    EXPECT_EQ(file.locationV, numberAt(bytes, 58, 2));
    EXPECT_EQ(file.locationH, numberAt(bytes, 60, 2));
    EXPECT_EQ(file.reservedField, numberAt(bytes, 62, 2));
    EXPECT_EQ(file.extendedFinderInfo[15], numberAt(bytes, 79, 1));
    EXPECT_EQ(file.textEncoding, numberAt(bytes, 80, 4));
    EXPECT_EQ(file.reserved2, numberAt(bytes, 84, 4));
    EXPECT_EQ(file.dataFork.logicalSize, numberAt(bytes, 88, 8));
    EXPECT_EQ(file.dataFork.extents[0].startBlock, numberAt(bytes, 104, 4));
    EXPECT_EQ(file.resourceFork.logicalSize, numberAt(bytes, 168, 8));
    EXPECT_EQ(file.resourceFork.extents[7].blockCount, numberAt(bytes, 244, 4));
}

TEST(HFSPlusFormatConversion, FolderRecordFieldsLieWhereTheFormatSays)
{
    const auto bytes = distinctBytes<sizeof(HFSPlusCatalogFolder)>();
    const HFSPlusHostCatalogFolder folder = hostOrder(std::bit_cast<HFSPlusCatalogFolder>(bytes));

    EXPECT_EQ(folder.recordType, numberAt(bytes, 0, 2));
    EXPECT_EQ(folder.flags, numberAt(bytes, 2, 2));
    EXPECT_EQ(folder.valence, numberAt(bytes, 4, 4));
    EXPECT_EQ(folder.folderID, numberAt(bytes, 8, 4));
    EXPECT_EQ(folder.createDate, numberAt(bytes, 12, 4));
    EXPECT_EQ(folder.contentModDate, numberAt(bytes, 16, 4));
    EXPECT_EQ(folder.attributeModDate, numberAt(bytes, 20, 4));
    EXPECT_EQ(folder.accessDate, numberAt(bytes, 24, 4));
    EXPECT_EQ(folder.backupDate, numberAt(bytes, 28, 4));
    EXPECT_EQ(folder.permissions.special, numberAt(bytes, 44, 4));
    EXPECT_EQ(folder.userInfo[0], numberAt(bytes, 48, 1));
    EXPECT_EQ(folder.finderInfo[15], numberAt(bytes, 79, 1));
    EXPECT_EQ(folder.textEncoding, numberAt(bytes, 80, 4));
    EXPECT_EQ(folder.folderCount, numberAt(bytes, 84, 4));
}
