#include "Platform/LinuxBlockDevice.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <tuple>
#include <vector>

#include "Platform/LinuxDeviceOpener.h"
#include "Platform/TemporaryFolder.h"

namespace {

constexpr PlatformDeviceOpener::Mode kReadOnly{.readWrite = false, .exclusive = false};
constexpr PlatformDeviceOpener::Mode kShared{.readWrite = true, .exclusive = false};
constexpr PlatformDeviceOpener::Mode kExclusive{.readWrite = true, .exclusive = true};

/** Zeroed bytes at an address that direct transfers accept. */
class AlignedBuffer {
public:
    explicit AlignedBuffer(size_t nbyte)
        : _bytes(static_cast<char*>(std::aligned_alloc(4096, nbyte)), &std::free)
    {
        std::fill_n(_bytes.get(), nbyte, '\0');
    }
    [[nodiscard]] char* data() const { return _bytes.get(); }

private:
    std::unique_ptr<char, decltype(&std::free)> _bytes;
};

class LinuxBlockDeviceTest : public testing::Test {
protected:
    std::unique_ptr<LinuxBlockDevice> open(const std::string& path, PlatformDeviceOpener::Mode mode)
    {
        _errorNumber = 0;
        return LinuxBlockDevice::openPath(path, mode, _errorNumber);
    }

    /** An image of @p nbyte bytes, each the lowest byte of its offset divided by 512. */
    [[nodiscard]] std::string image(size_t nbyte) const
    {
        std::string contents(nbyte, '\0');
        for (size_t offset = 0; offset < nbyte; ++offset) {
            contents[offset] = patternAt(offset);
        }
        return _folder.file("disk.img", contents);
    }

    static char patternAt(size_t offset) { return static_cast<char>(offset / 512); }

