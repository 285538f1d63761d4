// Writes the pages that browser-test opens in a browser: ReportPages FOLDER.

#include <cstdio>
#include <string>

#include "ControlReport.h"
#include "control/SampleFigures.h"

namespace {

ControlReportCells cellsOf(const SampleVolume& volume)
{
    ControlReportCells cells(volume.figures.totalBlocks);
    for (const ControlFile& file : volume.files) {
        cells.addFile(file);
    }
    return cells;
}

bool write(const ControlReport& report, const std::string& path)
{
    std::optional<ControlFailure> failure;
    if (!report.write(path, &failure)) {
        std::fprintf(stderr, "%s\n", failure->message.c_str());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        return 2;
    }
    const std::string folder = argv[1];
    const SampleVolume volume = sampleVolume();
    const ControlReportCells cells = cellsOf(volume);
    const SampleVolume tidy = tidySampleVolume();
    const ControlReportCells tidyCells = cellsOf(tidy);

    const ControlReport single(volume.figures, &cells);
    ControlReport pair(tidy.figures, &tidyCells);
    pair.setBaseline(volume.figures, &cells);
    return write(single, folder + "/single.html") && write(pair, folder + "/pair.html") ? 0 : 1;
}
