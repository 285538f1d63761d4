#include "Platform/PlatformIOPriority.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace {

// The C library has no wrapper, and the kernel's header is missing on older systems.
constexpr int kIOPriorityWhoProcess = 1;
constexpr int kIOPriorityClassIdle = 3;
constexpr int kIOPriorityClassShift = 13;

}  // namespace

int PlatformUseIdleIOPriority()
{
    // 0 is the calling thread; the kernel hands its priority on to the threads that it creates.
    if (::syscall(SYS_ioprio_set, kIOPriorityWhoProcess, 0,
                  kIOPriorityClassIdle << kIOPriorityClassShift) != 0) {
        return errno;
    }
    return 0;
}
