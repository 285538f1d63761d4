#include "support/HFSPlusVolumeBuilderPlan.h"

#include <algorithm>
#include <bit>
#include <tuple>

#include "support/HFSPlusVolumeBuilderRecords.h"

namespace {

constexpr uint32_t kFirstUserCNID = 16;
constexpr uint64_t kReservedFront = 1536;  // bytes: boot blocks and volume header
constexpr uint64_t kDefaultJournalSize = 512 * 1024;
constexpr uint32_t kFileTypeJournal = 0x6A726E6C;     // jrnl
constexpr uint32_t kFileCreatorHFSPlus = 0x6866732B;  // hfs+
constexpr uint16_t kInvisibleLocked = 0x5000;
constexpr uint16_t kHasAttributes = 0x0004;

uint64_t divideUp(uint64_t value, uint64_t divisor)
{
    return (value + divisor - 1) / divisor;
}

uint32_t chosenNodeSize(const HFSPlusBuilderTree& shape, uint32_t standard)
{
    return shape.nodeSize != 0 ? shape.nodeSize : standard;
}

bool isNodeSize(uint32_t size)
{
    return size >= 512 && size <= 32768 && std::has_single_bit(size);
}

}  // namespace

uint64_t HFSPlusBuilderFork::blockCount() const
{
    uint64_t blocks = 0;
    for (const HFSPlusBuilderExtent& extent : extents) {
        blocks += extent.blockCount;
    }
    return blocks;
}

uint64_t HFSPlusBuilderFork::size(uint32_t blockSize) const
{
    return logicalSize.value_or(blockCount() * blockSize);
}

bool visitForks(const HFSPlusBuilderSpec& spec, const HFSPlusBuilderForkVisitor& visitor)
{
    const auto visitBoth = [&](uint32_t cnid, const HFSPlusBuilderFork& data,
                               const HFSPlusBuilderFork& resource) {
        return visitor(cnid, kHFSPlusBuilderDataFork, data) &&
               visitor(cnid, kHFSPlusBuilderResourceFork, resource);
    };
    for (const HFSPlusBuilderObject& object : spec.objects) {
        if (!visitBoth(object.cnid, object.data, object.resource)) {
            return false;
        }
    }
    for (const HFSPlusBuilderBulk& bulk : spec.bulks) {
        for (uint64_t number = 0; number < bulk.count; number++) {
            HFSPlusBuilderBulkFile file;
            bulk.generator(number, file);
            const uint32_t cnid = static_cast<uint32_t>(bulk.firstCNID + number);
            if (!visitBoth(cnid, file.data, file.resource)) {
                return false;
            }
        }
    }
    return std::ranges::all_of(spec.attributes, [&](const HFSPlusBuilderAttribute& attribute) {
        return visitor(attribute.fileID, kHFSPlusBuilderAttributeFork, attribute.fork);
    });
}

bool HFSPlusVolumeBuilderPlan::settle(std::string& error)
{
    if (!_checkGeometry(error)) {
        return false;
    }
    _addJournalFiles();
    if (!_assignCNIDs(error) || !_finishAttributes(error)) {
        return false;
    }
    const uint64_t front = divideUp(kReservedFront, spec.blockSize);
    const uint32_t back = spec.blockSize == 512 ? 2 : 1;
    bitmap.use(0, static_cast<uint32_t>(front));
    bitmap.use(spec.totalBlocks - back, back);
    if (!_useGivenExtents(error) || !_placeJournal(error)) {
        return false;
    }
    const uint64_t bitmapBytes = divideUp(spec.totalBlocks, 8);
    const uint64_t bitmapBlocks = divideUp(bitmapBytes, spec.blockSize);
    allocationExtents = spec.allocationExtents;
    if (allocationExtents.empty() &&
        !_place(static_cast<uint32_t>(bitmapBlocks), allocationExtents, "allocation file", error)) {
        return false;
    }
    allocationSize = HFSPlusBuilderFork{allocationExtents, {}, 0, {}}.size(spec.blockSize);
    if (allocationSize < bitmapBytes) {
        error = "the allocation file is too short for the volume";
        return false;
    }
    if (!_countTrees(error) || !_placeTree(spec.attributesTree, attributesTree, error) ||
        !_placeTree(spec.catalogTree, catalogTree, error) || !_placeAutomaticForks(error) ||
        !_collectOverflow(error) || !_countExtentsTree(error)) {
        return false;
    }
    return _placeTree(spec.extentsTree, extentsTree, error);
}

bool HFSPlusVolumeBuilderPlan::_checkGeometry(std::string& error)
{
    if (spec.blockSize < 512 || !std::has_single_bit(spec.blockSize)) {
        error = "the block size is no power of two from 512";
        return false;
    }
    volumeSize = uint64_t{spec.totalBlocks} * spec.blockSize + spec.trailingBytes;
    deviceSize = volumeSize;
    const uint64_t front = divideUp(kReservedFront, spec.blockSize);
    if (spec.totalBlocks < front + 2 || volumeSize < kReservedFront + 1024) {
        error = "the volume is too small";
        return false;
    }
    extentsTree.nodeSize = chosenNodeSize(spec.extentsTree, spec.blockSize < 4096 ? 1024 : 4096);
    catalogTree.nodeSize = chosenNodeSize(spec.catalogTree, 4096);
    attributesTree.nodeSize = chosenNodeSize(spec.attributesTree, 4096);
    if (!isNodeSize(extentsTree.nodeSize) || !isNodeSize(catalogTree.nodeSize) ||
        !isNodeSize(attributesTree.nodeSize)) {
        error = "a node size is no power of two from 512 to 32768";
        return false;
    }
    if (!spec.wrapper.has_value()) {
        return true;
    }
    HFSPlusBuilderWrapper& wrapper = *spec.wrapper;
    uint64_t size = wrapper.wrapperBlockSize != 0 ? wrapper.wrapperBlockSize : 512;
    while (wrapper.wrapperBlockSize == 0 && volumeSize / size + wrapper.startBlock > 0xFFFF) {
        size *= 2;
    }
    const uint64_t blocks = volumeSize / size;
    if (blocks * size != volumeSize || size > UINT32_MAX || size % 512 != 0 ||
        blocks + wrapper.startBlock > 0xFFFF) {
        error = "the volume size is no whole number of wrapper blocks";
        return false;
    }
    wrapper.wrapperBlockSize = static_cast<uint32_t>(size);
    volumeOffset = uint64_t{wrapper.firstSector} * 512 + wrapper.startBlock * size;
    deviceSize = volumeOffset + volumeSize + 1024;
    return true;
}

