#pragma once

#include <array>
#include <cstdint>

#include "support/HFSPlusVolumeCheckerBase.h"
#include "support/HFSPlusVolumeCheckerCatalog.h"
#include "support/HFSPlusVolumeCheckerUsage.h"

/** The volume header with what surrounds it: the wrapper before, the alternate behind. */
class HFSPlusCheckHeader {
public:
    enum class SpecialFile : size_t {
        kAllocation = 112,
        kExtents = 192,
        kCatalog = 272,
        kAttributes = 352,
        kStartup = 432
    };

    HFSPlusCheckHeader(HFSPlusCheckedVolume& volume, HFSPlusCheckResult& result,
                       const HFSPlusCheckOptions& options)
        : _volume(volume), _result(result), _options(options)
    {
    }

    /** Finds and checks the header; false when the volume cannot be looked at any further. */
    [[nodiscard]] bool read();

    /** Compares the alternate header with the header. */
    void checkAlternate();

    /** Checks the journal, if there is one; @p usage is sorted, @p catalog finished. */
    void checkJournal(const HFSPlusCheckUsage& usage, const HFSPlusCheckCatalog& catalog);

    /** The 80 bytes of fork data of @p file. */
    [[nodiscard]] const uint8_t* forkData(SpecialFile file) const
    {
        return _bytes.data() + static_cast<size_t>(file);
    }

private:
    using Bytes = std::array<uint8_t, 512>;

    [[nodiscard]] bool _enterWrapper();
    void _copyFields();
    [[nodiscard]] bool _checkSizes();
    void _checkState();
    [[nodiscard]] bool _isAlternate(const Bytes& bytes) const;
    void _checkJournalPlace(uint64_t start, uint64_t size, const HFSPlusCheckUsage& usage,
                            const HFSPlusCheckCatalog& catalog);
    void _checkJournalHeader(uint64_t offset, uint64_t size, bool mayBeZero);

    HFSPlusCheckedVolume& _volume;
    HFSPlusCheckResult& _result;
    const HFSPlusCheckOptions& _options;
    Bytes _bytes = {};
};
