#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "support/HFSPlusVolumeBuilderModel.h"
#include "support/HFSPlusVolumeBuilderPlan.h"
#include "support/MemoryBlockDevice.h"
#include "support/SparseSink.h"

/** Builds HFS Plus and HFSX volumes of any layout.
 *
 *  Settings may come in any order, except that fork settings concern the file named last. What is
 *  not given is chosen: special files lie at the front in one extent each, CNIDs count from 16.
 *  The volume is sound unless unchecked() or damage() is used; a layout that contradicts itself
 *  is refused with a reason in error(). Every block of every file names its place
 *  (fillForkContents). Paths are UTF-8, already decomposed, with ':' for a '/' on disk.
 */
class HFSPlusVolumeBuilder {
public:
    HFSPlusVolumeBuilder();

    // The volume.
    HFSPlusVolumeBuilder& blockSize(uint32_t bytes);
    HFSPlusVolumeBuilder& totalBlocks(uint32_t count);
    HFSPlusVolumeBuilder& trailingBytes(uint64_t bytes);  // behind the last whole block
    HFSPlusVolumeBuilder& volumeName(std::string_view name);
    HFSPlusVolumeBuilder& hfsx(bool binaryCompare = false);
    HFSPlusVolumeBuilder& wrapper(const HFSPlusBuilderWrapper& wrapper = {});
    HFSPlusVolumeBuilder& unmounted(bool cleanly);
    HFSPlusVolumeBuilder& nextCatalogID(uint32_t cnid);
    HFSPlusVolumeBuilder& contents(bool written);  // off: data blocks stay zero
    HFSPlusVolumeBuilder& unchecked();             // extents may overlap or lie anywhere
    HFSPlusVolumeBuilder& damage(HFSPlusBuilderDamage damage);  // HFSPlusVolumeBuilderPatcher.h

    // Files and folders; missing parents are made. A known path is selected again.
    HFSPlusVolumeBuilder& folder(std::string_view path, uint32_t cnid = 0);
    HFSPlusVolumeBuilder& file(std::string_view path, uint32_t cnid = 0);
    HFSPlusVolumeBuilder& symbolicLink(std::string_view path, uint32_t cnid, std::string target);
    HFSPlusVolumeBuilder& hardLink(std::string_view path, uint32_t cnid, uint32_t reference);

    // The file named last.
    HFSPlusVolumeBuilder& data(HFSPlusBuilderExtents extents);
    HFSPlusVolumeBuilder& resource(HFSPlusBuilderExtents extents);
    HFSPlusVolumeBuilder& dataSize(uint64_t bytes);
    HFSPlusVolumeBuilder& resourceSize(uint64_t bytes);
    HFSPlusVolumeBuilder& automaticData(uint32_t blocks);  // one free extent
    HFSPlusVolumeBuilder& automaticResource(uint32_t blocks);
    HFSPlusVolumeBuilder& dataBeginning(std::string bytes);  // instead of the pattern
    HFSPlusVolumeBuilder& type(uint32_t fileType, uint32_t fileCreator);
    HFSPlusVolumeBuilder& mode(uint16_t fileMode, uint32_t special = 0);
    HFSPlusVolumeBuilder& flags(uint16_t flags);

    // Extended attributes of the file or folder named last.
    HFSPlusVolumeBuilder& attribute(std::string_view name, std::string bytes);
    HFSPlusVolumeBuilder& forkAttribute(std::string_view name, HFSPlusBuilderExtents extents);

    /** Adds @p count files to @p folder without keeping them in memory.
     *
     *  One such run per folder. CNIDs ascend from @p firstCNID, or from above all others when it
     *  is 0. Without a generator the files are empty and named by number.
     */
    HFSPlusVolumeBuilder& manyFiles(uint64_t count, HFSPlusBuilderGenerator generator = nullptr,
                                    std::string_view folder = "/many", uint32_t firstCNID = 0);

    // Special files.
    HFSPlusVolumeBuilder& catalogExtents(HFSPlusBuilderExtents extents);
    HFSPlusVolumeBuilder& extentsFileExtents(HFSPlusBuilderExtents extents);
    HFSPlusVolumeBuilder& attributesExtents(HFSPlusBuilderExtents extents);
    HFSPlusVolumeBuilder& allocationExtents(HFSPlusBuilderExtents extents);
    HFSPlusVolumeBuilder& startupExtents(HFSPlusBuilderExtents extents);
    HFSPlusVolumeBuilder& badBlocks(HFSPlusBuilderExtents extents);
    HFSPlusVolumeBuilder& attributesFile();  // also when there is no attribute

    // B-trees; the whole shape of a tree is open to what has no setting of its own.
    HFSPlusVolumeBuilder& catalogNodeSize(uint32_t bytes);
    HFSPlusVolumeBuilder& extentsNodeSize(uint32_t bytes);
    HFSPlusVolumeBuilder& attributesNodeSize(uint32_t bytes);
    HFSPlusVolumeBuilder& freeCatalogNodes(uint32_t count);
    HFSPlusVolumeBuilder& freeExtentsNodes(uint32_t count);
    HFSPlusVolumeBuilder& freeAttributesNodes(uint32_t count);
    [[nodiscard]] HFSPlusBuilderTree& catalogTree() { return _spec.catalogTree; }
    [[nodiscard]] HFSPlusBuilderTree& extentsTree() { return _spec.extentsTree; }
    [[nodiscard]] HFSPlusBuilderTree& attributesTree() { return _spec.attributesTree; }

    // The journal with its info block and its two files; 0 leaves the place to the builder.
    HFSPlusVolumeBuilder& journal(uint32_t startBlock = 0, uint32_t blockCount = 0);
    HFSPlusVolumeBuilder& journalInfoBlock(uint32_t block);
    HFSPlusVolumeBuilder& journalDetails(const HFSPlusBuilderJournal& journal);

    /** Writes the volume; false with error() set when the layout or the sink refuses. */
    [[nodiscard]] bool writeTo(SparseSink& sink);

    /** Writes the volume to a sparse file. */
    [[nodiscard]] bool buildFile(const std::string& path);

    /** The volume as a device in memory; null with error() set. */
    [[nodiscard]] std::unique_ptr<MemoryBlockDevice> build(uint32_t deviceBlockSize = 512);

    /** Where everything came to lie; after a successful build. */
    [[nodiscard]] const HFSPlusVolumeBuilderPlan& plan() const { return *_plan; }

    [[nodiscard]] const std::string& error() const { return _error; }

private:
    [[nodiscard]] size_t _object(std::string_view path, uint32_t cnid, bool isFolder);
    [[nodiscard]] HFSPlusBuilderObject& _last() { return _spec.objects[_selected]; }
    [[nodiscard]] HFSPlusBuilderJournal& _journal();

    HFSPlusBuilderSpec _spec;
    std::map<std::pair<size_t, std::u16string>, size_t> _index;  // of objects, by parent and name
    size_t _selected = 0;                                        // the object named last
    std::shared_ptr<const HFSPlusVolumeBuilderPlan> _plan;
    std::string _error;
};
