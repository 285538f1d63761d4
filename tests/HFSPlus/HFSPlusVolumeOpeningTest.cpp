#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "HFSPlus/HFSPlusVolume.h"
#include "HFSPlus/HFSPlusVolumeProber.h"
#include "HFSPlusVolumeTestFixture.h"
#include "support/HFSPlusVolumeBuilderPatcher.h"

namespace {

constexpr const char* kInconsistent = "Volume is inconsistent.";
constexpr const char* kUnsupported = "Unsupported volume format.";

/** What the probe says of a device: "valid", "not valid", or the error of a failed read. */
std::string probed(const HFSPlusOpenedVolume& opened)
{
    bool valid = true;
    std::unique_ptr<VZDefragError> error;
    HFSPlusVolumeProber prober;
    if (!prober.probe(opened.device(), valid, &error)) {
        EXPECT_FALSE(valid);
        return error->description();
    }
    return valid ? "valid" : "not valid";
}

std::string probed(HFSPlusVolumeBuilder builder)
{
    return probed(HFSPlusOpenedVolume(std::move(builder)));
}

/** Opens one device in memory, whose mount state a test chooses. */
class MemoryDeviceOpener : public PlatformDeviceOpener {
public:
    MemoryDeviceOpener(std::unique_ptr<MemoryBlockDevice> memory, MountState state)
        : _memory(std::move(memory)), _state(state)
    {
    }

    [[nodiscard]] std::unique_ptr<PlatformBlockDevice> openDevice(const std::string&, Mode,
                                                                  int&) override
    {
        return _memory->share();
    }
    [[nodiscard]] MountState mountState(const std::string&) override { return _state; }

private:
    std::unique_ptr<MemoryBlockDevice> _memory;
    MountState _state;
};

/** What opening gives for a volume that is in use: its unmounted bit is clear. */
std::unique_ptr<VZDefragVolume> openedInUse(PlatformDeviceOpener::MountState state,
                                            VZDefragErrorSlot error)
{
    MemoryDeviceOpener opener(plainVolume().damage(damagedHeader("attributes", 0)).build(), state);
    HFSPlusVolumeProber prober;
    return VZDefragVolume::initWithDevice("/dev/memory", opener, prober, error);
}

std::string openedWithHeader(std::string field, uint64_t value)
{
    return openingError(plainVolume().damage(damagedHeader(std::move(field), value)));
}

std::string openedWithAttributes(uint32_t attributes)
{
    return openedWithHeader("attributes", attributes);
}

}  // namespace

TEST(HFSPlusVolumeOpening, ProbeTakesBothFormatsAndWrappedVolumes)
{
    EXPECT_EQ(probed(plainVolume()), "valid");
    EXPECT_EQ(probed(plainVolume().hfsx()), "valid");
    EXPECT_EQ(probed(plainVolume().wrapper()), "valid");
    EXPECT_EQ(probed(plainVolume().hfsx().wrapper()), "valid");
}

TEST(HFSPlusVolumeOpening, ProbeWantsBothSignaturesAlike)
{
    EXPECT_EQ(probed(plainVolume().damage(damagedAlternateHeader("signature", 0x4858))),
              "not valid");
    EXPECT_EQ(probed(plainVolume().damage(damagedAlternateHeader("signature", 0))), "not valid");
    EXPECT_EQ(probed(plainVolume().damage(damagedHeader("signature", 0))), "not valid");
}

TEST(HFSPlusVolumeOpening, ProbeComparesTheVersionOfThePrimaryHeaderOnly)
{
    EXPECT_EQ(probed(plainVolume().damage(damagedAlternateHeader("version", 9))), "valid");
    EXPECT_EQ(probed(plainVolume().damage(damagedHeader("version", 5))), "not valid");
    EXPECT_EQ(probed(plainVolume().hfsx().damage(damagedHeader("version", 4))), "not valid");
}

TEST(HFSPlusVolumeOpening, ProbeFailsOnlyWhenAReadFails)
{
    for (uint64_t ordinal = 1; ordinal <= 4; ++ordinal) {
        HFSPlusOpenedVolume opened(plainVolume().wrapper());
        ASSERT_TRUE(opened) << opened.error();
        opened.faults().fail(FaultyBlockDevice::Operation::kRead, ordinal, EIO);

        EXPECT_TRUE(probed(opened).starts_with("Read failed with an error 5 at offset "))
            << "read " << ordinal;
    }
}

TEST(HFSPlusVolumeOpening, ProbeOfADeviceWithoutRoomForAHeaderFails)
{
    EXPECT_EQ(probed(HFSPlusOpenedVolume(std::make_unique<MemoryBlockDevice>(512))),
              "Out of range read failed at offset 1024 and size 512.");
}

