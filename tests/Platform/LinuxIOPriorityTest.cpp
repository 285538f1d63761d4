#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "Platform/PlatformIOPriority.h"

namespace {

/** The kernel's I/O priority class of the calling thread: 3 is idle. */
long currentClass()
{
    return ::syscall(SYS_ioprio_get, 1, 0) >> 13;
}

TEST(LinuxIOPriority, TheCallingThreadAndThoseItStartsUseTheDiskOnlyWhenIdle)
{
    int result = -1;
    long own = -1;
    long inherited = -1;

    // On a thread of its own, so that the rest of the tests keep their priority.
    std::thread([&] {
        result = PlatformUseIdleIOPriority();
        own = currentClass();
        std::thread([&] { inherited = currentClass(); }).join();
    }).join();

    EXPECT_EQ(result, 0);
    EXPECT_EQ(own, 3);
    EXPECT_EQ(inherited, 3);
}

}  // namespace
