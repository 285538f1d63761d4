#include "Platform/PlatformSystem.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

uint64_t PlatformPhysicalMemory()
{
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0) {
        return 0;
    }
    return static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
}

double PlatformMonotonicSeconds()
{
    const auto sinceEpoch = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double>(sinceEpoch).count();
}

PlatformLocalTime PlatformCurrentLocalTime()
{
    std::timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    PlatformLocalTime local;
    ::localtime_r(&now.tv_sec, &local.calendar);
    local.milliseconds = static_cast<uint32_t>(now.tv_nsec / 1000000);
    return local;
}

std::string PlatformProgramName()
{
    return program_invocation_short_name;
}

int64_t PlatformProcessID()
{
    return ::getpid();
}

bool PlatformIsMainThread()
{
    return ::syscall(SYS_gettid) == ::getpid();
}

void PlatformWriteStandardError(std::string_view bytes)
{
    // A log that cannot be written has nowhere to say so; only an interruption is worth a retry.
    while (::write(STDERR_FILENO, bytes.data(), bytes.size()) < 0 && errno == EINTR) {
    }
}

int PlatformOpenStandardDescriptors()
{
    // open() hands out the lowest free descriptor, so the first one above 2 ends the search.
    int descriptor = -1;
    do {
        descriptor = ::open("/dev/null", O_RDWR);
        if (descriptor < 0) {
            return errno;
        }
    } while (descriptor <= STDERR_FILENO);
    ::close(descriptor);
    return 0;
}
