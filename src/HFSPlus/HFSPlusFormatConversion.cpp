#include "HFSPlus/HFSPlusFormatConversion.h"

namespace {

// Each template serves both directions: assigning a field of one order to the same field of the
// other swaps it. A field left out would reach the disk as zero, so all are listed.

template <typename From, typename To>
void convertExtentRecord(const From& from, To& to)
{
    for (size_t index = 0; index < kHFSPlusExtentDensity; ++index) {
        to[index].startBlock = from[index].startBlock;
        to[index].blockCount = from[index].blockCount;
    }
}

template <typename From, typename To>
void convertForkData(const From& from, To& to)
{
    to.logicalSize = from.logicalSize;
    to.clumpSize = from.clumpSize;
    to.totalBlocks = from.totalBlocks;
    convertExtentRecord(from.extents, to.extents);
}

template <typename From, typename To>
void convertVolumeHeader(const From& from, To& to)
{
    to.signature = from.signature;
    to.version = from.version;
    to.attributes = from.attributes;
    to.lastMountedVersion = from.lastMountedVersion;
    to.journalInfoBlock = from.journalInfoBlock;
    to.createDate = from.createDate;
    to.modifyDate = from.modifyDate;
    to.backupDate = from.backupDate;
    to.checkedDate = from.checkedDate;
    to.fileCount = from.fileCount;
    to.folderCount = from.folderCount;
    to.blockSize = from.blockSize;
    to.totalBlocks = from.totalBlocks;
    to.freeBlocks = from.freeBlocks;
    to.nextAllocation = from.nextAllocation;
    to.rsrcClumpSize = from.rsrcClumpSize;
    to.dataClumpSize = from.dataClumpSize;
    to.nextCatalogID = from.nextCatalogID;
    to.writeCount = from.writeCount;
    to.encodingsBitmap = from.encodingsBitmap;
    for (size_t index = 0; index < from.finderInfo.size(); ++index) {
        to.finderInfo[index] = from.finderInfo[index];
    }
    convertForkData(from.allocationFile, to.allocationFile);
    convertForkData(from.extentsFile, to.extentsFile);
    convertForkData(from.catalogFile, to.catalogFile);
    convertForkData(from.attributesFile, to.attributesFile);
    convertForkData(from.startupFile, to.startupFile);
}

template <typename From, typename To>
void convertHeaderRec(const From& from, To& to)
{
    to.treeDepth = from.treeDepth;
    to.rootNode = from.rootNode;
    to.leafRecords = from.leafRecords;
    to.firstLeafNode = from.firstLeafNode;
    to.lastLeafNode = from.lastLeafNode;
    to.nodeSize = from.nodeSize;
    to.maxKeyLength = from.maxKeyLength;
    to.totalNodes = from.totalNodes;
    to.freeNodes = from.freeNodes;
    to.reserved1 = from.reserved1;
    to.clumpSize = from.clumpSize;
    to.btreeType = from.btreeType;
    to.keyCompareType = from.keyCompareType;
    to.attributes = from.attributes;
    to.reserved3 = from.reserved3;
}

template <typename From, typename To>
void convertBSDInfo(const From& from, To& to)
{
    to.ownerID = from.ownerID;
    to.groupID = from.groupID;
    to.adminFlags = from.adminFlags;
    to.ownerFlags = from.ownerFlags;
    to.fileMode = from.fileMode;
    to.special = from.special;
}

template <typename To, typename From>
To converted(const From& from, void (*convert)(const From&, To&))
{
    To to = {};
    convert(from, to);
    return to;
}

}  // namespace

HFSPlusHostExtentRecord hostOrder(const HFSPlusExtentRecord& disk)
{
    return converted<HFSPlusHostExtentRecord>(disk, convertExtentRecord);
}

HFSPlusExtentRecord diskOrder(const HFSPlusHostExtentRecord& host)
{
    return converted<HFSPlusExtentRecord>(host, convertExtentRecord);
}

HFSPlusHostForkData hostOrder(const HFSPlusForkData& disk)
{
    return converted<HFSPlusHostForkData>(disk, convertForkData);
}

HFSPlusForkData diskOrder(const HFSPlusHostForkData& host)
{
    return converted<HFSPlusForkData>(host, convertForkData);
}

HFSPlusHostVolumeHeader hostOrder(const HFSPlusVolumeHeader& disk)
{
    return converted<HFSPlusHostVolumeHeader>(disk, convertVolumeHeader);
}

HFSPlusVolumeHeader diskOrder(const HFSPlusHostVolumeHeader& host)
{
    return converted<HFSPlusVolumeHeader>(host, convertVolumeHeader);
}

BTHostHeaderRec hostOrder(const BTHeaderRec& disk)
{
    return converted<BTHostHeaderRec>(disk, convertHeaderRec);
}

BTHeaderRec diskOrder(const BTHostHeaderRec& host)
{
    return converted<BTHeaderRec>(host, convertHeaderRec);
}

HFSPlusHostCatalogFile hostOrder(const HFSPlusCatalogFile& disk)
{
    HFSPlusHostCatalogFile host = {};
    host.recordType = disk.recordType;
    host.flags = disk.flags;
    host.reserved1 = disk.reserved1;
    host.fileID = disk.fileID;
    host.createDate = disk.createDate;
    host.contentModDate = disk.contentModDate;
    host.attributeModDate = disk.attributeModDate;
    host.accessDate = disk.accessDate;
    host.backupDate = disk.backupDate;
    convertBSDInfo(disk.permissions, host.permissions);
    host.fileType = disk.fileType;
    host.fileCreator = disk.fileCreator;
    host.finderFlags = disk.finderFlags;
    host.locationV = disk.locationV;
    host.locationH = disk.locationH;
    host.reservedField = disk.reservedField;
    host.extendedFinderInfo = disk.extendedFinderInfo;
    host.textEncoding = disk.textEncoding;
    host.reserved2 = disk.reserved2;
    convertForkData(disk.dataFork, host.dataFork);
    convertForkData(disk.resourceFork, host.resourceFork);
    return host;
}

HFSPlusHostCatalogFolder hostOrder(const HFSPlusCatalogFolder& disk)
{
    HFSPlusHostCatalogFolder host = {};
    host.recordType = disk.recordType;
    host.flags = disk.flags;
    host.valence = disk.valence;
    host.folderID = disk.folderID;
    host.createDate = disk.createDate;
    host.contentModDate = disk.contentModDate;
    host.attributeModDate = disk.attributeModDate;
    host.accessDate = disk.accessDate;
    host.backupDate = disk.backupDate;
    convertBSDInfo(disk.permissions, host.permissions);
    host.userInfo = disk.userInfo;
    host.finderInfo = disk.finderInfo;
    host.textEncoding = disk.textEncoding;
    host.folderCount = disk.folderCount;
    return host;
}
