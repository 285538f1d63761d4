#include "ControlInfoText.h"

#include <gtest/gtest.h>

#include <clocale>
#include <sstream>
#include <string>
#include <vector>

#include "control/SampleFigures.h"

namespace {

/** A volume of 1000 blocks: 20 of its own, a file in pieces and one that is whole. */
ControlFigures smallFigures()
{
    return volumeOfFiles(1000, {sampleFile(20, "/pieces", {{20, 10}, {40, 5}, {50, 1}}),
                                sampleFile(21, "/whole", {{100, 100}})})
        .figures;
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(ControlInfoText, ShowsEveryFigureInAlignedLines)
{
    EXPECT_EQ(controlInfoText(smallFigures(), ControlCharacters::kASCII, 80),
              "/images/sample.img\n"
              "\n"
              "Volume\n"
              "  Format              HFS Plus, journaled\n"
              "  Size                3.91 MiB in 1,000 blocks of 4.00 KiB\n"
              "  In use              136 blocks, 544 KiB (13.6%)\n"
              "  Files               2 in 116 blocks, 464 KiB\n"
              "  Own structures      20 blocks, 80.0 KiB\n"
              "\n"
              "Fragmentation\n"
              "  Files in pieces     1 of 2 (50.0%)\n"
              "  Forks in pieces     1\n"
              "  Extents             4\n"
              "  Blocks in pieces    16 of 116 (13.8%)\n"
              "\n"
              "Free space\n"
              "  Free                864 blocks, 3.38 MiB (86.4%)\n"
              "  Free runs           4\n"
              "  Largest run         800 blocks, 3.12 MiB\n"
              "\n"
              "  Run of blocks  Runs  Blocks\n"
              "              1     0       0\n"
              "            2-3     0       0\n"
              "            4-7     1       5  #\n"
              "           8-15     1      10  #\n"
              "          16-31     0       0\n"
              "          32-63     1      49  ##\n"
              "         64-127     0       0\n"
              "        128-255     0       0\n"
              "        256-511     0       0\n"
              "      512-1,023     1     800  ##############################\n"
              "\n"
              "Worst files\n"
              "  Extents  Blocks      Size  Path\n"
              "        3      16  64.0 KiB  /pieces\n"
              "        1     100   400 KiB  /whole\n"
              "\n"
              "Readiness\n"
              "  Defragmenting and compacting may fail here: they need about 32.0 MiB of free\n"
              "  space, twice the buffer that they copy with, and only 3.38 MiB are free. A run\n"
              "  that ends for lack of free space can leave files in more pieces than before.\n");
}

TEST(ControlInfoText, LinesFitTheColumns)
{
    std::setlocale(LC_ALL, "C.UTF-8");
    for (const size_t columns : {size_t{60}, size_t{80}, size_t{200}}) {
        for (const auto characters : {ControlCharacters::kASCII, ControlCharacters::kUnicode}) {
            for (const std::string& line :
                 linesOf(controlInfoText(sampleVolume().figures, characters, columns))) {
                EXPECT_LE(cellsOf(line), columns) << line;
            }
        }
    }
}

TEST(ControlInfoText, ATerminalOfNoWidthStillGetsAllFigures)
{
    const std::string text =
        controlInfoText(sampleVolume().figures, ControlCharacters::kUnicode, 0);

    EXPECT_NE(text.find("Largest run"), std::string::npos);
    EXPECT_EQ(text.find("█"), std::string::npos);
}

TEST(ControlInfoText, NamesCannotReachTheTerminalAsTheyAre)
{
    ControlFigures figures = smallFigures();
    figures.worst = {sampleFile(20, "/\x1B[2J\n\xE2\x80\xAE\xFF", {{20, 1}})};
    figures.image = "/tmp/\x1B[2J.img";

    const std::string text = controlInfoText(figures, ControlCharacters::kUnicode, 80);

    EXPECT_EQ(text.find('\x1B'), std::string::npos);
    EXPECT_NE(text.find("  /\\x1B[2J\\x0A\\u{202E}\\xFF\n"), std::string::npos) << text;
    EXPECT_TRUE(text.starts_with("/tmp/\\x1B[2J.img\n"));
}

TEST(ControlInfoText, ARangeOfForksIsShownAsOne)
{
    ControlFigures figures = smallFigures();
    figures.fragmentation.mostForks = 1200;

    EXPECT_NE(controlInfoText(figures, ControlCharacters::kASCII, 80)
                  .find("  Forks in pieces     1 to 1,200\n"),
              std::string::npos);
}

TEST(ControlInfoText, EnoughFreeSpaceIsToldToBe)
{
    ControlFigures figures = smallFigures();
    figures.readiness = {.neededBlocks = 256, .isEnough = true};

    EXPECT_EQ(controlReadinessText(figures),
              "Defragmenting and compacting can work here: they need about 1.00 MiB of free space, "
              "and 3.38 MiB are free.");
}

TEST(ControlInfoText, AFullVolumeHasNoHistogram)
{
    const ControlFigures full = volumeOfFiles(10, {sampleFile(20, "/all", {{1, 9}})}).figures;

    const std::string text = controlInfoText(full, ControlCharacters::kASCII, 80);

    EXPECT_EQ(text.find("Run of blocks"), std::string::npos);
    EXPECT_NE(text.find("  Largest run         0 blocks, 0 B\n"), std::string::npos) << text;
}

TEST(ControlInfoText, AComparisonShowsTheDifferences)
{
    const ControlFigures before = smallFigures();
    ControlFigures after = before;
    after.fragmentation = {.files = 0,
                           .leastForks = 0,
                           .mostForks = 0,
                           .extents = 2,
                           .fragmentedBlocks = 0,
                           .consideredBlocks = 116,
                           .percent = 0};
    after.freeSpace.runs = 1;
    after.freeSpace.largestRun = 864;

    EXPECT_EQ(controlComparisonText(before, after),
              "                       Before  After  Change\n"
              "  Files                     2      2       0\n"
              "  Files in pieces           1      0      -1\n"
              "  Forks in pieces           1      0      -1\n"
              "  Extents                   4      2      -2\n"
              "  Blocks in pieces         16      0     -16\n"
              "  Percent in pieces        13      0     -13\n"
              "  Free blocks             864    864       0\n"
              "  Free runs                 4      1      -3\n"
              "  Largest run, blocks     800    864     +64\n");
}

}  // namespace
