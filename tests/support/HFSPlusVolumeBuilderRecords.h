#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "support/HFSPlusVolumeBuilderBytes.h"
#include "support/HFSPlusVolumeBuilderModel.h"
#include "support/HFSPlusVolumeBuilderPlan.h"

/** Takes a record of a tree, its key beginning with the key's length; false ends the walk. */
using HFSPlusBuilderRecordSink =
    std::function<bool(std::span<const uint8_t> key, std::span<const uint8_t> data)>;

/** The records of the catalog in key order, made as they are asked for. */
class HFSPlusVolumeBuilderCatalog {
public:
    /** Sorts the objects of @p spec, whose CNIDs are settled and which must outlive this. */
    explicit HFSPlusVolumeBuilderCatalog(const HFSPlusBuilderSpec& spec);

    /** Gives all records to @p sink; false when it ends the walk or names do not ascend. */
    [[nodiscard]] bool visit(const HFSPlusBuilderRecordSink& sink);

private:
    [[nodiscard]] bool _visitBulkThreads(const HFSPlusBuilderBulk& bulk);
    [[nodiscard]] bool _visitChildren(size_t folder);
    [[nodiscard]] bool _visitObject(const HFSPlusBuilderObject& object, size_t index);
    [[nodiscard]] bool _visitThread(const HFSPlusBuilderObject& object);
    void _putFolder(const HFSPlusBuilderObject& object, size_t index);
    void _putFile(const HFSPlusBuilderObject& object);
    void _putCommon(const HFSPlusBuilderObject& object);
    [[nodiscard]] HFSPlusBuilderObject _bulkObject(const HFSPlusBuilderBulk& bulk, uint64_t number);
    [[nodiscard]] uint32_t _parentID(const HFSPlusBuilderObject& object) const;

    const HFSPlusBuilderSpec& _spec;
    std::vector<std::vector<size_t>> _children;  // by folder, sorted by name
    const HFSPlusBuilderRecordSink* _sink = nullptr;
    HFSPlusVolumeBuilderBytes _key;
    HFSPlusVolumeBuilderBytes _data;
};

/** Gives the records of the attributes file, sorted already, to @p sink. */
[[nodiscard]] bool visitAttributeRecords(const HFSPlusBuilderSpec& spec,
                                         const HFSPlusBuilderRecordSink& sink);

/** Gives the records of the extents overflow file to @p sink. */
[[nodiscard]] bool visitOverflowRecords(const std::vector<HFSPlusBuilderOverflow>& records,
                                        const HFSPlusBuilderRecordSink& sink);
