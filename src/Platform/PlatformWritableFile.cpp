#include "Platform/PlatformWritableFile.h"

#include <cerrno>

namespace {

/** Repeats @p attempt for as long as that attempt itself was interrupted. */
template <typename Attempt>
int64_t withoutInterruption(const Attempt& attempt)
{
    int64_t result = 0;
    do {
        result = attempt();
    } while (result == -EINTR);
    return result;
}

int errorOf(int64_t result, size_t nbyte, int errorWhenShort)
{
    if (result < 0) {
        return static_cast<int>(-result);
    }
    return static_cast<uint64_t>(result) == nbyte ? 0 : errorWhenShort;
}

}  // namespace

int PlatformWritableFile::readWhole(void* buffer, size_t nbyte, uint64_t offset)
{
    return errorOf(withoutInterruption([&] { return readAt(buffer, nbyte, offset); }), nbyte, EIO);
}

int PlatformWritableFile::writeWhole(const void* buffer, size_t nbyte, uint64_t offset)
{
    return errorOf(withoutInterruption([&] { return writeAt(buffer, nbyte, offset); }), nbyte,
                   ENOSPC);
}

int PlatformWritableFile::synchronizeWhole()
{
    return static_cast<int>(-withoutInterruption([&]() -> int64_t { return -synchronize(); }));
}
