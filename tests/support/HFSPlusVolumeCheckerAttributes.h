#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "support/HFSPlusVolumeCheckerBase.h"
#include "support/HFSPlusVolumeCheckerCatalog.h"
#include "support/HFSPlusVolumeCheckerTree.h"
#include "support/HFSPlusVolumeCheckerUsage.h"

/** Checks the records of the attributes file and claims the blocks of attributes with forks.
 *
 *  The extents of an attribute follow its fork record in the tree, so one fork is open at a time.
 */
class HFSPlusCheckAttributes final : public HFSPlusCheckLeafVisitor {
public:
    HFSPlusCheckAttributes(const HFSPlusCheckedVolume& volume, HFSPlusCheckUsage& usage,
                           HFSPlusCheckResult& result)
        : _volume(volume), _usage(usage), _result(result)
    {
    }

    void visitRecord(std::span<const uint8_t> key, std::span<const uint8_t> data) override;

    /** Ends the last fork and compares the owners with @p catalog; after the walk. */
    void finish(const HFSPlusCheckCatalog& catalog);

private:
    void _visitFork(std::span<const uint8_t> key, std::span<const uint8_t> data);
    void _visitExtents(std::span<const uint8_t> key, std::span<const uint8_t> data);
    [[nodiscard]] bool _isSameAttribute(std::span<const uint8_t> key) const;
    void _endFork();

    const HFSPlusCheckedVolume& _volume;
    HFSPlusCheckUsage& _usage;
    HFSPlusCheckResult& _result;
    std::vector<uint32_t> _owners;  // ascending, each once
    std::vector<uint8_t> _openKey;  // of the fork whose extents may follow; empty for none
    HFSPlusCheckedFork _open;
    uint64_t _openBlockCount = 0;
    size_t _openLastUsed = 0;  // descriptors in use in its last record
};
