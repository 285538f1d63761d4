#include "Platform/PlatformSystem.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <initializer_list>
#include <string>
#include <thread>

namespace {

/** In a child: whether the three descriptors work after @p closed ones were given back. */
bool standardDescriptorsWorkAfterClosing(std::initializer_list<int> closed)
{
    const pid_t child = ::fork();
    if (child == 0) {
        for (const int descriptor : closed) {
            ::close(descriptor);
        }
        bool works = PlatformOpenStandardDescriptors() == 0;
        for (const int descriptor : {0, 1, 2}) {
            works = works && ::fcntl(descriptor, F_GETFD) >= 0;
        }
        works = works && ::open("/dev/null", O_RDONLY) > 2;
        ::_exit(works ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return status == 0;
}

TEST(LinuxSystem, PhysicalMemoryIsWhatTheKernelSays)
{
    struct sysinfo info = {};
    ASSERT_EQ(::sysinfo(&info), 0);

    EXPECT_EQ(PlatformPhysicalMemory(), uint64_t{info.totalram} * info.mem_unit);
}

TEST(LinuxSystem, TheMonotonicClockIsTheKernels)
{
    std::timespec now = {};
    const double before = PlatformMonotonicSeconds();
    ASSERT_EQ(::clock_gettime(CLOCK_MONOTONIC, &now), 0);
    const double after = PlatformMonotonicSeconds();

    const double seconds = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
    EXPECT_LE(before, seconds + 1e-6);
    EXPECT_GE(after, seconds - 1e-6);
}

TEST(LinuxSystem, TheLocalTimeIsNow)
{
    const std::time_t before = std::time(nullptr);
    PlatformLocalTime local = PlatformCurrentLocalTime();
    const std::time_t after = std::time(nullptr);

    const std::time_t seconds = std::mktime(&local.calendar);
    EXPECT_GE(seconds, before);
    EXPECT_LE(seconds, after);
    EXPECT_LT(local.milliseconds, 1000U);
}

TEST(LinuxSystem, OnlyTheMainThreadIsTheMainThread)
{
    bool onThread = true;
    std::thread([&onThread] { onThread = PlatformIsMainThread(); }).join();

    EXPECT_TRUE(PlatformIsMainThread());
    EXPECT_FALSE(onThread);
}

TEST(LinuxSystem, TheProcessKnowsItsNameAndNumber)
{
    EXPECT_EQ(PlatformProgramName(), "vzplatformtests");
    EXPECT_EQ(PlatformProcessID(), ::getpid());
}

TEST(LinuxSystem, StandardErrorGetsTheBytesAsTheyAre)
{
    testing::internal::CaptureStderr();
    PlatformWriteStandardError("a line\n");

    EXPECT_EQ(testing::internal::GetCapturedStderr(), "a line\n");
}

TEST(LinuxSystem, ClosedStandardDescriptorsAreReplaced)
{
    EXPECT_TRUE(standardDescriptorsWorkAfterClosing({}));
    EXPECT_TRUE(standardDescriptorsWorkAfterClosing({0}));
    EXPECT_TRUE(standardDescriptorsWorkAfterClosing({1}));
    EXPECT_TRUE(standardDescriptorsWorkAfterClosing({0, 1, 2}));
}

}  // namespace
