#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "Platform/LinuxDeviceOpener.h"
#include "Platform/TemporaryFolder.h"
#include "VZDefragVolume.h"
#include "base/BoastfulDevice.h"
#include "support/MemoryBlockDevice.h"

namespace {

/** What a prober answers, and the volume it builds. */
class FoundVolume final : public VZDefragVolume {
public:
    FoundVolume(const VZDefragVolume& volume, std::unique_ptr<PlatformBlockDevice> device)
        : VZDefragVolume(volume, std::move(device))
    {
    }
};

class ScriptedProber final : public VZDefragVolumeProber {
public:
    bool probe(VZDefragVolume& volume, bool& isValid, VZDefragErrorSlot error) override
    {
        ++probes;
        isValid = valid;
        char byte = 0;
        return readable && volume.read(&byte, 1, probedOffset, error);
    }

    std::unique_ptr<VZDefragVolume> initWithVolume(const VZDefragVolume& volume,
                                                   VZDefragErrorSlot error) override
    {
        if (!message.empty()) {
            EXPECT_FALSE(VZDefragFail(error, message));
            return nullptr;
        }
        return std::make_unique<FoundVolume>(volume, volume.duplicateDevice());
    }

    bool valid = true;
    bool readable = true;  // else it fails without saying why
    uint64_t probedOffset = 0;
    std::string message;  // why no volume is built
    int probes = 0;
};

/** Opens a device in memory, or not; notes how it was asked to. */
class ScriptedOpener final : public PlatformDeviceOpener {
public:
    std::unique_ptr<PlatformBlockDevice> openDevice(const std::string&, Mode mode,
                                                    int& errorNumber) override
    {
        modes.push_back(std::string(mode.readWrite ? "read-write" : "read-only") +
                        (mode.exclusive ? " exclusive" : ""));
        const int reason = mode.readWrite ? writingError : readingError;
        if (reason != 0) {
            errorNumber = reason;
            return nullptr;
        }
        auto device = std::make_unique<MemoryBlockDevice>(1048576, blockSize);
        device->setWritable(mode.readWrite && takesWrites);
        return device;
    }
    MountState mountState(const std::string&) override { return state; }

    MountState state;
    int writingError = 0;
    int readingError = 0;
    bool takesWrites = true;
    uint32_t blockSize = 512;
    std::vector<std::string> modes;
};

class VZDefragVolumeOpeningTest : public testing::Test {
protected:
    ~VZDefragVolumeOpeningTest() override { VZDefragVolume::setSafeBoot(false); }

    bool open()
    {
        _error.reset();
        _volume = VZDefragVolume::initWithDevice("/dev/test", _opener, _prober, &_error);
        return _volume != nullptr;
    }

    [[nodiscard]] std::string reason() const
    {
        return _error != nullptr ? _error->description() : "no error";
    }

    using Modes = std::vector<std::string>;

