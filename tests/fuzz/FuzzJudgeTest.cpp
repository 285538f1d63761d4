#include "fuzz/FuzzJudge.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "fuzz/FuzzVolumes.h"

namespace {

constexpr size_t kProfiledVolume = 6;
constexpr uint64_t kBlockSize = 1024;  // bytes, of that volume
constexpr uint64_t kMovieBlock = 300;  // the first of file 20

DefragOutput whole(const std::vector<std::string>& lines = {})
{
    DefragOutput output;
    output.lines = {"DEFRAG,START"};
    output.lines.insert(output.lines.end(), lines.begin(), lines.end());
    output.lines.push_back("DEFRAG,DONE");
    return output;
}

DefragOutput refused()
{
    return whole({"DEFRAG,ERROR,Volume is inconsistent."});
}

/** The profiled volume before and after a run of which the test says what it does. */
class FuzzJudge : public testing::Test {
protected:
    FuzzJudge()
        : _before(fuzzVolumeAtIndex(kProfiledVolume).memory->clone()), _after(_before->clone())
    {
    }

    /** The run writes @p byte at @p place. */
    void write(uint64_t place, uint8_t byte)
    {
        std::vector<uint8_t> sector(512);
        _after->peek(sector.data(), sector.size(), place / 512 * 512);
        sector[place % 512] = byte;
        EXPECT_EQ(_after->writeAt(sector.data(), sector.size(), place / 512 * 512), 512);
    }

    [[nodiscard]] std::string judge(const DefragOutput& output, bool emptiesPlaylist = false) const
    {
        return judgeFuzzedRun({.before = *_before,
                               .after = *_after,
                               .output = output,
                               .hasData = true,
                               .emptiesPlaylist = emptiesPlaylist});
    }

    [[nodiscard]] uint64_t deviceSize() const { return _before->size(); }

    /** Where bit @p block of the bitmap lies. */
    [[nodiscard]] static uint64_t bitmapByte(uint64_t block)
    {
        return fuzzVolumeAtIndex(kProfiledVolume)
            .survey->fields(HFSPlusFieldGroup::kBitmap)[block / 8]
            .place;
    }

private:
    std::unique_ptr<MemoryBlockDevice> _before;
    std::unique_ptr<MemoryBlockDevice> _after;
};

}  // namespace

TEST_F(FuzzJudge, ARunThatChangesNothingIsRight)
{
    EXPECT_EQ(judge(whole()), "");
    EXPECT_EQ(judge(refused()), "");
}

TEST_F(FuzzJudge, ARunWithoutItsDoneLineIsWrong)
{
    DefragOutput output = whole();
    output.lines.pop_back();

    EXPECT_EQ(judge(output), "START or DONE is missing");
}

TEST_F(FuzzJudge, AWriteToTheBootBlocksIsWrong)
{
    write(512, 0);
    EXPECT_EQ(judge(whole()), "512 bytes were written at 512");
}

TEST_F(FuzzJudge, AWriteToTheLastSectorIsWrong)
{
    write(deviceSize() - 512, 0);
    EXPECT_EQ(judge(whole()), "512 bytes were written at " + std::to_string(deviceSize() - 512));
}

TEST_F(FuzzJudge, AChangedByteOfAFileIsLostContents)
{
    write(kMovieBlock * kBlockSize + 700, 0xEE);

    EXPECT_EQ(judge(whole()), "file 20 fork 0 lost its contents");
    EXPECT_EQ(judge(whole(), true), "file 20 fork 0 lost its contents");
}

TEST_F(FuzzJudge, AChangeToUsedBlocksByARunThatMovedNothingIsWrong)
{
    write(kMovieBlock * kBlockSize + 700, 0xEE);

    EXPECT_EQ(judge(refused()), "byte " + std::to_string(kMovieBlock * kBlockSize + 700) +
                                    " was changed, but only said: Volume is inconsistent.");
}

TEST_F(FuzzJudge, ARunThatFailedMayLeaveDataInFreeBlocks)
{
    constexpr uint64_t kFreeBlock = 580;
    write(kFreeBlock * kBlockSize, 0xEE);

    EXPECT_EQ(judge(refused()), "");
}

TEST_F(FuzzJudge, ASoundVolumeWhoseBitmapIsWrongAfterwardsIsNoLongerConsistent)
{
    write(bitmapByte(kMovieBlock), 0);

    EXPECT_TRUE(judge(whole()).starts_with("no longer consistent: ")) << judge(whole());
}
