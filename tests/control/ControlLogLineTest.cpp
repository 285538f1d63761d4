#include "ControlLogLine.h"

#include <gtest/gtest.h>

#include "ControlSession.h"

namespace {

constexpr const char* kHead = "2026-11-22 05:04:16.570 vzdefrag[13727]: ";

ControlVolumeFacts factsOf(const std::string& message)
{
    ControlVolumeFacts facts;
    ControlLogLine::parse(kHead + message).tell(facts);
    return facts;
}

TEST(ControlLogLine, SizesOfTheVolumeAreRead)
{
    const ControlVolumeFacts facts = factsOf(
        "Volume size         = 512MiB (block size = 4KiB, total blocks = 131072, free blocks = 5)");

    EXPECT_EQ(facts.blockSize, 4096U);
    EXPECT_EQ(facts.totalBlocks, 131072U);
}

TEST(ControlLogLine, BlockSizesHaveEveryUnit)
{
    const auto size = [](const std::string& text) {
        return factsOf("Volume size         = 1GiB (block size = " + text +
                       ", total blocks = 1, free blocks = 0)")
            .blockSize;
    };

    EXPECT_EQ(size("512B"), 512U);
    EXPECT_EQ(size("64KiB"), 65536U);
    EXPECT_EQ(size("32MiB"), 32U << 20U);
    EXPECT_EQ(size("2GiB"), 2U << 30U);
    EXPECT_EQ(size("4GiB"), 0U);
    EXPECT_EQ(size("1.5KiB"), 0U);
    EXPECT_EQ(size("4"), 0U);
}

TEST(ControlLogLine, FormatJournalAndWritabilityAreRead)
{
    const ControlVolumeFacts plain =
        factsOf("Volume info         = HFS Plus (Version = 4), unmounted, read/write");
    EXPECT_EQ(plain.format, "HFS Plus");
    EXPECT_TRUE(plain.isWritable);
    EXPECT_FALSE(plain.isJournaled);

    const ControlVolumeFacts journaled =
        factsOf("Volume info         = HFSX (Version = 5), mounted, read-only, journaled");
    EXPECT_EQ(journaled.format, "HFSX");
    EXPECT_FALSE(journaled.isWritable);
    EXPECT_TRUE(journaled.isJournaled);
}

TEST(ControlLogLine, WarningsAndStrangeLinesAreForPeopleAndInformationIsNot)
{
    const ControlLogLine warning = ControlLogLine::parse(std::string(kHead) + "WARNING: Look out.");
    EXPECT_TRUE(warning.isForPeople());
    EXPECT_EQ(warning.message(), "Look out.");
    EXPECT_TRUE(ControlLogLine::parse("terminate called").isForPeople());
    EXPECT_FALSE(ControlLogLine::parse(std::string(kHead) + "Device info = x").isForPeople());
}

TEST(ControlLogLine, ARollbackIsTold)
{
    EXPECT_TRUE(ControlLogLine::parse(std::string(kHead) +
                                      "WARNING: An interrupted run was rolled back with /a "
                                      "(records put back = 3).")
                    .tellsOfRollback());
    EXPECT_FALSE(
        ControlLogLine::parse(std::string(kHead) + "WARNING: Something.").tellsOfRollback());
}

}  // namespace
