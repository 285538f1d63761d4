#include "support/HFSPlusVolumeBuilderFields.h"

#include <algorithm>
#include <span>

namespace {

using Field = HFSPlusBuilderField;

constexpr size_t kForkSize = 80;
constexpr size_t kExtentsSize = 64;

constexpr Field kVolumeHeader[] = {
    {"signature", 0, 2},
    {"version", 2, 2},
    {"attributes", 4, 4},
    {"lastMountedVersion", 8, 4},
    {"journalInfoBlock", 12, 4},
    {"createDate", 16, 4},
    {"modifyDate", 20, 4},
    {"backupDate", 24, 4},
    {"checkedDate", 28, 4},
    {"fileCount", 32, 4},
    {"folderCount", 36, 4},
    {"blockSize", 40, 4},
    {"totalBlocks", 44, 4},
    {"freeBlocks", 48, 4},
    {"nextAllocation", 52, 4},
    {"rsrcClumpSize", 56, 4},
    {"dataClumpSize", 60, 4},
    {"nextCatalogID", 64, 4},
    {"writeCount", 68, 4},
    {"encodingsBitmap", 72, 8},
    {"allocationFile", 112, kForkSize},
    {"extentsFile", 192, kForkSize},
    {"catalogFile", 272, kForkSize},
    {"attributesFile", 352, kForkSize},
    {"startupFile", 432, kForkSize},
};

constexpr Field kMasterDirectoryBlock[] = {
    {"drSigWord", 0, 2},
    {"drAtrb", 10, 2},
    {"drNmAlBlks", 18, 2},
    {"drAlBlkSiz", 20, 4},
    {"drAlBlSt", 28, 2},
    {"drEmbedSigWord", 124, 2},
    {"drEmbedExtent.startBlock", 126, 2},
    {"drEmbedExtent.blockCount", 128, 2},
};

constexpr Field kJournalInfoBlock[] = {{"flags", 0, 4}, {"offset", 36, 8}, {"size", 44, 8}};

constexpr Field kNodeDescriptor[] = {
    {"fLink", 0, 4}, {"bLink", 4, 4}, {"kind", 8, 1}, {"height", 9, 1}, {"numRecords", 10, 2},
};

constexpr Field kHeaderRecord[] = {
    {"treeDepth", 14, 2},     {"rootNode", 16, 4},       {"leafRecords", 20, 4},
    {"firstLeafNode", 24, 4}, {"lastLeafNode", 28, 4},   {"nodeSize", 32, 2},
    {"maxKeyLength", 34, 2},  {"totalNodes", 36, 4},     {"freeNodes", 40, 4},
    {"btreeType", 50, 1},     {"keyCompareType", 51, 1}, {"attributes", 52, 4},
};

constexpr Field kCatalogRecord[] = {
    {"recordType", 0, 2},
    {"flags", 2, 2},
    {"valence", 4, 4},
    {"fileID", 8, 4},
    {"folderID", 8, 4},
    {"createDate", 12, 4},
    {"contentModDate", 16, 4},
    {"attributeModDate", 20, 4},
    {"accessDate", 24, 4},
    {"ownerFlags", 41, 1},
    {"fileMode", 42, 2},
    {"special", 44, 4},
    {"fileType", 48, 4},
    {"fileCreator", 52, 4},
    {"folderCount", 84, 4},
    {"dataFork", 88, kForkSize},
    {"resourceFork", 168, kForkSize},
};

constexpr Field kOverflowRecord[] = {
    {"keyLength", 0, 2}, {"forkType", 2, 1},   {"pad", 3, 1},
    {"fileID", 4, 4},    {"startBlock", 8, 4}, {"extents", 12, kExtentsSize},
};

constexpr Field kForkFields[] = {
    {"logicalSize", 0, 8},
    {"clumpSize", 8, 4},
    {"totalBlocks", 12, 4},
    {"extents", 16, kExtentsSize},
};

std::span<const Field> fieldsOf(HFSPlusBuilderStructure structure)
{
    using enum HFSPlusBuilderStructure;
    switch (structure) {
        case kVolumeHeader:
            return ::kVolumeHeader;
        case kMasterDirectoryBlock:
            return ::kMasterDirectoryBlock;
        case kJournalInfoBlock:
            return ::kJournalInfoBlock;
        case kNodeDescriptor:
            return ::kNodeDescriptor;
        case kHeaderRecord:
            return ::kHeaderRecord;
        case kCatalogRecord:
            return ::kCatalogRecord;
        case kOverflowRecord:
            return ::kOverflowRecord;
    }
    return {};
}

std::optional<Field> extentField(std::string_view rest)
{
    // [i].startBlock or [i].blockCount
    if (rest.size() != 14 || rest[0] != '[' || rest[1] < '0' || rest[1] > '7') {
        return std::nullopt;
    }
    const size_t offset = static_cast<size_t>(rest[1] - '0') * 8;
    const std::string_view part = rest.substr(2);
    if (part == "].startBlock") {
        return Field{part, offset, 4};
    }
    if (part == "].blockCount") {
        return Field{part, offset + 4, 4};
    }
    return std::nullopt;
}

}  // namespace

std::optional<HFSPlusBuilderField> fieldWithName(HFSPlusBuilderStructure structure,
                                                 std::string_view name)
{
    std::span<const Field> fields = fieldsOf(structure);
    size_t base = 0;
    std::string_view rest = name;
    while (true) {  // every turn but the last makes the rest of the name shorter
        const auto found = std::ranges::find_if(fields, [&](const Field& field) {
            return rest == field.name ||
                   (field.size > 8 && rest.starts_with(field.name) &&
                    rest.size() > field.name.size() &&
                    (rest[field.name.size()] == '.' || rest[field.name.size()] == '['));
        });
        if (found == fields.end()) {
            return std::nullopt;
        }
        base += found->offset;
        if (found->size <= 8) {
            return Field{name, base, found->size};
        }
        rest.remove_prefix(found->name.size());
        if (found->size == kExtentsSize) {
            const std::optional<Field> extent = extentField(rest);
            return extent.has_value() ? std::optional(Field{name, base + extent->offset, 4})
                                      : std::nullopt;
        }
        rest.remove_prefix(std::min<size_t>(rest.size(), 1));
        fields = kForkFields;
    }
}
