#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "support/HFSPlusVolumeBuilderPlan.h"
#include "support/HFSPlusVolumeBuilderRecords.h"
#include "support/SparseSink.h"

/** Writes a settled volume, every part straight from the plan into the sink. */
class HFSPlusVolumeBuilderWriter {
public:
    HFSPlusVolumeBuilderWriter(const HFSPlusVolumeBuilderPlan& plan, SparseSink& sink);

    /** Writes all; false when the sink refuses. */
    [[nodiscard]] bool write();

    /** Writes @p bytes into the blocks of @p extents, from byte @p forkOffset of the fork on. */
    [[nodiscard]] bool writeFork(const HFSPlusBuilderExtents& extents, uint64_t forkOffset,
                                 std::span<const uint8_t> bytes);

private:
    [[nodiscard]] bool _writeHeaders();
    [[nodiscard]] bool _writeWrapper();
    [[nodiscard]] bool _writeBitmap();
    [[nodiscard]] bool _writeCatalog();
    [[nodiscard]] bool _writeAttributes();
    [[nodiscard]] bool _writeExtents();
    [[nodiscard]] bool _writeJournal();
    [[nodiscard]] bool _writeContents(uint32_t cnid, uint8_t forkType,
                                      const HFSPlusBuilderFork& fork);
    [[nodiscard]] uint32_t _attributes() const;
    [[nodiscard]] bool _writeAt(uint64_t volumeOffset, std::span<const uint8_t> bytes);

    const HFSPlusVolumeBuilderPlan& _plan;
    const HFSPlusBuilderSpec& _spec;
    SparseSink& _sink;
    std::vector<uint8_t> _buffer;  // for contents
};