void HFSPlusVolumeBuilderPlan::_addJournalFiles()
{
    if (!spec.journal.has_value()) {
        return;
    }
    for (const char16_t* name : {u".journal_info_block", u".journal"}) {
        HFSPlusBuilderObject file;
        file.name = name;
        file.fileType = kFileTypeJournal;
        file.fileCreator = kFileCreatorHFSPlus;
        file.finderFlags = kInvisibleLocked;
        spec.objects.push_back(file);
    }
}

bool HFSPlusVolumeBuilderPlan::_assignCNIDs(std::string& error)
{
    std::vector<std::pair<uint64_t, uint64_t>> taken;  // first and one past the last
    for (const HFSPlusBuilderObject& object : spec.objects) {
        if (object.cnid != 0) {
            taken.emplace_back(object.cnid, uint64_t{object.cnid} + 1);
        }
    }
    for (const HFSPlusBuilderBulk& bulk : spec.bulks) {
        if (bulk.firstCNID != 0) {
            taken.emplace_back(bulk.firstCNID, bulk.firstCNID + bulk.count);
        }
    }
    std::ranges::sort(taken);
    uint64_t highest = kFirstUserCNID - 1;
    for (size_t index = 0; index < taken.size(); index++) {
        if (index > 0 && taken[index].first < taken[index - 1].second) {
            error = "CNID " + std::to_string(taken[index].first) + " is given twice";
            return false;
        }
        highest = std::max(highest, taken[index].second - 1);
    }
    uint64_t next = kFirstUserCNID;
    size_t passed = 0;
    for (HFSPlusBuilderObject& object : spec.objects) {
        while (object.cnid == 0 && passed < taken.size() && next >= taken[passed].first) {
            next = std::max(next, taken[passed++].second);
        }
        if (object.cnid == 0) {
            object.cnid = static_cast<uint32_t>(next++);
        }
        (object.isFolder ? folderCount : fileCount)++;
    }
    folderCount--;  // without the root folder
    next = std::max(next, highest + 1);
    for (HFSPlusBuilderBulk& bulk : spec.bulks) {
        if (bulk.firstCNID == 0) {
            bulk.firstCNID = static_cast<uint32_t>(next);
            next += bulk.count;
        }
        fileCount += static_cast<uint32_t>(bulk.count);
    }
    if (next > UINT32_MAX) {
        error = "there are no more CNIDs";
        return false;
    }
    nextCatalogID = spec.nextCatalogID != 0 ? spec.nextCatalogID : static_cast<uint32_t>(next);
    return true;
}

bool HFSPlusVolumeBuilderPlan::_finishAttributes(std::string& error)
{
    for (HFSPlusBuilderAttribute& attribute : spec.attributes) {
        HFSPlusBuilderObject& object = spec.objects[attribute.object];
        attribute.fileID = object.cnid;
        object.flags |= kHasAttributes;
    }
    const auto key = [](const HFSPlusBuilderAttribute& attribute) {
        return std::tie(attribute.fileID, attribute.name);
    };
    std::ranges::sort(spec.attributes, {}, key);
    if (std::ranges::adjacent_find(spec.attributes, {}, key) != spec.attributes.end()) {
        error = "an attribute is given twice";
        return false;
    }
    spec.hasAttributesFile |= !spec.attributes.empty();
    return true;
}

bool HFSPlusVolumeBuilderPlan::_placeJournal(std::string& error)
{
    if (!spec.journal.has_value()) {
        return true;
    }
    HFSPlusBuilderJournal& journal = *spec.journal;
    HFSPlusBuilderObject& infoFile = spec.objects[spec.objects.size() - 2];
    HFSPlusBuilderFork& infoFork = infoFile.data;
    HFSPlusBuilderFork& journalFork = spec.objects.back().data;
    if (journal.blockCount == 0) {
        journal.blockCount = static_cast<uint32_t>(divideUp(kDefaultJournalSize, spec.blockSize));
    }
    // What was given takes its blocks before anything is chosen.
    if (journal.infoBlock != 0) {
        infoFork.extents = {{journal.infoBlock, 1}};
        if (!_useFork(infoFile.cnid, 0, infoFork, error)) {
            return false;
        }
    }
    if (journal.startBlock != 0) {
        journalFork.extents = {{journal.startBlock, journal.blockCount}};
        if (!_useFork(spec.objects.back().cnid, 0, journalFork, error)) {
            return false;
        }
    }
    if (journal.infoBlock == 0 && !_place(1, infoFork.extents, "journal info block", error)) {
        return false;
    }
    if (journal.startBlock == 0 &&
        !_place(journal.blockCount, journalFork.extents, "journal", error)) {
        return false;
    }
    journal.infoBlock = infoFork.extents[0].startBlock;
    journal.startBlock = journalFork.extents[0].startBlock;
    return true;
}
