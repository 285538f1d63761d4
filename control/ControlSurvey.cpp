#include "ControlSurvey.h"

#include <unistd.h>

#include <algorithm>
#include <tuple>
#include <utility>

#include "ControlFreeSpaceReader.h"

namespace {

using Kind = ControlRecord::Kind;

// The copy buffer of vzdefrag.
constexpr uint64_t kLargestBuffer = uint64_t{64} << 20;
constexpr uint64_t kMemoryPerBuffer = 16;

uint64_t physicalMemory()
{
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    return pages > 0 && pageSize > 0
               ? static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize)
               : 0;
}

bool failForAnswer(ControlErrorSlot error, const std::string& command)
{
    return ControlFail(error, ControlStatus::kToolFailed,
                       "vzdefrag's answer to " + command + " is not whole.");
}

/** Whether @p file is one of those that the journal lives in, which never move. */
bool isJournalFile(const ControlFile& file)
{
    return file.path == "/.journal" || file.path == "/.journal_info_block";
}

}  // namespace

bool comesBefore(const ControlFile& one, const ControlFile& other, ControlSort sort)
{
    if (sort == ControlSort::kExtents && one.extents.size() != other.extents.size()) {
        return one.extents.size() > other.extents.size();
    }
    if (sort != ControlSort::kName) {
        const uint64_t blocks = one.blockCount();
        const uint64_t otherBlocks = other.blockCount();
        if (blocks != otherBlocks) {
            return blocks > otherBlocks;
        }
    }
    return std::tie(one.path, one.fileID) < std::tie(other.path, other.fileID);
}

ControlSurvey::ControlSurvey(Settings settings) : _settings(std::move(settings)) {}

bool ControlSurvey::run(ControlSession& session, ControlFigures& figures, ControlErrorSlot error)
{
    figures = {};
    figures.image = _settings.image;
    figures.format = session.facts().format;
    figures.isJournaled = session.facts().isJournaled;
    figures.blockSize = session.facts().blockSize;
    figures.totalBlocks = session.facts().totalBlocks;
    figures.map = ControlMap(figures.totalBlocks);
    if (!_readBitmap(session, figures, error) || !_readFragmentation(session, figures, error) ||
        !_readFragmentedFiles(session, error) || !_readFiles(session, figures, error)) {
        return false;
    }
    figures.readiness = readinessOf(figures, physicalMemory());
    return true;
}

bool ControlSurvey::_readBitmap(ControlSession& session, ControlFigures& figures,
                                ControlErrorSlot error)
{
    ControlFreeSpaceReader reader(figures.map, figures.freeSpace);
    bool isWhole = true;
    const auto handle = [&](const ControlRecord& record) {
        if (record.kind == Kind::kBitmapData) {
            isWhole = isWhole && reader.addDigits(record.text);
        } else if (record.kind == Kind::kFirstUnused) {
            figures.firstFreeBlock = static_cast<uint32_t>(record.numbers[0]);
        } else if (record.kind == Kind::kLastUsed) {
            figures.lastUsedBlock = static_cast<uint32_t>(record.numbers[0]);
        }
    };
    if (!session.run("BITMAP 1", handle, error)) {
        return false;
    }
    return (isWhole && reader.finish()) || failForAnswer(error, "BITMAP");
}

bool ControlSurvey::_readFragmentation(ControlSession& session, ControlFigures& figures,
                                       ControlErrorSlot error)
{
    ControlFragmentation& fragmentation = figures.fragmentation;
    bool isThere = false;
    const auto handle = [&](const ControlRecord& record) {
        if (record.kind == Kind::kFragmentation) {
            isThere = true;
            fragmentation.fragmentedBlocks = static_cast<uint32_t>(record.numbers[0]);
            fragmentation.consideredBlocks = static_cast<uint32_t>(record.numbers[1]);
        }
    };
    if (!session.run("FRAGINFO", handle, error)) {
        return false;
    }
    // The percentage in the record is wrong from 42,949,673 blocks on.
    fragmentation.percent =
        static_cast<uint32_t>(uint64_t{fragmentation.fragmentedBlocks} * 100 /
                              std::max<uint32_t>(fragmentation.consideredBlocks, 1));
    return isThere || failForAnswer(error, "FRAGINFO");
}

bool ControlSurvey::_readFragmentedFiles(ControlSession& session, ControlErrorSlot error)
{
    _fragmentedPairs.clear();
    const auto handle = [&](const ControlRecord& record) {
        if (record.kind == Kind::kFile && record.file.extents.size() == 2) {
            _fragmentedPairs.insert(record.file.fileID);
        }
    };
    return session.run("SCAN --frag-only", handle, error);
}

bool ControlSurvey::_readFiles(ControlSession& session, ControlFigures& figures,
                               ControlErrorSlot error)
{
    ControlFile file;
    const auto handle = [&](const ControlRecord& record) {
        if (record.kind == Kind::kFile) {
            file = record.file;
            _addFile(file, figures);
        }
    };
    if (!session.run("SCAN -f", handle, error)) {
        return false;
    }
    std::ranges::sort(figures.worst, [&](const ControlFile& one, const ControlFile& other) {
        return comesBefore(one, other, _settings.sort);
    });
    return true;
}

void ControlSurvey::_addFile(ControlFile& file, ControlFigures& figures)
{
    const size_t extents = file.extents.size();
    file.isFragmented = extents > 2 || (extents == 2 && _fragmentedPairs.contains(file.fileID));
    figures.fileCount++;
    figures.fileBlocks += file.blockCount();
    figures.fragmentation.extents += extents;
    if (file.isFragmented) {
        figures.fragmentation.files++;
        figures.fragmentation.leastForks++;
        figures.fragmentation.mostForks += extents < 4 ? 1 : 2;
    }
    if (!isJournalFile(file)) {
        const ControlKind kind = file.isFragmented ? ControlKind::kFragmented : ControlKind::kUsed;
        for (const ControlExtent& extent : file.extents) {
            figures.map.change(extent.start, extent.count, ControlKind::kFixed, kind);
        }
    }
    _keepIfWorst(file, figures.worst);
    for (ControlFileSink* const sink : _settings.sinks) {
        sink->addFile(file);
    }
}

void ControlSurvey::_keepIfWorst(const ControlFile& file, std::vector<ControlFile>& worst) const
{
    // A heap with the least bad file at its front.
    const auto order = [&](const ControlFile& one, const ControlFile& other) {
        return comesBefore(one, other, _settings.sort);
    };
    if (worst.size() == _settings.top) {
        if (worst.empty() || !order(file, worst.front())) {
            return;
        }
        std::ranges::pop_heap(worst, order);
        worst.pop_back();
    }
    worst.push_back(file);
    std::ranges::push_heap(worst, order);
}

ControlReadiness readinessOf(const ControlFigures& figures, uint64_t memory)
{
    const uint64_t buffer = std::min(kLargestBuffer, memory / kMemoryPerBuffer);
    const uint64_t bufferBlocks = figures.blockSize == 0 ? 0 : buffer / figures.blockSize;
    const uint64_t movable = figures.fileBlocks + figures.freeSpace.blocks;
    // The zone at the front, and room to put what lies there.
    const uint64_t needed = 2 * std::min(bufferBlocks, movable);
    return {.neededBlocks = needed, .isEnough = figures.freeSpace.blocks >= needed};
}
