#include "support/SparseFileSink.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

SparseFileSink::SparseFileSink(const std::string& path)
    : _descriptor(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644))
{
}

SparseFileSink::~SparseFileSink()
{
    if (_descriptor >= 0) {
        close(_descriptor);
    }
}

bool SparseFileSink::setSize(uint64_t size)
{
    return ftruncate(_descriptor, static_cast<off_t>(size)) == 0;
}

bool SparseFileSink::writeAt(const void* buffer, size_t nbyte, uint64_t offset)
{
    const char* source = static_cast<const char*>(buffer);
    while (nbyte > 0) {
        const ssize_t count = pwrite(_descriptor, source, nbyte, static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        source += count;
        offset += static_cast<uint64_t>(count);
        nbyte -= static_cast<size_t>(count);
    }
    return true;
}

bool SparseFileSink::readAt(void* buffer, size_t nbyte, uint64_t offset)
{
    char* target = static_cast<char*>(buffer);
    while (nbyte > 0) {
        const ssize_t count = pread(_descriptor, target, nbyte, static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return false;
        }
        if (count == 0) {
            std::memset(target, 0, nbyte);
            return true;
        }
        target += count;
        offset += static_cast<uint64_t>(count);
        nbyte -= static_cast<size_t>(count);
    }
    return true;
}