TEST(HFSPlusVolumeOpening, ProbeOfAnEmptyDeviceSaysNotValid)
{
    EXPECT_EQ(probed(HFSPlusOpenedVolume(std::make_unique<MemoryBlockDevice>(1048576))),
              "not valid");
}

TEST(HFSPlusVolumeOpening, ProbeOfAWrapperThatLeavesTheDeviceFailsOrSaysNotValid)
{
    EXPECT_TRUE(probed(plainVolume().wrapper().damage(damagedWrapper("drAlBlkSiz", 0x80000000)))
                    .starts_with("Out of range read failed at offset "));
    EXPECT_TRUE(
        probed(plainVolume().wrapper().damage(damagedWrapper("drEmbedExtent.blockCount", 0xFFFF)))
            .starts_with("Out of range read failed at offset "));
    EXPECT_EQ(probed(plainVolume().wrapper().damage(damagedWrapper("drAlBlkSiz", 0))), "not valid");
    EXPECT_EQ(probed(plainVolume().wrapper().damage(damagedWrapper("drAlBlkSiz", 511))),
              "not valid");
}

TEST(HFSPlusVolumeOpening, WrapperWithoutAnHFSPlusSignatureIsTreatedAsUnwrapped)
{
    const auto builder = [] {
        return plainVolume().wrapper().damage(damagedWrapper("drEmbedSigWord", 0x1234));
    };
    EXPECT_EQ(probed(builder()), "not valid");
    EXPECT_EQ(openingError(builder()), kUnsupported);
}

TEST(HFSPlusVolumeOpening, HostileWrapperIsRefused)
{
    for (const uint64_t size : {0u, 511u, 4095u, 0x80000000u}) {
        EXPECT_EQ(openingError(plainVolume().wrapper().damage(damagedWrapper("drAlBlkSiz", size))),
                  kUnsupported);
    }
    EXPECT_EQ(
        openingError(plainVolume().wrapper().damage(damagedWrapper("drEmbedExtent.blockCount", 0))),
        kUnsupported);
    EXPECT_EQ(openingError(plainVolume().wrapper().damage(
                  damagedWrapper("drEmbedExtent.startBlock", 0xFFFF))),
              kUnsupported);
}

TEST(HFSPlusVolumeOpening, UnknownSignatureIsRefused)
{
    EXPECT_EQ(openedWithHeader("signature", 0x1234), kUnsupported);
}

TEST(HFSPlusVolumeOpening, WrongVersionIsRefusedByName)
{
    EXPECT_EQ(openedWithHeader("version", 5), "HFS Plus version 5 is not supported.");
    EXPECT_EQ(openingError(plainVolume().hfsx().damage(damagedHeader("version", 4))),
              "HFSX version 4 is not supported.");
}

TEST(HFSPlusVolumeOpening, VolumeNotCleanlyUnmountedIsRefused)
{
    EXPECT_EQ(openedWithAttributes(0x0000), kInconsistent);
    EXPECT_EQ(openedWithAttributes(0x0101), kInconsistent);
    EXPECT_EQ(openedWithAttributes(0x0102), kInconsistent);
    EXPECT_EQ(openedWithAttributes(0x0108), kInconsistent);
    EXPECT_EQ(openedWithAttributes(0x0904), "");
}

TEST(HFSPlusVolumeOpening, MountedVolumeNeedsNoCleanUnmount)
{
    std::unique_ptr<VZDefragError> error;
    const std::unique_ptr<VZDefragVolume> mounted = openedInUse({.mounted = true}, nullptr);
    const std::unique_ptr<VZDefragVolume> unmounted = openedInUse({}, &error);

    ASSERT_NE(mounted, nullptr);
    EXPECT_NE(dynamic_cast<HFSPlusVolume*>(mounted.get()), nullptr);
    EXPECT_TRUE(mounted->isMounted());
    EXPECT_FALSE(mounted->isWritable());
    EXPECT_EQ(unmounted, nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->description(), kInconsistent);
}

TEST(HFSPlusVolumeOpening, LockedVolumeSilentlyBecomesReadOnly)
{
    for (const uint64_t lock : {0x0080u, 0x8000u}) {
        HFSPlusOpenedVolume opened(plainVolume().damage(damagedHeader("attributes", 0x100 | lock)));
        ASSERT_TRUE(opened) << opened.error();
        EXPECT_FALSE(opened->isWritable());
        EXPECT_TRUE(opened->flush(nullptr));
    }
    HFSPlusOpenedVolume unlocked(plainVolume());
    EXPECT_TRUE(unlocked && unlocked->isWritable());
}

TEST(HFSPlusVolumeOpening, ReadOnlyDeviceGivesAReadOnlyVolume)
{
    std::unique_ptr<MemoryBlockDevice> memory = plainVolume().build();
    ASSERT_NE(memory, nullptr);
    memory->setWritable(false);
    HFSPlusOpenedVolume opened(std::move(memory));

    ASSERT_TRUE(opened) << opened.error();
    EXPECT_FALSE(opened->isWritable());
}

