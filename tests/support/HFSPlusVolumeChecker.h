#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/HFSPlusVolumeCheckerReader.h"

constexpr uint8_t kHFSPlusCheckDataFork = 0x00;
constexpr uint8_t kHFSPlusCheckResourceFork = 0xFF;

/** A run of allocation blocks. */
struct HFSPlusCheckedExtent {
    uint32_t startBlock = 0;
    uint32_t blockCount = 0;

    bool operator==(const HFSPlusCheckedExtent&) const = default;
};

/** One fork as the volume describes it, the overflow extents included. */
struct HFSPlusCheckedFork {
    uint32_t cnid = 0;
    uint8_t forkType = kHFSPlusCheckDataFork;
    bool isSpecial = false;                     // from the volume header, or the bad-block file
    uint64_t logicalSize = 0;                   // bytes
    uint32_t totalBlocks = 0;                   // as its fork data say
    std::vector<HFSPlusCheckedExtent> extents;  // in fork order, as far as they could be found

    bool operator==(const HFSPlusCheckedFork&) const = default;
};

/** The numbers of a tree's header record; all 0 when the volume has no such tree. */
struct HFSPlusCheckedTree {
    uint32_t nodeSize = 0;  // bytes
    uint32_t treeDepth = 0;
    uint32_t rootNode = 0;
    uint32_t leafRecords = 0;
    uint32_t firstLeafNode = 0;
    uint32_t lastLeafNode = 0;
    uint32_t totalNodes = 0;
    uint32_t freeNodes = 0;

    bool operator==(const HFSPlusCheckedTree&) const = default;
};

/** What a check is to demand and to keep. */
struct HFSPlusCheckOptions {
    bool collectForks = true;      // off: result.forks stays empty, for volumes of millions
    bool demandsUnmounted = true;  // the unmounted bit must be set and the inconsistent bit clear
    bool demandsEmptyJournal = true;  // off: transactions may wait in a journal
    bool demandsAlternate = true;     // off: the alternate header may be missing or stale
    size_t problemLimit = 200;        // more are counted, not listed
};

/** The verdict on a volume, and what was found on the way. */
struct HFSPlusCheckResult {
    bool consistent = false;
    std::vector<std::string> problems;  // one sentence each; empty when consistent

    // From the volume header.
    uint64_t volumeOffset = 0;  // bytes; not 0 inside a wrapper
    uint64_t volumeSize = 0;    // bytes
    uint16_t signature = 0;
    uint32_t attributes = 0;
    uint32_t journalInfoBlock = 0;
    uint32_t fileCount = 0;
    uint32_t folderCount = 0;
    uint32_t blockSize = 0;
    uint32_t totalBlocks = 0;
    uint32_t freeBlocks = 0;
    uint32_t nextAllocation = 0;
    uint32_t nextCatalogID = 0;
    uint32_t writeCount = 0;
    uint32_t modifyDate = 0;

    HFSPlusCheckedTree catalog;
    HFSPlusCheckedTree extents;
    HFSPlusCheckedTree attributesTree;

    /** Every fork: special files first (by CNID), then the bad-block file, then the catalog's in
     *  catalog order. Files appear with their data fork, even an empty one, and with their resource
     *  fork where it has bytes or blocks.
     */
    std::vector<HFSPlusCheckedFork> forks;

    /** The forks of extended attributes; cnid is the owner. Nothing may move them. */
    std::vector<HFSPlusCheckedFork> attributeForks;

    /** The fork of that kind, or null. Looks through all of them. */
    [[nodiscard]] const HFSPlusCheckedFork* forkWithCNID(
        uint32_t cnid, uint8_t forkType = kHFSPlusCheckDataFork) const;

    /** The problems, one on a line: what a failing assertion prints. */
    [[nodiscard]] std::string description() const;
};

/** Proves the volume that @p reader holds consistent, or says what is wrong with it.
 *
 *  Knows the format by itself and shares no code with the program. Any bytes are taken: damage
 *  ends in problems, never in a crash or an endless walk.
 */
[[nodiscard]] HFSPlusCheckResult checkHFSPlusVolume(HFSPlusCheckReader& reader,
                                                    const HFSPlusCheckOptions& options = {});

/** SHA-256 in lower-case hexadecimal, by CNID and fork type. */
using HFSPlusForkHashes = std::map<std::pair<uint32_t, uint8_t>, std::string>;

/** What hashForks reads of each fork. */
struct HFSPlusHashOptions {
    bool hashBlocks = false;      // all blocks, not only the logicalSize bytes
    bool includeSpecial = false;  // the special files and the bad blocks as well
};

/** Hashes the content of one fork; "unreadable" when its extents do not reach or cannot be read. */
[[nodiscard]] std::string hashFork(HFSPlusCheckReader& reader, const HFSPlusCheckResult& result,
                                   const HFSPlusCheckedFork& fork, bool hashBlocks = false);

/** Hashes every fork of @p result. */
[[nodiscard]] HFSPlusForkHashes hashForks(HFSPlusCheckReader& reader,
                                          const HFSPlusCheckResult& result,
                                          const HFSPlusHashOptions& options = {});

/** The hashes that the manifest at @p path gives; nothing when it is missing or not whole. */
[[nodiscard]] std::optional<HFSPlusForkHashes> loadManifest(const std::string& path);

std::ostream& operator<<(std::ostream& stream, const HFSPlusCheckedExtent& extent);
std::ostream& operator<<(std::ostream& stream, const HFSPlusCheckedFork& fork);
