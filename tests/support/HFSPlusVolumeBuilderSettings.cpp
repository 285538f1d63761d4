#include "support/HFSPlusVolumeBuilder.h"
#include "support/HFSPlusVolumeBuilderNames.h"

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::blockSize(uint32_t bytes)
{
    _spec.blockSize = bytes;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::totalBlocks(uint32_t count)
{
    _spec.totalBlocks = count;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::trailingBytes(uint64_t bytes)
{
    _spec.trailingBytes = bytes;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::volumeName(std::string_view name)
{
    _spec.volumeName = unitsOfText(name);
    _spec.objects[0].name = _spec.volumeName;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::hfsx(bool binaryCompare)
{
    _spec.hfsx = true;
    _spec.binaryCompare = binaryCompare;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::wrapper(const HFSPlusBuilderWrapper& wrapper)
{
    _spec.wrapper = wrapper;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::unmounted(bool cleanly)
{
    _spec.unmounted = cleanly;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::nextCatalogID(uint32_t cnid)
{
    _spec.nextCatalogID = cnid;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::contents(bool written)
{
    _spec.contents = written;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::unchecked()
{
    _spec.unchecked = true;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::damage(HFSPlusBuilderDamage damage)
{
    _spec.damages.push_back(std::move(damage));
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::data(HFSPlusBuilderExtents extents)
{
    _last().data.extents = std::move(extents);
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::resource(HFSPlusBuilderExtents extents)
{
    _last().resource.extents = std::move(extents);
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::dataSize(uint64_t bytes)
{
    _last().data.logicalSize = bytes;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::resourceSize(uint64_t bytes)
{
    _last().resource.logicalSize = bytes;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::automaticData(uint32_t blocks)
{
    _last().data.automaticBlocks = blocks;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::automaticResource(uint32_t blocks)
{
    _last().resource.automaticBlocks = blocks;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::dataBeginning(std::string bytes)
{
    _last().data.beginning = std::move(bytes);
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::type(uint32_t fileType, uint32_t fileCreator)
{
    _last().fileType = fileType;
    _last().fileCreator = fileCreator;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::mode(uint16_t fileMode, uint32_t special)
{
    _last().fileMode = fileMode;
    _last().special = special;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::flags(uint16_t flags)
{
    _last().flags = flags;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::catalogExtents(HFSPlusBuilderExtents extents)
{
    _spec.catalogTree.extents = std::move(extents);
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::extentsFileExtents(HFSPlusBuilderExtents extents)
{
    _spec.extentsTree.extents = std::move(extents);
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::attributesExtents(HFSPlusBuilderExtents extents)
{
    _spec.attributesTree.extents = std::move(extents);
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::allocationExtents(HFSPlusBuilderExtents extents)
{
    _spec.allocationExtents = std::move(extents);
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::startupExtents(HFSPlusBuilderExtents extents)
{
    _spec.startup.extents = std::move(extents);
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::badBlocks(HFSPlusBuilderExtents extents)
{
    _spec.badBlocks = std::move(extents);
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::attributesFile()
{
    _spec.hasAttributesFile = true;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::catalogNodeSize(uint32_t bytes)
{
    _spec.catalogTree.nodeSize = bytes;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::extentsNodeSize(uint32_t bytes)
{
    _spec.extentsTree.nodeSize = bytes;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::attributesNodeSize(uint32_t bytes)
{
    _spec.attributesTree.nodeSize = bytes;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::freeCatalogNodes(uint32_t count)
{
    _spec.catalogTree.freeNodes = count;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::freeExtentsNodes(uint32_t count)
{
    _spec.extentsTree.freeNodes = count;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::freeAttributesNodes(uint32_t count)
{
    _spec.attributesTree.freeNodes = count;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::journal(uint32_t startBlock, uint32_t blockCount)
{
    _journal().startBlock = startBlock;
    _journal().blockCount = blockCount;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::journalInfoBlock(uint32_t block)
{
    _journal().infoBlock = block;
    return *this;
}

HFSPlusVolumeBuilder& HFSPlusVolumeBuilder::journalDetails(const HFSPlusBuilderJournal& journal)
{
    _spec.journal = journal;
    return *this;
}
