#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "support/HFSPlusVolumeCheckerBase.h"
#include "support/HFSPlusVolumeCheckerTree.h"
#include "support/HFSPlusVolumeCheckerUsage.h"

/** Takes the descriptors in use from the extent record at @p record and appends them to @p extents.
 *
 *  Reports descriptors after an unused one and half-empty ones. Returns how many were in use;
 *  @p blockCount grows by their blocks.
 */
size_t appendCheckedExtents(const uint8_t* record, const char* forkName,
                            HFSPlusCheckProblems& problems,
                            std::vector<HFSPlusCheckedExtent>& extents, uint64_t& blockCount);

/** The records of the extents overflow file, handed out to the forks that they belong to.
 *
 *  Each record is used up by the fork that reaches it; what nobody reached is a problem.
 */
class HFSPlusCheckOverflow final : public HFSPlusCheckLeafVisitor {
public:
    HFSPlusCheckOverflow(const HFSPlusCheckedVolume& volume, HFSPlusCheckUsage& usage)
        : _volume(volume), _usage(usage)
    {
    }

    void visitRecord(std::span<const uint8_t> key, std::span<const uint8_t> data) override;

    /** Puts the records in order; after the tree was walked, before the first fork. */
    void sort();

    /** Checks the 80 bytes of fork data at @p forkData, claims the fork's blocks and returns it. */
    HFSPlusCheckedFork resolve(const uint8_t* forkData, uint32_t cnid, uint8_t forkType,
                               bool isSpecial);

    /** The bad-block file, which has no fork data: empty when there are no such records. */
    HFSPlusCheckedFork resolveBadBlocks();

    /** Reports every record that no fork led to. */
    void reportUnreached();

private:
    struct Record {
        uint32_t fileID;
        uint8_t forkType;
        bool isReached;
        uint32_t startBlock;  // of the fork, not of the volume
        std::array<uint8_t, 64> extents;
    };

    [[nodiscard]] Record* _find(uint32_t fileID, uint8_t forkType, uint64_t startBlock);
    void _appendRecords(HFSPlusCheckedFork& fork, const char* name, uint64_t wantedBlocks,
                        uint64_t& blockCount);
    void _claim(const HFSPlusCheckedFork& fork);

    const HFSPlusCheckedVolume& _volume;
    HFSPlusCheckUsage& _usage;
    std::vector<Record> _records;
};