    static std::string contents(const std::string& path)
    {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    TemporaryFolder _folder;
    int _errorNumber = 0;
};

TEST_F(LinuxBlockDeviceTest, AFileIsADeviceOfItsWholeBlocksOf512Bytes)
{
    const auto device = open(image(10 * 512 + 511), kExclusive);

    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->blockSize(), 512U);
    EXPECT_EQ(device->blockCount(), 10U);
}

TEST_F(LinuxBlockDeviceTest, AFileIsWritableWhenItWasOpenedForWriting)
{
    const std::string path = image(4096);

    EXPECT_TRUE(open(path, kShared)->isWritable());
    EXPECT_FALSE(open(path, kReadOnly)->isWritable());
    EXPECT_EQ(open(path, kReadOnly)->writeAt("", 0, 0), -EBADF);
}

TEST_F(LinuxBlockDeviceTest, WhatIsNeitherBlockDeviceNorFileIsRefusedWithItsNumber)
{
    ASSERT_EQ(mkfifo(_folder.path("fifo").c_str(), 0600), 0);

    EXPECT_EQ(open(_folder.path("."), kReadOnly), nullptr);
    EXPECT_EQ(_errorNumber, EISDIR);
    EXPECT_EQ(open("/dev/null", kExclusive), nullptr);
    EXPECT_EQ(_errorNumber, ENOTBLK);
    EXPECT_EQ(open(_folder.path("fifo"), kReadOnly), nullptr) << "and without waiting for a writer";
    EXPECT_EQ(_errorNumber, ENOTBLK);
    EXPECT_EQ(open(_folder.path("missing"), kReadOnly), nullptr);
    EXPECT_EQ(_errorNumber, ENOENT);
    EXPECT_EQ(open(std::string(5000, 'x'), kReadOnly), nullptr);
    EXPECT_EQ(_errorNumber, ENAMETOOLONG);
}

TEST_F(LinuxBlockDeviceTest, AFileThatMayOnlyBeReadIsDeniedForWriting)
{
    const std::string path = image(4096);
    ASSERT_EQ(chmod(path.c_str(), 0444), 0);
    // The superuser is denied nothing; files are then accessed as somebody else.
    ASSERT_EQ(chmod(_folder.path(".").c_str(), 0755), 0);
    std::ignore = setfsuid(geteuid() == 0 ? 65534 : geteuid());

    const auto writing = open(path, kExclusive);
    const int reason = _errorNumber;
    const auto reading = open(path, kReadOnly);
    std::ignore = setfsuid(geteuid());

    EXPECT_EQ(writing, nullptr);
    EXPECT_EQ(reason, EACCES);
    EXPECT_NE(reading, nullptr);
}

TEST_F(LinuxBlockDeviceTest, AReadOnlyFileSystemCountsAsDeniedAndALockElsewhereAsBusy)
{
    EXPECT_EQ(LinuxOpenErrorNumber(EROFS), EACCES);
    EXPECT_EQ(LinuxOpenErrorNumber(EWOULDBLOCK), EBUSY);
    EXPECT_EQ(LinuxOpenErrorNumber(EACCES), EACCES);
    EXPECT_EQ(LinuxOpenErrorNumber(EBUSY), EBUSY);
    EXPECT_EQ(LinuxOpenErrorNumber(ENXIO), ENXIO);
}

TEST_F(LinuxBlockDeviceTest, AFileHeldExclusivelyIsBusyForWhoAsksForTheSame)
{
    const std::string path = image(4096);
    auto first = open(path, kExclusive);
    ASSERT_NE(first, nullptr);

    EXPECT_EQ(open(path, kExclusive), nullptr);
    EXPECT_EQ(_errorNumber, EBUSY);
    EXPECT_NE(open(path, kShared), nullptr) << "who does not ask is not held off";

    first.reset();
    EXPECT_NE(open(path, kExclusive), nullptr);
}

TEST_F(LinuxBlockDeviceTest, AnAdvisoryLockOfAnotherProgramMakesAFileBusy)
{
    const std::string path = image(4096);
    const LinuxDescriptor other(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(other.number(), LOCK_SH), 0);

    EXPECT_EQ(open(path, kExclusive), nullptr);
    EXPECT_EQ(_errorNumber, EBUSY);
}

TEST_F(LinuxBlockDeviceTest, ADuplicateKeepsTheLockAndTransfersAfterTheOriginalIsClosed)
{
    const std::string path = image(8192);
    auto original = open(path, kExclusive);
    ASSERT_NE(original, nullptr);

    const std::unique_ptr<PlatformBlockDevice> duplicate = original->duplicate();
    original.reset();

    ASSERT_NE(duplicate, nullptr);
    EXPECT_EQ(duplicate->blockCount(), 16U);
    EXPECT_TRUE(duplicate->isWritable());
    char block[512] = {};
    EXPECT_EQ(duplicate->readAt(block, sizeof block, 15 * 512), 512);
    EXPECT_EQ(block[0], 15);
    EXPECT_EQ(open(path, kExclusive), nullptr);
    EXPECT_EQ(_errorNumber, EBUSY);
}

TEST_F(LinuxBlockDeviceTest, DescriptorsDoNotSurviveAnExec)
{
    const auto openDescriptors = [] {
        std::set<int> descriptors;
        for (int descriptor = 0; descriptor < 256; ++descriptor) {
            if (fcntl(descriptor, F_GETFD) >= 0) {
                descriptors.insert(descriptor);
            }
        }
        return descriptors;
    };
    const std::string path = image(4096);
    const std::set<int> before = openDescriptors();
    const auto device = open(path, kExclusive);
    const auto duplicate = device->duplicate();
    ASSERT_NE(duplicate, nullptr);

    int opened = 0;
    for (const int descriptor : openDescriptors()) {
        if (!before.contains(descriptor)) {
            ++opened;
            EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << "descriptor " << descriptor;
        }
    }
    EXPECT_GE(opened, 2);
}

TEST_F(LinuxBlockDeviceTest, WholeBlocksAreReadAndWrittenWhateverTheBuffersAlignment)
{
    constexpr size_t kSize = 64 * 1024;
    const std::string path = image(kSize);
    const auto device = open(path, kExclusive);
    const AlignedBuffer buffer(kSize + 4096);

    for (const size_t shift : {0U, 1U, 512U, 1000U}) {
        for (const size_t offset : {0U, 512U, 4096U, 4608U}) {
            for (const size_t nbyte : {512U, 1536U, 4096U, 32768U}) {
                char* const data = buffer.data() + shift;
                const auto count = static_cast<int64_t>(nbyte);
                ASSERT_EQ(device->readAt(data, nbyte, offset), count);
                for (size_t index = 0; index < nbyte; ++index) {
                    ASSERT_EQ(data[index], patternAt(offset + index));
                }
                ASSERT_EQ(device->writeAt(data, nbyte, offset), count);
            }
        }
    }
    EXPECT_EQ(device->synchronize(), 0);
    const std::string now = contents(path);
    for (size_t offset = 0; offset < kSize; ++offset) {
        ASSERT_EQ(now[offset], patternAt(offset)) << "at offset " << offset;
    }
}

TEST_F(LinuxBlockDeviceTest, DirectAndOrdinaryTransfersSeeEachOthersBytes)
{
    const auto device = open(image(16 * 1024), kExclusive);
    const AlignedBuffer aligned(8192);
    std::vector<char> unaligned(513, 'u');

    ASSERT_EQ(device->writeAt(unaligned.data() + 1, 512, 4096), 512);
    ASSERT_EQ(device->readAt(aligned.data(), 4096, 4096), 4096);
    EXPECT_EQ(aligned.data()[511], 'u');

    std::fill_n(aligned.data(), 4096, 'a');
    ASSERT_EQ(device->writeAt(aligned.data(), 4096, 4096), 4096);
    ASSERT_EQ(device->readAt(unaligned.data() + 1, 512, 4096 + 512), 512);
    EXPECT_EQ(unaligned[1], 'a');
}

TEST_F(LinuxBlockDeviceTest, AlignedTransfersBypassTheCacheWhereTheFileSystemAllowsIt)
{
    const std::string path = image(64 * 1024);
    const auto device = open(path, kExclusive);
    const LinuxDescriptor direct(::open(path.c_str(), O_RDWR | O_DIRECT | O_CLOEXEC));
    const AlignedBuffer buffer(8192);
    const bool allowed = direct && pread(direct.number(), buffer.data(), 4096, 0) == 4096;

    EXPECT_EQ(device->isDirect(buffer.data(), 4096, 0), allowed);
    EXPECT_EQ(device->isDirect(buffer.data(), 8192, 4096), allowed);
    EXPECT_FALSE(device->isDirect(buffer.data() + 1, 4096, 0));
}

TEST_F(LinuxBlockDeviceTest, NothingReachesBeyondTheWholeBlocksOfAFile)
{
    const std::string path = image(4 * 512 + 100);
    const auto device = open(path, kExclusive);
    const AlignedBuffer buffer(4096);
    std::fill_n(buffer.data(), 4096, 'w');

    EXPECT_EQ(device->readAt(buffer.data(), 1024, 3 * 512), 512) << "short at the end";
    EXPECT_EQ(device->readAt(buffer.data(), 512, 4 * 512), 0);
    EXPECT_EQ(device->readAt(buffer.data(), 512, UINT64_MAX - 511), 0);
    EXPECT_EQ(device->writeAt(buffer.data(), 1024, 3 * 512), -ENOSPC);
    EXPECT_EQ(device->writeAt(buffer.data(), 512, UINT64_MAX - 511), -ENOSPC);
    EXPECT_EQ(device->writeAt(buffer.data() + 512, 512, 3 * 512), 512) << "the last block";

    const std::string now = contents(path);
    EXPECT_EQ(now.size(), 4U * 512 + 100);
    EXPECT_EQ(now.substr(3 * 512, 512), std::string(512, 'w'));
    EXPECT_EQ(now.substr(4 * 512), std::string(100, 4));
}

TEST_F(LinuxBlockDeviceTest, TheOpenerOpensDevicesAndKnowsTheMountsOfItsTable)
{
    const std::string path = image(4096);
    _folder.file("mountinfo", "30 22 0:45 / /mnt rw - fuse.hfs " + path + " ro\n");
    LinuxDeviceOpener opener(LinuxMountTable(_folder.path("mountinfo"), _folder.path("sys")));

    EXPECT_TRUE(opener.mountState(path).mounted);
    EXPECT_TRUE(opener.mountState(path).readOnly);
    EXPECT_FALSE(opener.mountState(_folder.path("mountinfo")).mounted);
    int errorNumber = 0;
    EXPECT_NE(opener.openDevice(path, kExclusive, errorNumber), nullptr);
    EXPECT_EQ(opener.openDevice(_folder.path("missing"), kExclusive, errorNumber), nullptr);
    EXPECT_EQ(errorNumber, ENOENT);
}

}  // namespace
