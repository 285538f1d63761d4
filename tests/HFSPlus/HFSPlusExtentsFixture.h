#pragma once

#include <compare>
#include <map>

#include "HFSPlus/HFSPlusFormatConversion.h"
#include "HFSPlusTreeFixture.h"
#include "support/HFSPlusVolumeCheckerBase.h"
#include "support/HFSPlusVolumeCheckerTree.h"

/** The key of an overflow record, in the order of the tree. */
struct OverflowKey {
    uint32_t fileID = 0;
    uint8_t forkType = 0;
    uint32_t startBlock = 0;

    auto operator<=>(const OverflowKey&) const = default;
};

/** The start block of its first extent stands for a record: no two in a test are alike. */
using OverflowRecords = std::map<OverflowKey, uint32_t>;

[[nodiscard]] inline HFSPlusExtentRecord overflowRecord(uint32_t mark)
{
    HFSPlusHostExtentRecord record = {};
    for (uint32_t index = 0; index < record.size(); ++index) {
        record[index] = {mark, index + 1};
    }
    return diskOrder(record);
}

/** Keeps the records that the checker meets. */
class OverflowCollector : public HFSPlusCheckLeafVisitor {
public:
    void visitRecord(std::span<const uint8_t> key, std::span<const uint8_t> data) override
    {
        ASSERT_EQ(key.size(), 12u);
        ASSERT_EQ(data.size(), 64u);
        _records[{checkedUInt32(&key[4]), key[2], checkedUInt32(&key[8])}] =
            checkedUInt32(data.data());
    }
    [[nodiscard]] const OverflowRecords& records() const { return _records; }

private:
    OverflowRecords _records;
};

/** A volume with an extents file in one extent; @p freeNodes more than the records need. */
class ExtentsVolume : public HFSPlusOpenedVolume {
public:
    explicit ExtentsVolume(uint32_t freeNodes, uint32_t nodeSize = 512)
        : HFSPlusOpenedVolume(builder(freeNodes, nodeSize))
    {
        EXPECT_TRUE(*this) << error();
    }
    using HFSPlusOpenedVolume::HFSPlusOpenedVolume;

    [[nodiscard]] static HFSPlusVolumeBuilder builder(uint32_t freeNodes, uint32_t nodeSize = 512)
    {
        HFSPlusVolumeBuilder builder;
        builder.blockSize(512).totalBlocks(16000).contents(false);
        builder.extentsNodeSize(nodeSize).freeExtentsNodes(freeNodes);
        return builder;
    }

    [[nodiscard]] HFSPlusExtents& tree() const { return volume().extents(); }
    [[nodiscard]] bool insert(const OverflowKey& key, uint32_t mark,
                              VZDefragErrorSlot error = nullptr) const
    {
        return tree().insertExtentRecord(overflowRecord(mark), key.startBlock, key.fileID,
                                         key.forkType, error);
    }
    [[nodiscard]] bool update(const OverflowKey& key, uint32_t mark,
                              VZDefragErrorSlot error = nullptr) const
    {
        return tree().updateExtentRecord(overflowRecord(mark), key.startBlock, key.fileID,
                                         key.forkType, error);
    }
    [[nodiscard]] bool remove(const OverflowKey& key, VZDefragErrorSlot error = nullptr) const
    {
        return tree().deleteExtentRecord(key.startBlock, key.fileID, key.forkType, error);
    }
    /** Inserts records of file @p fileID with the starts 1, 2 ... until @p done says so. */
    template <typename Condition>
    [[nodiscard]] uint32_t insertUntil(uint32_t fileID, const Condition& done) const
    {
        uint32_t count = 0;
        while (!done() && count < 100000) {
            ++count;
            EXPECT_TRUE(insert({fileID, 0, count}, count));
        }
        return count;
    }

    /** The records on the device after a flush; every rule of the format is checked on the way. */
    [[nodiscard]] OverflowRecords recordsOnDisk() const
    {
        EXPECT_TRUE(tree().flush());
        EXPECT_TRUE(tree().checkTree(nullptr));
        std::vector<std::string> list;
        HFSPlusCheckProblems problems(list, 20);
        const std::unique_ptr<MemoryBlockDevice> copy = memory().clone();
        HFSPlusCheckDeviceReader reader(*copy);
        const HFSPlusHostVolumeHeader& header = volume().hostVolumeHeader();
        HFSPlusCheckedVolume checkedVolume = {.reader = reader, .problems = problems};
        checkedVolume.size = volume().volumeSizeBytes();
        checkedVolume.blockSize = header.blockSize;
        checkedVolume.totalBlocks = header.totalBlocks;
        HFSPlusCheckedFork fork;
        fork.cnid = kHFSExtentsFileID;
        fork.isSpecial = true;
        fork.logicalSize = header.extentsFile.logicalSize;
        fork.totalBlocks = header.extentsFile.totalBlocks;
        fork.extents = {{header.extentsFile.extents[0].startBlock, fork.totalBlocks}};
        const HFSPlusCheckExtentsKeyRule rule;
        OverflowCollector collector;
        HFSPlusCheckTree(checkedVolume, rule, fork).check(collector);
        problems.finish();
        for (const std::string& problem : list) {
            ADD_FAILURE() << problem;
        }
        return collector.records();
    }
};
