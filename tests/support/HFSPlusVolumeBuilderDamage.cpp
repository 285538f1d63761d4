#include "support/HFSPlusVolumeBuilderPatcher.h"

HFSPlusBuilderDamage damagedHeader(std::string field, uint64_t value)
{
    return [=](HFSPlusVolumeBuilderPatcher& patcher) { return patcher.header(field, value); };
}

HFSPlusBuilderDamage damagedAlternateHeader(std::string field, uint64_t value)
{
    return
        [=](HFSPlusVolumeBuilderPatcher& patcher) { return patcher.alternateHeader(field, value); };
}

HFSPlusBuilderDamage damagedWrapper(std::string field, uint64_t value)
{
    return [=](HFSPlusVolumeBuilderPatcher& patcher) { return patcher.wrapper(field, value); };
}

HFSPlusBuilderDamage damagedJournalInfo(std::string field, uint64_t value)
{
    return [=](HFSPlusVolumeBuilderPatcher& patcher) { return patcher.journalInfo(field, value); };
}

HFSPlusBuilderDamage damagedBitmap(uint32_t start, uint32_t count, bool used)
{
    return [=](HFSPlusVolumeBuilderPatcher& patcher) {
        for (uint32_t index = 0; index < count; index++) {
            if (!patcher.bitmap(start + index, used)) {
                return false;
            }
        }
        return true;
    };
}

HFSPlusBuilderDamage damagedTreeHeader(uint32_t treeID, std::string field, uint64_t value)
{
    return [=](HFSPlusVolumeBuilderPatcher& patcher) {
        return patcher.treeHeader(treeID, field, value);
    };
}

HFSPlusBuilderDamage damagedTreeMap(uint32_t treeID, uint32_t node, bool used)
{
    return
        [=](HFSPlusVolumeBuilderPatcher& patcher) { return patcher.treeMap(treeID, node, used); };
}

HFSPlusBuilderDamage damagedNode(uint32_t treeID, uint32_t node, std::string field, uint64_t value)
{
    return [=](HFSPlusVolumeBuilderPatcher& patcher) {
        return patcher.node(treeID, node, field, value);
    };
}

HFSPlusBuilderDamage damagedCatalogRecord(uint32_t cnid, std::string field, uint64_t value)
{
    return [=](HFSPlusVolumeBuilderPatcher& patcher) {
        return patcher.catalogRecord(cnid, field, value);
    };
}

HFSPlusBuilderDamage damagedOverflowRecord(uint32_t fileID, uint8_t forkType, uint32_t startBlock,
                                           std::string field, uint64_t value)
{
    return [=](HFSPlusVolumeBuilderPatcher& patcher) {
        return patcher.overflowRecord(fileID, forkType, startBlock, field, value);
    };
}
