#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "protocol/ToolProcess.h"
#include "protocol/VolumeImage.h"
#include "support/HFSPlusVolumeBuilder.h"

namespace {

/** Behind the date, the time and the process that every line of the log begins with. */
std::string messageOf(const std::string& line)
{
    const std::string end = "]: ";
    const size_t found = line.find(end);
    return found == std::string::npos ? line : line.substr(found + end.size());
}

/** What the log says of the volume by the time of READY, at the level @p level. */
std::vector<std::string> volumeLines(HFSPlusVolumeBuilder& builder, const std::string& level)
{
    const VolumeImage image(builder);
    ToolProcess process({.program = VZDEFRAG_PROGRAM,
                         .arguments = {image.path()},
                         .environment = {{"KLDebugLevel", level}}});
    EXPECT_EQ(process.readLine(), "READY");
    process.closeInput();
    EXPECT_EQ(process.wait(), 0);

    std::vector<std::string> lines;
    while (const std::optional<std::string> line = process.readErrorLine()) {
        const std::string message = messageOf(*line);
        if (message.starts_with("Volume ")) {
            lines.push_back(message);
        }
    }
    return lines;
}

/** A volume with nothing on it. */
HFSPlusVolumeBuilder emptyVolume(uint32_t blockSize)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(blockSize).totalBlocks(1000);
    return builder;
}

using Lines = std::vector<std::string>;

TEST(LogLines, TheInfoLevelTellsFormatAndSizeInTwoLinesOfOneForm)
{
    HFSPlusVolumeBuilder builder = emptyVolume(4096);

    EXPECT_EQ(volumeLines(builder, "info"),
              (Lines{"Volume info         = HFS Plus (Version = 4), unmounted, read/write",
                     "Volume size         = 3.906MiB (block size = 4KiB, total blocks = 1000, "
                     "free blocks = 978)"}));
}

TEST(LogLines, HFSXAndAJournalAreNamed)
{
    HFSPlusVolumeBuilder builder = emptyVolume(4096);
    builder.hfsx().journal();

    EXPECT_EQ(volumeLines(builder, "info").at(0),
              "Volume info         = HFSX (Version = 5), unmounted, read/write, journaled");
}

TEST(LogLines, BlockSizesAreWholeNumbersOfTheLargestUnitThatFits)
{
    const std::vector<std::pair<uint32_t, std::string>> sizes = {
        {512, "512B"}, {1024, "1KiB"}, {65536, "64KiB"}, {1048576, "1MiB"}};
    for (const auto& [bytes, text] : sizes) {
        HFSPlusVolumeBuilder builder = emptyVolume(bytes);

        EXPECT_NE(volumeLines(builder, "info")
                      .at(1)
                      .find("(block size = " + text + ", total blocks = 1000, "),
                  std::string::npos)
            << volumeLines(builder, "info").at(1);
    }
}

TEST(LogLines, WithoutALevelNothingIsSaid)
{
    HFSPlusVolumeBuilder builder = emptyVolume(4096);

    EXPECT_EQ(volumeLines(builder, ""), Lines{});
}

}  // namespace
