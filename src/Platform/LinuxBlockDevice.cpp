#include "Platform/LinuxBlockDevice.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <tuple>
#include <utility>

namespace {

constexpr uint32_t kFileBlockSize = 512;

/** What every file system and device that transfers directly is content with. */
constexpr uint32_t kSafeAlignment = 4096;

int openRepeatedly(const std::string& path, int flags)
{
    int descriptor = -1;
    do {
        descriptor = open(path.c_str(), flags | O_CLOEXEC);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

/** 0 for what can be a device, else the errno value that says what it is instead. */
int reasonAgainstType(mode_t mode)
{
    if (S_ISBLK(mode) || S_ISREG(mode)) {
        return 0;
    }
    return S_ISDIR(mode) ? EISDIR : ENOTBLK;
}

bool isSameFile(const struct stat& left, const struct stat& right)
{
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino &&
           (left.st_mode & S_IFMT) == (right.st_mode & S_IFMT) && left.st_rdev == right.st_rdev;
}

/** Opens what @p path named when @p status was taken, and locks it when asked for; or empty. */
LinuxDescriptor openAndLock(const std::string& path, const struct stat& status,
                            PlatformDeviceOpener::Mode mode, int& errorNumber)
{
    int flags = mode.readWrite ? O_RDWR : O_RDONLY;
    if (S_ISBLK(status.st_mode)) {
        // Refused while a file system, a swap area or a volume manager has the device.
        flags |= mode.exclusive ? O_EXCL : 0;
    } else {
        // Should a fifo have taken the file's place meanwhile, there is no waiting for its peer.
        flags |= O_NONBLOCK;
    }
    LinuxDescriptor descriptor(openRepeatedly(path, flags));
    struct stat opened = {};
    if (!descriptor || fstat(descriptor.number(), &opened) != 0) {
        errorNumber = LinuxOpenErrorNumber(errno);
        return {};
    }
    if (const int reason = reasonAgainstType(opened.st_mode); reason != 0) {
        errorNumber = reason;
        return {};
    }
    if (!isSameFile(status, opened)) {
        errorNumber = EBUSY;
        return {};
    }
    if (mode.exclusive && flock(descriptor.number(), LOCK_EX | LOCK_NB) != 0) {
        errorNumber = LinuxOpenErrorNumber(errno);
        return {};
    }
    return descriptor;
}

bool isAligned(uint64_t value, uint32_t alignment)
{
    return value % alignment == 0;
}

int64_t resultOf(ssize_t transferred)
{
    return transferred < 0 ? -errno : transferred;
}

}  // namespace

int LinuxOpenErrorNumber(int errorNumber)
{
    switch (errorNumber) {
        case EROFS:
            return EACCES;
        case EWOULDBLOCK:  // somebody else's lock, or a lease that would have to be broken
            return EBUSY;
        default:
            return errorNumber;
    }
}

std::unique_ptr<LinuxBlockDevice> LinuxBlockDevice::openPath(const std::string& path,
                                                             PlatformDeviceOpener::Mode mode,
                                                             int& errorNumber)
{
    // Looked at before it is opened: opening some character devices alone has effects.
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        errorNumber = errno;
        return nullptr;
    }
    if (const int reason = reasonAgainstType(status.st_mode); reason != 0) {
        errorNumber = reason;
        return nullptr;
    }
    LinuxDescriptor descriptor = openAndLock(path, status, mode, errorNumber);
    if (!descriptor) {
        return nullptr;
    }
    Geometry geometry;
    if (const int reason = _getGeometry(descriptor.number(), mode.readWrite, geometry);
        reason != 0) {
        errorNumber = reason;
        return nullptr;
    }
    std::unique_ptr<LinuxBlockDevice> device(new LinuxBlockDevice(std::move(descriptor), geometry));
    device->_openDirectly(path, mode.readWrite);
    return device;
}

LinuxBlockDevice::LinuxBlockDevice(LinuxDescriptor descriptor, Geometry geometry)
    : _descriptor(std::move(descriptor)), _geometry(geometry)
{
    // A hint: a file system without read-ahead has none to switch off.
    std::ignore = posix_fadvise(_descriptor.number(), 0, 0, POSIX_FADV_RANDOM);
}

int LinuxBlockDevice::_getGeometry(int descriptor, bool readWrite, Geometry& geometry)
{
    struct stat status = {};
    if (fstat(descriptor, &status) != 0) {
        return errno;
    }
    if (S_ISREG(status.st_mode)) {
        geometry.blockSize = kFileBlockSize;
        geometry.blockCount = static_cast<uint64_t>(status.st_size) / kFileBlockSize;
        geometry.writable = readWrite;
        return 0;
    }
    int readOnly = 0;
    int blockSize = 0;
    uint64_t sizeBytes = 0;
    if (ioctl(descriptor, BLKROGET, &readOnly) != 0 ||
        ioctl(descriptor, BLKSSZGET, &blockSize) != 0 ||
        ioctl(descriptor, BLKGETSIZE64, &sizeBytes) != 0) {
        return errno;
    }
    if (blockSize <= 0) {
        return EINVAL;
    }
    geometry.blockSize = static_cast<uint32_t>(blockSize);
    geometry.blockCount = sizeBytes / geometry.blockSize;
    geometry.writable = readWrite && readOnly == 0;
    return 0;
}

void LinuxBlockDevice::_openDirectly(const std::string& path, bool readWrite)
{
    // A second open file: the flag belongs to the open file, and the other way is needed as well.
    LinuxDescriptor direct(
        openRepeatedly(path, (readWrite ? O_RDWR : O_RDONLY) | O_DIRECT | O_NONBLOCK));
    struct stat ordinaryStatus = {};
    struct stat directStatus = {};
    if (!direct || fstat(_descriptor.number(), &ordinaryStatus) != 0 ||
        fstat(direct.number(), &directStatus) != 0 || !isSameFile(ordinaryStatus, directStatus)) {
        return;
    }
    _alignment = {.memory = kSafeAlignment, .offset = kSafeAlignment};
#ifdef STATX_DIOALIGN
    struct statx extended = {};
    if (statx(direct.number(), "", AT_EMPTY_PATH, STATX_DIOALIGN, &extended) == 0 &&
        (extended.stx_mask & STATX_DIOALIGN) != 0) {
        _alignment = {.memory = extended.stx_dio_mem_align,
                      .offset = extended.stx_dio_offset_align};
    }
#endif
    if (_alignment.memory != 0 && _alignment.offset != 0) {
        _directDescriptor = std::move(direct);
    }
}

uint64_t LinuxBlockDevice::_sizeBytes() const
{
    return _geometry.blockSize * _geometry.blockCount;
}

bool LinuxBlockDevice::isDirect(const void* buffer, size_t nbyte, uint64_t offset) const
{
    return _directDescriptor && isAligned(offset, _alignment.offset) &&
           isAligned(nbyte, _alignment.offset) &&
           isAligned(reinterpret_cast<uintptr_t>(buffer), _alignment.memory);
}

int64_t LinuxBlockDevice::readAt(void* buffer, size_t nbyte, uint64_t offset)
{
    if (offset >= _sizeBytes()) {
        return 0;
    }
    nbyte = static_cast<size_t>(std::min<uint64_t>(nbyte, _sizeBytes() - offset));
    const auto position = static_cast<off_t>(offset);
    if (isDirect(buffer, nbyte, offset)) {
        const int64_t result = resultOf(pread(_directDescriptor.number(), buffer, nbyte, position));
        if (result != -EINVAL) {
            return result;
        }
        // The alignment was right in vain: the ordinary way has no such conditions.
    }
    return resultOf(pread(_descriptor.number(), buffer, nbyte, position));
}

int64_t LinuxBlockDevice::writeAt(const void* buffer, size_t nbyte, uint64_t offset)
{
    // Refused here as by a device: a file would grow.
    if (offset > _sizeBytes() || nbyte > _sizeBytes() - offset) {
        return -ENOSPC;
    }
    const auto position = static_cast<off_t>(offset);
    if (isDirect(buffer, nbyte, offset)) {
        const int64_t result =
            resultOf(pwrite(_directDescriptor.number(), buffer, nbyte, position));
        if (result != -EINVAL) {
            return result;
        }
    }
    return resultOf(pwrite(_descriptor.number(), buffer, nbyte, position));
}

int LinuxBlockDevice::synchronize()
{
    // Of the file, not of the descriptor: covers what either way has written.
    return fdatasync(_descriptor.number()) == 0 ? 0 : errno;
}

std::unique_ptr<PlatformBlockDevice> LinuxBlockDevice::duplicate() const
{
    LinuxDescriptor descriptor(fcntl(_descriptor.number(), F_DUPFD_CLOEXEC, 0));
    if (!descriptor) {
        return nullptr;
    }
    std::unique_ptr<LinuxBlockDevice> device(
        new LinuxBlockDevice(std::move(descriptor), _geometry));
    if (_directDescriptor) {
        device->_alignment = _alignment;
        device->_directDescriptor =
            LinuxDescriptor(fcntl(_directDescriptor.number(), F_DUPFD_CLOEXEC, 0));
        if (!device->_directDescriptor) {
            return nullptr;
        }
    }
    return device;
}
