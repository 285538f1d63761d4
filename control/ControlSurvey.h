#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "ControlFigures.h"
#include "ControlFileSink.h"
#include "ControlSession.h"

/** Which of two files is the worse one. */
enum class ControlSort { kExtents, kBlocks, kName };

/** Whether @p one comes before @p other in the list of the worst files. */
[[nodiscard]] bool comesBefore(const ControlFile& one, const ControlFile& other, ControlSort sort);

/** Asks vzdefrag for all that is to be known about a volume. Memory does not grow with the files.
 */
class ControlSurvey {
public:
    struct Settings {
        std::string image;
        size_t top = 10;  // how many of the worst files to keep
        ControlSort sort = ControlSort::kExtents;
        std::vector<ControlFileSink*> sinks = {};  // get every file; not owned
    };

    explicit ControlSurvey(Settings settings);

    /** Asks @p session, and writes what it says to @p figures. */
    [[nodiscard]] bool run(ControlSession& session, ControlFigures& figures,
                           ControlErrorSlot error);

private:
    [[nodiscard]] bool _readBitmap(ControlSession& session, ControlFigures& figures,
                                   ControlErrorSlot error);
    [[nodiscard]] bool _readFragmentation(ControlSession& session, ControlFigures& figures,
                                          ControlErrorSlot error);
    [[nodiscard]] bool _readFragmentedFiles(ControlSession& session, ControlErrorSlot error);
    [[nodiscard]] bool _readFiles(ControlSession& session, ControlFigures& figures,
                                  ControlErrorSlot error);
    void _addFile(ControlFile& file, ControlFigures& figures);
    void _keepIfWorst(const ControlFile& file, std::vector<ControlFile>& worst) const;

    Settings _settings;
    // Files with two extents that SCAN calls fragmented. With fewer none is, with more each one:
    // a file has only two forks.
    std::unordered_set<uint32_t> _fragmentedPairs;
};

/** What DEFRAG and COMPACT need on a volume with @p figures, on a machine with @p memory bytes. */
[[nodiscard]] ControlReadiness readinessOf(const ControlFigures& figures, uint64_t memory);