TEST(HFSPlusVolumeOpening, HostileBlockSizeIsRefused)
{
    for (const uint64_t size : {0u, 1u, 256u, 4095u, 4097u, 12288u, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(openedWithHeader("blockSize", size), kInconsistent) << size;
    }
}

TEST(HFSPlusVolumeOpening, BlocksSmallerThanTheDevicesAreRefused)
{
    EXPECT_EQ(openingError(plainVolume(), 4096), "");
    EXPECT_EQ(openingError(HFSPlusVolumeBuilder{}.blockSize(2048).totalBlocks(2000), 4096),
              kInconsistent);
}

TEST(HFSPlusVolumeOpening, HostileBlockCountsAreRefused)
{
    EXPECT_EQ(openedWithHeader("totalBlocks", 0), kInconsistent);
    EXPECT_EQ(openedWithHeader("totalBlocks", 3), kInconsistent);
    EXPECT_EQ(openedWithHeader("totalBlocks", 1001), kInconsistent);
    EXPECT_EQ(openedWithHeader("totalBlocks", 0xFFFFFFFF), kInconsistent);
    EXPECT_EQ(openedWithHeader("freeBlocks", 1001), kInconsistent);
}

TEST(HFSPlusVolumeOpening, SpecialFilesThatLeaveTheVolumeAreRefused)
{
    for (const std::string file :
         {"allocationFile", "extentsFile", "catalogFile", "attributesFile", "startupFile"}) {
        const auto damaged = [&](const std::string& field, uint64_t value) {
            return openingError(plainVolume()
                                    .attributesFile()
                                    .startupExtents({{600, 2}})
                                    .damage(damagedHeader(file + field, value)));
        };
        EXPECT_EQ(damaged(".extents[0].startBlock", 1000), kInconsistent) << file;
        EXPECT_EQ(damaged(".extents[0].startBlock", 0xFFFFFFFF), kInconsistent) << file;
        EXPECT_EQ(damaged(".extents[0].blockCount", 0xFFFFFFFF), kInconsistent) << file;
        EXPECT_EQ(damaged(".totalBlocks", 0xFFFFFFFF), kInconsistent) << file;
        EXPECT_EQ(damaged(".totalBlocks", 0), kInconsistent) << file;
        EXPECT_EQ(damaged(".logicalSize", ~uint64_t{0}), kInconsistent) << file;
    }
}

TEST(HFSPlusVolumeOpening, EveryFailingReadIsToldAndLeaksNothing)
{
    for (uint64_t ordinal = 1;; ++ordinal) {
        HFSPlusOpenedVolume opened(plainVolume().attributesFile().wrapper());
        ASSERT_TRUE(opened) << opened.error();
        opened.close();
        opened.faults().fail(FaultyBlockDevice::Operation::kRead, ordinal, EIO);

        opened.reopen();

        if (!opened.faults().faultReached()) {
            EXPECT_TRUE(opened);
            EXPECT_GT(ordinal, 5u);  // two headers and three trees at the least
            break;
        }
        EXPECT_FALSE(opened) << "read " << ordinal;
        EXPECT_TRUE(opened.error().starts_with("Read failed with an error 5 at offset "))
            << opened.error();
    }
}

TEST(HFSPlusVolumeOpening, OpeningLogsTheVolume)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(
        {
            setenv("KLDebugLevel", "info", 1);
            HFSPlusOpenedVolume opened(plainVolume().hfsx().journal());
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        "\\]: Volume info         = HFSX \\(Version = 5\\), unmounted, read/write, journaled\n"
        ".*\\]: Volume size         = 3.906MiB \\(block size = 4KiB, total blocks = 1000, free "
        "blocks = [0-9]+\\)\n");
}

TEST(HFSPlusVolumeOpening, OpeningALockedVolumeLogsItAsReadOnly)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(
        {
            setenv("KLDebugLevel", "info", 1);
            HFSPlusOpenedVolume opened(plainVolume().damage(damagedHeader("attributes", 0x8100)));
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        "\\]: Volume info         = HFS Plus \\(Version = 4\\), unmounted, read-only\n");
}

TEST(HFSPlusVolumeOpening, OpeningALargeJournaledVolumeLogsItsMetadataZone)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(
        {
            setenv("KLDebugLevel", "info", 1);
            HFSPlusOpenedVolume opened(
                HFSPlusVolumeBuilder{}.blockSize(4096).totalBlocks(2621440).journal().contents(
                    false));
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        "\\]: Metadata zone       = 256MiB \\(start block = 1, total blocks = 65536\\)\n");
}
