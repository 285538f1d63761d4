#include "support/HFSPlusVolumeCheckerReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace {

constexpr uint64_t kSectorSize = 512;
constexpr uint64_t kBounceSize = uint64_t{1} << 20;

bool isInside(uint64_t nbyte, uint64_t offset, uint64_t size)
{
    return offset <= size && nbyte <= size - offset;
}

}  // namespace

HFSPlusCheckFileReader::HFSPlusCheckFileReader(int descriptor, uint64_t size)
    : _descriptor(descriptor), _size(size)
{
}

std::unique_ptr<HFSPlusCheckFileReader> HFSPlusCheckFileReader::initWithPath(
    const std::string& path)
{
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        return nullptr;
    }
    const off_t end = ::lseek(descriptor, 0, SEEK_END);
    if (end < 0) {
        const int seekError = errno;
        ::close(descriptor);
        errno = seekError;
        return nullptr;
    }
    // A last piece of less than a sector is no part of the device.
    const uint64_t size = static_cast<uint64_t>(end) / kSectorSize * kSectorSize;
    return std::unique_ptr<HFSPlusCheckFileReader>(new HFSPlusCheckFileReader(descriptor, size));
}

HFSPlusCheckFileReader::~HFSPlusCheckFileReader()
{
    ::close(_descriptor);
}

bool HFSPlusCheckFileReader::read(void* buffer, size_t nbyte, uint64_t offset)
{
    if (!isInside(nbyte, offset, _size)) {
        return false;
    }
    auto* bytes = static_cast<uint8_t*>(buffer);
    while (nbyte > 0) {
        const ssize_t count = ::pread(_descriptor, bytes, nbyte, static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        bytes += count;
        nbyte -= static_cast<size_t>(count);
        offset += static_cast<uint64_t>(count);
    }
    return true;
}

uint64_t HFSPlusCheckDeviceReader::size() const
{
    return _device.blockCount() * _device.blockSize() / kSectorSize * kSectorSize;
}

bool HFSPlusCheckDeviceReader::read(void* buffer, size_t nbyte, uint64_t offset)
{
    if (!isInside(nbyte, offset, size())) {
        return false;
    }
    const uint64_t unit = _device.blockSize();
    const uint64_t bounceSize = std::max(kBounceSize / unit * unit, unit);
    std::vector<uint8_t> bounce;
    auto* bytes = static_cast<uint8_t*>(buffer);
    // Every round copies at least one byte, so the loop ends with the request.
    while (nbyte > 0) {
        const uint64_t start = offset / unit * unit;
        const uint64_t end = (offset + nbyte + unit - 1) / unit * unit;
        const uint64_t size = std::min(end - start, bounceSize);
        bounce.resize(size);
        if (_device.readAt(bounce.data(), size, start) != static_cast<int64_t>(size)) {
            return false;
        }
        const uint64_t skip = offset - start;
        const size_t count = static_cast<size_t>(std::min<uint64_t>(nbyte, size - skip));
        std::memcpy(bytes, bounce.data() + skip, count);
        bytes += count;
        nbyte -= count;
        offset += count;
    }
    return true;
}
