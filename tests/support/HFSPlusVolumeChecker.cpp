#include "support/HFSPlusVolumeChecker.h"

#include <ostream>

#include "support/HFSPlusVolumeCheckerAttributes.h"
#include "support/HFSPlusVolumeCheckerBase.h"
#include "support/HFSPlusVolumeCheckerCatalog.h"
#include "support/HFSPlusVolumeCheckerHeader.h"
#include "support/HFSPlusVolumeCheckerKeys.h"
#include "support/HFSPlusVolumeCheckerOverflow.h"
#include "support/HFSPlusVolumeCheckerTree.h"
#include "support/HFSPlusVolumeCheckerUsage.h"

namespace {

constexpr uint32_t kHasBadBlocks = 0x00000200;
constexpr uint64_t kKeyCompareTypeOffset = 51;
constexpr uint8_t kFoldingCompare = 0xCF;
constexpr uint8_t kBinaryCompare = 0xBC;

/** One run of the checker: the order in which the parts look at the volume. */
class VolumeCheck {
public:
    VolumeCheck(HFSPlusCheckReader& reader, const HFSPlusCheckOptions& options)
        : _options(options),
          _problems(_result.problems, options.problemLimit),
          _volume{.reader = reader, .problems = _problems},
          _header(_volume, _result, options),
          _usage(_volume),
          _overflow(_volume, _usage),
          _catalog(_volume, _overflow, _result, options.collectForks),
          _attributes(_volume, _usage, _result)
    {
    }

    HFSPlusCheckResult run()
    {
        if (_header.read()) {
            _header.checkAlternate();
            _usage.addReserved();
            _checkSpecialFiles();
            _checkTrees();
            _checkBlocks();
        }
        _problems.finish();
        _result.consistent = _problems.count() == 0;
        return std::move(_result);
    }

private:
    using SpecialFile = HFSPlusCheckHeader::SpecialFile;

    HFSPlusCheckedFork _resolve(SpecialFile file, uint32_t cnid)
    {
        return _overflow.resolve(_header.forkData(file), cnid, kHFSPlusCheckDataFork, true);
    }

    /** The overflow records come first: every other fork may need them. */
    void _checkSpecialFiles()
    {
        _extentsFile = _resolve(SpecialFile::kExtents, 3);
        _result.extents = _checkTree(HFSPlusCheckExtentsKeyRule(), _extentsFile, _overflow);
        _overflow.sort();
        _catalogFile = _resolve(SpecialFile::kCatalog, 4);
        _allocationFile = _resolve(SpecialFile::kAllocation, 6);
        HFSPlusCheckedFork startupFile = _resolve(SpecialFile::kStartup, 7);
        _attributesFile = _resolve(SpecialFile::kAttributes, 8);
        HFSPlusCheckedFork badBlocks = _overflow.resolveBadBlocks();
        if (((_volume.attributes & kHasBadBlocks) != 0) != (badBlocks.totalBlocks > 0)) {
            _problems.report("attributes 0x%08X and %u bad blocks do not agree", _volume.attributes,
                             badBlocks.totalBlocks);
        }
        if (!_options.collectForks) {
            return;
        }
        for (const HFSPlusCheckedFork* fork : {&_extentsFile, &_catalogFile, &_allocationFile,
                                               &startupFile, &_attributesFile, &badBlocks}) {
            if (fork->totalBlocks > 0) {
                _result.forks.push_back(*fork);
            }
        }
    }

    void _checkTrees()
    {
        const HFSPlusCheckCatalogKeyRule rule(_catalogIsBinary());
        _result.catalog = _checkTree(rule, _catalogFile, _catalog);
        _catalog.finish();
        if (_attributesFile.totalBlocks > 0) {
            _result.attributesTree =
                _checkTree(HFSPlusCheckAttributesKeyRule(), _attributesFile, _attributes);
        }
        _attributes.finish(_catalog);
    }

    void _checkBlocks()
    {
        _overflow.reportUnreached();
        _usage.checkOverlaps();
        const uint32_t clearCount = _usage.checkBitmap(_allocationFile);
        if (clearCount != _result.freeBlocks) {
            _problems.report("freeBlocks is %u, the bitmap has %u clear bits", _result.freeBlocks,
                             clearCount);
        }
        _header.checkJournal(_usage, _catalog);
    }

    HFSPlusCheckedTree _checkTree(const HFSPlusCheckKeyRule& rule, const HFSPlusCheckedFork& fork,
                                  HFSPlusCheckLeafVisitor& visitor)
    {
        HFSPlusCheckTree tree(_volume, rule, fork);
        tree.check(visitor);
        return tree.header();
    }

    bool _catalogIsBinary()
    {
        uint8_t type = 0;
        HFSPlusCheckForkStream stream(_volume, _catalogFile);
        if (!_volume.isHFSX || !stream.read(&type, 1, kKeyCompareTypeOffset)) {
            return false;  // an unreadable header record is reported with the tree
        }
        if (type != kFoldingCompare && type != kBinaryCompare) {
            _problems.report("the catalog's keyCompareType is 0x%02X", type);
        }
        return type == kBinaryCompare;
    }

    const HFSPlusCheckOptions& _options;
    HFSPlusCheckResult _result;
    HFSPlusCheckProblems _problems;
    HFSPlusCheckedVolume _volume;
    HFSPlusCheckHeader _header;
    HFSPlusCheckUsage _usage;
    HFSPlusCheckOverflow _overflow;
    HFSPlusCheckCatalog _catalog;
    HFSPlusCheckAttributes _attributes;
    HFSPlusCheckedFork _extentsFile;
    HFSPlusCheckedFork _catalogFile;
    HFSPlusCheckedFork _allocationFile;
    HFSPlusCheckedFork _attributesFile;
};

}  // namespace

HFSPlusCheckResult checkHFSPlusVolume(HFSPlusCheckReader& reader,
                                      const HFSPlusCheckOptions& options)
{
    return VolumeCheck(reader, options).run();
}

const HFSPlusCheckedFork* HFSPlusCheckResult::forkWithCNID(uint32_t cnid, uint8_t forkType) const
{
    for (const HFSPlusCheckedFork& fork : forks) {
        if (fork.cnid == cnid && fork.forkType == forkType) {
            return &fork;
        }
    }
    return nullptr;
}

std::string HFSPlusCheckResult::description() const
{
    if (consistent) {
        return "consistent";
    }
    std::string text;
    for (const std::string& problem : problems) {
        text += problem + "\n";
    }
    return text;
}

std::ostream& operator<<(std::ostream& stream, const HFSPlusCheckedExtent& extent)
{
    return stream << extent.startBlock << "+" << extent.blockCount;
}

std::ostream& operator<<(std::ostream& stream, const HFSPlusCheckedFork& fork)
{
    stream << checkedForkName(fork.cnid, fork.forkType) << ": " << fork.logicalSize << " bytes in "
           << fork.totalBlocks << " blocks";
    for (const HFSPlusCheckedExtent& extent : fork.extents) {
        stream << " " << extent;
    }
    return stream;
}
