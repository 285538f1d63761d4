#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

/** Where a field lies in its structure, in bytes. */
struct HFSPlusBuilderField {
    std::string_view name;
    size_t offset;
    size_t size;
};

/** The structures whose fields have names here. */
enum class HFSPlusBuilderStructure {
    kVolumeHeader,
    kMasterDirectoryBlock,
    kJournalInfoBlock,
    kNodeDescriptor,
    kHeaderRecord,    // offsets from the start of the header node
    kCatalogRecord,   // a file's or folder's; offsets from the start of the data
    kOverflowRecord,  // offsets from the start of the key
};

/** The field with that name; nothing when there is none.
 *
 *  A field that is a fork ends in ".logicalSize", ".clumpSize", ".totalBlocks" or one of
 *  ".extents[0].startBlock" to ".extents[7].blockCount".
 */
[[nodiscard]] std::optional<HFSPlusBuilderField> fieldWithName(HFSPlusBuilderStructure structure,
                                                               std::string_view name);
