#include "ControlReportCells.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "control/SampleFigures.h"

namespace {

using Paths = std::vector<std::string>;

/** With 204,800 blocks a cell of the map shows 100. */
constexpr uint32_t kBlocks = 204800;

Paths pathsOf(const ControlReportCells::Cell& cell)
{
    Paths paths;
    for (const ControlReportCells::File& file : cell.files) {
        paths.push_back(file.path);
    }
    return paths;
}

TEST(ControlReportCells, ACellKeepsTheThreeFilesWithMostBlocksThere)
{
    ControlReportCells cells(kBlocks);

    cells.addFile(sampleFile(20, "/ten", {{1000, 10}}));
    cells.addFile(sampleFile(21, "/thirty", {{1010, 30}}));
    cells.addFile(sampleFile(22, "/five", {{1040, 5}}));
    cells.addFile(sampleFile(23, "/twenty", {{1050, 20}}));
    cells.addFile(sampleFile(24, "/one", {{1099, 1}}));

    const ControlReportCells::Cell& cell = cells.cell(10);
    EXPECT_EQ(pathsOf(cell), (Paths{"/thirty", "/twenty", "/ten"}));
    EXPECT_EQ(cell.files[1].blocks, 20U);
    EXPECT_EQ(cell.fileCount, 5U);
    EXPECT_EQ(cells.cell(9).fileCount, 0U);
    EXPECT_EQ(cells.cell(11).fileCount, 0U);
}

TEST(ControlReportCells, AFileCountsInEachCellOnceWithAllItsBlocks)
{
    ControlReportCells cells(kBlocks);

    cells.addFile(sampleFile(20, "/a", {{1090, 30}, {1000, 5}, {1010, 5}}));

    EXPECT_EQ(cells.cell(10).fileCount, 1U);
    EXPECT_EQ(cells.cell(10).files.at(0).blocks, 20U);
    EXPECT_EQ(cells.cell(11).files.at(0).blocks, 20U);
    EXPECT_EQ(cells.cell(12).fileCount, 0U);
}

TEST(ControlReportCells, ExtentsBeyondTheVolumeAreLeftOut)
{
    ControlReportCells cells(kBlocks);

    cells.addFile(sampleFile(20, "/a", {{kBlocks - 1, 5}, {UINT32_MAX, UINT32_MAX}, {7, 0}}));

    EXPECT_EQ(cells.cell(kControlReportMap.cells() - 1).files.at(0).blocks, 1U);
    EXPECT_EQ(cells.cell(0).fileCount, 0U);
    ControlReportCells none(0);
    none.addFile(sampleFile(20, "/a", {{0, 5}}));
    EXPECT_EQ(none.cell(0).fileCount, 0U);
}

TEST(ControlReportCells, CellsThatShowTheSameBlocksKnowTheSameFiles)
{
    ControlReportCells cells(1024);

    cells.addFile(sampleFile(20, "/a", {{500, 1}}));

    EXPECT_EQ(pathsOf(cells.cell(1000)), Paths{"/a"});
    EXPECT_EQ(pathsOf(cells.cell(1001)), Paths{"/a"});
    EXPECT_EQ(pathsOf(cells.cell(999)), Paths{});
    EXPECT_EQ(pathsOf(cells.cell(1002)), Paths{});
}

TEST(ControlReportCells, CellsAreThoseOfTheMap)
{
    // With this size the map's cells are not all of one length.
    const SampleVolume volume = volumeOfFiles(70000, {sampleFile(20, "/a", {{2000, 60000}})});
    ControlReportCells cells(70000);

    cells.addFile(volume.files[0]);

    const auto counts = volume.figures.map.cells(kControlReportMap.cells());
    for (size_t index = 0; index < counts.size(); index++) {
        const ControlReportCells::Cell& cell = cells.cell(index);
        EXPECT_EQ(cell.files.empty() ? 0 : cell.files[0].blocks,
                  counts[index].of(ControlKind::kUsed) + counts[index].of(ControlKind::kFragmented))
            << index;
    }
}

TEST(ControlReportCells, ShortenedPathsKeepBothEndsAndTheirBound)
{
    EXPECT_EQ(shortenedForMarkup("/short", 48), "/short");
    const std::string path = "/Users/" + std::string(300, 'x') + "/name.txt";
    EXPECT_EQ(shortenedForMarkup(path, 48).substr(0, 7), "/Users/");
    EXPECT_TRUE(shortenedForMarkup(path, 48).ends_with("/name.txt"));
    for (const char* character : {"<", "\x01", "\xFF", "\xE2\x80\xAE", "\xCC\x81",
                                  "\xF0\x9F\x98\x80", "\\", "&", "x", "\xE5\xA4\xA7"}) {
        std::string name;
        for (int count = 0; count < 5000; count++) {
            name += character;
        }
        for (const size_t limit : {size_t{48}, size_t{112}, size_t{400}}) {
            const std::string shortened = shortenedForMarkup(name, limit);
            EXPECT_FALSE(shortened.empty()) << character;
            EXPECT_LE(escapedForMarkup(shortened).size(), limit) << character;
        }
    }
}

}  // namespace
