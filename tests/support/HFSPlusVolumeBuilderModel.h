#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

constexpr uint8_t kHFSPlusBuilderDataFork = 0;
constexpr uint8_t kHFSPlusBuilderResourceFork = 0xFF;
constexpr uint8_t kHFSPlusBuilderAttributeFork = 0x20;  // marks contents, never a key on disk
constexpr uint32_t kHFSPlusBuilderExtentsID = 3;
constexpr uint32_t kHFSPlusBuilderCatalogID = 4;
constexpr uint32_t kHFSPlusBuilderBadBlocksID = 5;
constexpr uint32_t kHFSPlusBuilderAllocationID = 6;
constexpr uint32_t kHFSPlusBuilderStartupID = 7;
constexpr uint32_t kHFSPlusBuilderAttributesID = 8;

/** A run of allocation blocks. */
struct HFSPlusBuilderExtent {
    uint32_t startBlock = 0;
    uint32_t blockCount = 0;
    bool operator==(const HFSPlusBuilderExtent&) const = default;
};
using HFSPlusBuilderExtents = std::vector<HFSPlusBuilderExtent>;

/** One fork to build. */
struct HFSPlusBuilderFork {
    HFSPlusBuilderExtents extents;         // in fork order
    std::optional<uint64_t> logicalSize;   // bytes; absent: all blocks of the extents
    uint32_t automaticBlocks = 0;          // not 0: the builder chooses one free extent
    std::optional<std::string> beginning;  // bytes to begin with instead of the pattern

    [[nodiscard]] uint64_t blockCount() const;
    [[nodiscard]] uint64_t size(uint32_t blockSize) const;  // bytes
};

/** A file or folder with records of its own. */
struct HFSPlusBuilderObject {
    std::u16string name;
    uint32_t cnid = 0;  // 0: chosen by the builder
    size_t parent = 0;  // index of the parent folder; the root folder is object 0
    bool isFolder = false;
    uint16_t flags = 0;
    uint16_t fileMode = 0;
    uint32_t special = 0;
    uint32_t fileType = 0;
    uint32_t fileCreator = 0;
    uint16_t finderFlags = 0;
    HFSPlusBuilderFork data;
    HFSPlusBuilderFork resource;
};

/** One of very many files, made when it is asked for and forgotten again. */
struct HFSPlusBuilderBulkFile {
    std::string name;  // UTF-8; names ascend in the order of the catalog
    HFSPlusBuilderFork data;
    HFSPlusBuilderFork resource;
};

/** Makes the @p index-th file of a run of files; called several times, always with one answer. */
using HFSPlusBuilderGenerator = std::function<void(uint64_t index, HFSPlusBuilderBulkFile& file)>;

/** A run of files in one folder with ascending CNIDs. */
struct HFSPlusBuilderBulk {
    size_t folder = 0;  // index of the object
    uint32_t firstCNID = 0;
    uint64_t count = 0;
    HFSPlusBuilderGenerator generator;
};

/** An extended attribute: bytes in its record, or a fork of its own. */
struct HFSPlusBuilderAttribute {
    size_t object = 0;
    uint32_t fileID = 0;  // filled in by the builder
    std::u16string name;
    std::string bytes;
    HFSPlusBuilderFork fork;
    bool hasFork = false;
};

/** The shape of one B-tree. */
struct HFSPlusBuilderTree {
    uint32_t nodeSize = 0;          // bytes; 0: chosen by the builder
    HFSPlusBuilderExtents extents;  // empty: one extent chosen by the builder
    std::optional<uint32_t> freeNodes;
    std::optional<uint32_t> totalNodes;
    uint32_t maximumLeafRecords = std::numeric_limits<uint32_t>::max();
    uint32_t maximumIndexRecords = std::numeric_limits<uint32_t>::max();
    uint32_t loneLeafRecords = 0;  // so many leaves at the front hold one record each
    bool shuffled = false;         // node numbers without order, free nodes in between
};

/** The journal and its info block. */
struct HFSPlusBuilderJournal {
    uint32_t startBlock = 0;  // 0: chosen by the builder
    uint32_t blockCount = 0;  // 0: chosen by the builder
    uint32_t infoBlock = 0;   // 0: chosen by the builder
    uint32_t flags = 1;       // of the info block
    bool littleEndian = true;
    bool blank = false;    // no journal header yet
    bool pending = false;  // start differs from end
};

/** The HFS volume around the volume. */
struct HFSPlusBuilderWrapper {
    uint16_t firstSector = 8;       // drAlBlSt, of 512 bytes
    uint32_t wrapperBlockSize = 0;  // drAlBlkSiz, bytes; 0: chosen by the builder
    uint16_t startBlock = 10;       // of the embedded volume, in wrapper blocks
};

class HFSPlusVolumeBuilderPatcher;
using HFSPlusBuilderDamage = std::function<bool(HFSPlusVolumeBuilderPatcher& patcher)>;

/** Everything a volume is built from. */
struct HFSPlusBuilderSpec {
    uint32_t blockSize = 4096;    // bytes
    uint32_t totalBlocks = 1000;  // allocation blocks
    uint64_t trailingBytes = 0;   // of the volume, behind the last block
    bool hfsx = false;
    bool binaryCompare = false;
    bool contents = true;
    bool unchecked = false;
    bool unmounted = true;
    std::u16string volumeName = u"Untitled";
    std::vector<HFSPlusBuilderObject> objects;
    std::vector<HFSPlusBuilderBulk> bulks;
    std::vector<HFSPlusBuilderAttribute> attributes;
    HFSPlusBuilderExtents badBlocks;
    HFSPlusBuilderExtents allocationExtents;
    HFSPlusBuilderFork startup;
    HFSPlusBuilderTree extentsTree;
    HFSPlusBuilderTree catalogTree;
    HFSPlusBuilderTree attributesTree;
    bool hasAttributesFile = false;
    std::optional<HFSPlusBuilderJournal> journal;
    std::optional<HFSPlusBuilderWrapper> wrapper;
    uint32_t nextCatalogID = 0;  // 0: one above the highest in use
    std::vector<HFSPlusBuilderDamage> damages;
};
