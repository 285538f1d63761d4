#include "ControlFreeSpaceReader.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

/** A volume's map and free space, filled by a reader. */
struct Read {
    ControlMap map;
    ControlFreeSpace freeSpace = {};
    bool isWhole = false;
};

Read readDigits(uint32_t totalBlocks, const std::vector<std::string>& pieces)
{
    Read read{.map = ControlMap(totalBlocks)};
    ControlFreeSpaceReader reader(read.map, read.freeSpace);
    bool isGood = true;
    for (const std::string& piece : pieces) {
        isGood = isGood && reader.addDigits(piece);
    }
    read.isWhole = reader.finish() && isGood;
    return read;
}

TEST(ControlFreeSpaceReader, RunsGoOnAcrossDigitsAndPieces)
{
    // 1111 1000 | 0000 0001 | 1000 0000
    const Read read = readDigits(24, {"F8", "01", "80"});

    EXPECT_TRUE(read.isWhole);
    EXPECT_EQ(read.freeSpace.blocks, 17U);
    EXPECT_EQ(read.freeSpace.runs, 2U);
    EXPECT_EQ(read.freeSpace.largestRun, 10U);
    EXPECT_EQ(read.freeSpace.classes[3].runs, 1U);  // 8 to 15
    EXPECT_EQ(read.freeSpace.classes[3].blocks, 10U);
    EXPECT_EQ(read.freeSpace.classes[2].blocks, 7U);  // 4 to 7
    EXPECT_EQ(read.map.totals().of(ControlKind::kFixed), 7U);
}

TEST(ControlFreeSpaceReader, BitsBehindTheLastBlockDoNotCount)
{
    const Read read = readDigits(9, {"FF00"});

    EXPECT_TRUE(read.isWhole);
    EXPECT_EQ(read.freeSpace.blocks, 1U);
    EXPECT_EQ(read.freeSpace.runs, 1U);
}

TEST(ControlFreeSpaceReader, MissingTooManyAndWrongDigitsAreFound)
{
    EXPECT_FALSE(readDigits(16, {"FF0"}).isWhole);
    EXPECT_FALSE(readDigits(16, {"FF00", "0"}).isWhole);
    EXPECT_FALSE(readDigits(16, {"FF0G"}).isWhole);
    EXPECT_FALSE(readDigits(16, {"ff00"}).isWhole);
    EXPECT_TRUE(readDigits(16, {"FF00"}).isWhole);
}

TEST(ControlFreeSpaceReader, AnyBitmapIsReadAsAPlainCountOfItsBits)
{
    std::minstd_rand generator(5);
    const auto random = [&] { return static_cast<uint32_t>(generator()); };
    for (int round = 0; round < 200; round++) {
        const uint32_t blocks = 1 + random() % 300;
        std::vector<bool> used((blocks + 7) / 8 * 8);
        std::string digits;
        for (size_t block = 0; block < used.size(); block += 4) {
            const unsigned value = random() % 3 == 0 ? 0xF : random() % 2 == 0 ? 0 : random() % 16;
            digits += "0123456789ABCDEF"[value];
            for (unsigned bit = 0; bit < 4; bit++) {
                used[block + bit] = (value & (8U >> bit)) != 0;
            }
        }
        uint64_t free = 0;
        uint64_t runs = 0;
        for (uint32_t block = 0; block < blocks; block++) {
            free += used[block] ? 0 : 1;
            runs += !used[block] && (block == 0 || used[block - 1]) ? 1 : 0;
        }

        const Read read = readDigits(blocks, {digits});

        EXPECT_TRUE(read.isWhole);
        EXPECT_EQ(read.freeSpace.blocks, free) << round;
        EXPECT_EQ(read.freeSpace.runs, runs) << round;
        EXPECT_EQ(read.map.totals().of(ControlKind::kFixed), blocks - free) << round;
    }
}

}  // namespace
