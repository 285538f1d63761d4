#include "Tasks/HFSPlusCopyList.h"

#include <gtest/gtest.h>

#include "HFSPlus/HFSPlusExtentMap.h"
#include "Tasks/HFSPlusCopyBuffer.h"
#include "Tasks/HFSPlusDefragProgress.h"
#include "Tasks/HFSPlusDefragTask.h"
#include "support/HFSPlusOpenedVolume.h"

namespace {

constexpr uint32_t kBlockSize = 4096;
constexpr uint32_t kBufferBlocks = 16;
constexpr uint32_t kFile = 20;
constexpr uint32_t kInfo = HFSPlusExtentInfo(kHFSPlusExtentAllocated, kHFSDataForkType);

HFSPlusVolumeBuilder volumeOfTwoFiles()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlockSize).totalBlocks(1000);
    builder.file("/f", kFile).data({{300, 8}});
    builder.file("/g", kFile + 1).data({{406, 4}});
    return builder;
}

/** An open volume with a copy list, and what the list needs beside it. */
struct CopyListFixture {
    CopyListFixture()
        : buffer(HFSPlusCopyBuffer::initWithSize(uint64_t{kBufferBlocks} * kBlockSize, kBlockSize,
                                                 nullptr)),
          task(std::make_shared<HFSPlusDefragTask>(*volume, false)),
          progress(*task, 12),
          list(*volume, *buffer, progress)
    {
    }

    HFSPlusOpenedVolume volume{volumeOfTwoFiles()};
    std::unique_ptr<HFSPlusCopyBuffer> buffer;
    std::shared_ptr<HFSPlusDefragTask> task;
    HFSPlusDefragProgress progress;
    HFSPlusCopyList list;
};

}  // namespace

TEST(HFSPlusCopyList, ADestinationInUseIsAnInternalErrorBeforeAnythingIsWritten)
{
    CopyListFixture fixture;
    HFSPlusOpenedVolume& volume = fixture.volume;
    ASSERT_TRUE(volume) << volume.error();
    const auto before = volume.memory().clone();
    const auto map = HFSPlusExtentMap::initWithVolume(*volume, 0);
    // The last two blocks of the destination belong to the other file.
    ASSERT_TRUE(fixture.list.append({300, kFile, kInfo, 0, 8, 400}, nullptr));
    std::unique_ptr<VZDefragError> error;

    const KLClosedGate gate(volume->gate());
    EXPECT_FALSE(fixture.list.perform(*map, true, &error));

    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Internal error: Tasks/HFSPlusCopyList.cpp:152");
    EXPECT_TRUE(volume.memory().hasSameBytesAs(*before));
}

TEST(HFSPlusCopyList, MoreBlocksThanTheBufferHoldsAreAnInternalError)
{
    CopyListFixture fixture;
    ASSERT_TRUE(fixture.volume) << fixture.volume.error();
    const uint32_t capacity = fixture.buffer->capacity();
    std::unique_ptr<VZDefragError> error;

    EXPECT_TRUE(fixture.list.append({300, kFile, kInfo, 0, capacity, 500}, nullptr));
    EXPECT_FALSE(fixture.list.append({406, kFile + 1, kInfo, 0, 1, 600}, &error));

    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), "Internal error: Tasks/HFSPlusCopyList.cpp:61");
}