    ScriptedOpener _opener;
    ScriptedProber _prober;
    std::unique_ptr<VZDefragVolume> _volume;
    std::unique_ptr<VZDefragError> _error;
};

TEST_F(VZDefragVolumeOpeningTest, AnUnmountedDeviceIsOpenedReadWriteAndExclusively)
{
    ASSERT_TRUE(open()) << reason();

    EXPECT_EQ(_opener.modes, Modes{"read-write exclusive"});
    EXPECT_FALSE(_volume->isMounted());
    EXPECT_TRUE(_volume->isWritable());
    EXPECT_EQ(_volume->deviceBlockSize(), 512U);
    EXPECT_EQ(_volume->deviceSizeBytes(), 1048576U);
    EXPECT_EQ(_volume->path(), "/dev/test");
    EXPECT_EQ(_error, nullptr);
}

TEST_F(VZDefragVolumeOpeningTest, TheProbersVolumeTakesThePlaceOfTheDevice)
{
    ASSERT_TRUE(open()) << reason();

    EXPECT_NE(dynamic_cast<FoundVolume*>(_volume.get()), nullptr);
    char byte = 1;
    EXPECT_TRUE(_volume->read(&byte, 1, 1048575, nullptr)) << "on a handle of its own";
    EXPECT_TRUE(_volume->write(&byte, 1, 1048575, nullptr));
    EXPECT_TRUE(_volume->synchronize(nullptr));
}

TEST_F(VZDefragVolumeOpeningTest, AMountedDeviceIsOpenedReadOnly)
{
    _opener.state = {.mounted = true, .readOnly = false};

    ASSERT_TRUE(open()) << reason();

    EXPECT_EQ(_opener.modes, Modes{"read-only"});
    EXPECT_TRUE(_volume->isMounted());
    EXPECT_FALSE(_volume->isWritable());
}

TEST_F(VZDefragVolumeOpeningTest, WithSafeBootADeviceMountedReadOnlyIsOpenedReadWriteWithoutTheLock)
{
    VZDefragVolume::setSafeBoot(true);
    _opener.state = {.mounted = true, .readOnly = true};

    ASSERT_TRUE(open()) << reason();

    EXPECT_EQ(_opener.modes, Modes{"read-write"});
    EXPECT_FALSE(_volume->isMounted());
    EXPECT_TRUE(_volume->isWritable());
}

TEST_F(VZDefragVolumeOpeningTest, WithoutSafeBootADeviceMountedReadOnlyIsOpenedReadOnly)
{
    _opener.state = {.mounted = true, .readOnly = true};

    ASSERT_TRUE(open()) << reason();

    EXPECT_EQ(_opener.modes, Modes{"read-only"});
    EXPECT_TRUE(_volume->isMounted());
    EXPECT_FALSE(_volume->isWritable());
}

TEST_F(VZDefragVolumeOpeningTest, SafeBootDoesNotOpenADeviceForWritingThatIsMountedForWriting)
{
    VZDefragVolume::setSafeBoot(true);
    _opener.state = {.mounted = true, .readOnly = false};

    ASSERT_TRUE(open()) << reason();

    EXPECT_EQ(_opener.modes, Modes{"read-only"});
    EXPECT_TRUE(_volume->isMounted());
}

TEST_F(VZDefragVolumeOpeningTest, SafeBootLeavesAnUnmountedDeviceExclusive)
{
    VZDefragVolume::setSafeBoot(true);

    ASSERT_TRUE(open()) << reason();

    EXPECT_EQ(_opener.modes, Modes{"read-write exclusive"});
}

TEST_F(VZDefragVolumeOpeningTest, ADeviceThatMayNotBeWrittenIsOpenedReadOnly)
{
    _opener.writingError = EACCES;

    ASSERT_TRUE(open()) << reason();

    EXPECT_EQ(_opener.modes, (Modes{"read-write exclusive", "read-only"}));
    EXPECT_FALSE(_volume->isWritable());
    EXPECT_FALSE(_volume->isMounted());
}

TEST_F(VZDefragVolumeOpeningTest, ADeviceThatTakesNoWritesIsNotWritable)
{
    _opener.takesWrites = false;

    ASSERT_TRUE(open()) << reason();

    EXPECT_FALSE(_volume->isWritable());
}

TEST_F(VZDefragVolumeOpeningTest, ADeviceThatMayNotEvenBeReadIsDenied)
{
    _opener.writingError = EACCES;
    _opener.readingError = EACCES;

    EXPECT_FALSE(open());

    EXPECT_EQ(reason(), "Permission was denied.");
}

TEST_F(VZDefragVolumeOpeningTest, ADeviceHeldElsewhereIsBusyAndNotTriedReadOnly)
{
    _opener.writingError = EBUSY;

    EXPECT_FALSE(open());

    EXPECT_EQ(reason(), "The device is busy.");
    EXPECT_EQ(_opener.modes, Modes{"read-write exclusive"});
}

TEST_F(VZDefragVolumeOpeningTest, AnyOtherNumberIsNamedWithThePath)
{
    _opener.writingError = ENXIO;
    EXPECT_FALSE(open());
    EXPECT_EQ(reason(), "Unable to open /dev/test. An error 6 occurred.");

    _opener.state = {.mounted = true, .readOnly = false};
    _opener.readingError = EIO;
    EXPECT_FALSE(open());
    EXPECT_EQ(reason(), "Unable to open /dev/test. An error 5 occurred.");

    _opener.state = {};
    _opener.writingError = EACCES;
    EXPECT_FALSE(open());
    EXPECT_EQ(reason(), "Unable to open /dev/test. An error 5 occurred.") << "the last one counts";
    EXPECT_EQ(_prober.probes, 0);
}

TEST_F(VZDefragVolumeOpeningTest, ADeviceWithoutABlockSizeIsRefused)
{
    class BlocklessOpener final : public PlatformDeviceOpener {
    public:
        std::unique_ptr<PlatformBlockDevice> openDevice(const std::string&, Mode, int&) override
        {
            auto device = std::make_unique<BoastfulDevice>();
            device->bytesPerBlock = 0;
            return device;
        }
        MountState mountState(const std::string&) override { return {}; }
    } opener;

    _volume = VZDefragVolume::initWithDevice("/dev/test", opener, _prober, &_error);

    EXPECT_EQ(_volume, nullptr);
    EXPECT_EQ(reason(), "Unable to open /dev/test. An error 22 occurred.");
}

TEST_F(VZDefragVolumeOpeningTest, WhatHoldsNoSupportedVolumeIsUnsupported)
{
    _prober.valid = false;

    EXPECT_FALSE(open());

    EXPECT_EQ(reason(), "Unsupported volume format.");
}

TEST_F(VZDefragVolumeOpeningTest, TheProbersOwnErrorIsTheReason)
{
    _prober.probedOffset = 1048576;
    EXPECT_FALSE(open());
    EXPECT_EQ(reason(), "Out of range read failed at offset 1048576 and size 1.");

    _prober.probedOffset = 0;
    _prober.message = "The catalog is gone.";
    EXPECT_FALSE(open());
    EXPECT_EQ(reason(), "The catalog is gone.");
}

TEST_F(VZDefragVolumeOpeningTest, AfterDeniedWritingAProbeThatSaysNothingReportsTheDenial)
{
    _opener.writingError = EACCES;
    _prober.readable = false;

    EXPECT_FALSE(open());

    EXPECT_EQ(reason(), "Permission was denied.");
}

TEST_F(VZDefragVolumeOpeningTest, WithoutASlotFailingJustGivesNoVolume)
{
    _opener.writingError = EBUSY;
    EXPECT_EQ(VZDefragVolume::initWithDevice("/dev/test", _opener, _prober), nullptr);

    _opener.writingError = 0;
    _prober.valid = false;
    EXPECT_EQ(VZDefragVolume::initWithDevice("/dev/test", _opener, _prober), nullptr);
}

TEST_F(VZDefragVolumeOpeningTest, TheDeviceIsDescribedInTheLog)
{
    // Of its own process, since the log reads its level once.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("KLDebugLevel", "info", 1);
            std::exit(open() ? 0 : 1);
        },
        testing::ExitedWithCode(0),
        "Device info         = /dev/test, 1MiB \\(block size = 512, total blocks = 2048\\)\n");
}

TEST_F(VZDefragVolumeOpeningTest, ASecondVolumeOnTheSameImageIsBusyUntilTheFirstIsGone)
{
    const TemporaryFolder folder;
    const std::string image = folder.file("disk.img", std::string(65536, '\0'));
    LinuxDeviceOpener opener;
    _volume = VZDefragVolume::initWithDevice(image, opener, _prober, &_error);
    ASSERT_NE(_volume, nullptr) << reason();

    EXPECT_EQ(VZDefragVolume::initWithDevice(image, opener, _prober, &_error), nullptr);
    EXPECT_EQ(reason(), "The device is busy.");

    _volume.reset();
    EXPECT_NE(VZDefragVolume::initWithDevice(image, opener, _prober), nullptr);
}

}  // namespace
