#include "HFSPlus/HFSPlusFileForkSet.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <utility>
#include <vector>

#include "support/HFSPlusOpenedVolume.h"

namespace {

using Forks = std::vector<std::pair<uint32_t, unsigned>>;

class HFSPlusFileForkSetTest : public testing::Test {
protected:
    [[nodiscard]] Forks forks() const
    {
        Forks forks;
        for (size_t index = 0; index < _set.count(); ++index) {
            uint32_t fileID = 0;
            uint8_t forkType = 0;
            _set.fileAtIndex(fileID, forkType, index);
            forks.emplace_back(fileID, forkType);
        }
        return forks;
    }

    HFSPlusOpenedVolume _volume =
        HFSPlusOpenedVolume(HFSPlusVolumeBuilder{}.totalBlocks(1000).file("/a,b", 20));
    HFSPlusFileForkSet _set = HFSPlusFileForkSet(*_volume);
};

}  // namespace

TEST_F(HFSPlusFileForkSetTest, ANewSetIsEmpty)
{
    EXPECT_EQ(_set.count(), 0U);
    EXPECT_FALSE(_set.contains(0, 0));
}

TEST_F(HFSPlusFileForkSetTest, AddingAForkTwiceLeavesOneEntryAtItsFirstPosition)
{
    _set.add(5, 0);
    _set.add(6, 0);
    _set.add(5, 0);

    EXPECT_EQ(forks(), (Forks{{5, 0}, {6, 0}}));
}

TEST_F(HFSPlusFileForkSetTest, DataAndResourceForkOfAFileAreDistinct)
{
    _set.add(5, 0);
    EXPECT_FALSE(_set.contains(5, 0xFF));

    _set.add(5, 0xFF);

    EXPECT_EQ(forks(), (Forks{{5, 0}, {5, 0xFF}}));
    EXPECT_TRUE(_set.contains(5, 0xFF));
}

TEST_F(HFSPlusFileForkSetTest, AfterARemovalLaterEntriesMoveDownAndThePairIsGone)
{
    for (uint32_t fileID = 5; fileID < 9; ++fileID) {
        _set.add(fileID, 0);
    }

    _set.removeFileForkAtIndex(1);

    EXPECT_EQ(forks(), (Forks{{5, 0}, {7, 0}, {8, 0}}));
    EXPECT_FALSE(_set.contains(6, 0));
    EXPECT_TRUE(_set.contains(7, 0));
}

TEST_F(HFSPlusFileForkSetTest, ARemovedForkCanBeAddedAgainAtTheEnd)
{
    _set.add(5, 0);
    _set.add(6, 0);
    _set.removeFileForkAtIndex(0);

    _set.add(5, 0);

    EXPECT_EQ(forks(), (Forks{{6, 0}, {5, 0}}));
}

TEST_F(HFSPlusFileForkSetTest, AnIndexBeyondTheLastAborts)
{
    _set.add(5, 0);

    EXPECT_DEATH(_set.removeFileForkAtIndex(1), "fork 1 of 1 does not exist");
}

TEST_F(HFSPlusFileForkSetTest, DumpingNamesTheFilesSafelyAndLeavesUnknownOnesEmpty)
{
    _set.add(20, 0xFF);
    _set.add(4711, 0);
    const auto dumpThenEnd = [this] {
        _set.dump();
        std::_Exit(0);
    };
    // The level is read once, so it takes a process of its own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ASSERT_EQ(setenv("KLDebugLevel", "debug", 1), 0);

    EXPECT_EXIT(dumpThenEnd(), testing::ExitedWithCode(0),
                "        20:FF  /a\\\\,b\n.*      4711:0   \n");
}
