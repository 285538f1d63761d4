#include "VZDefragVolume.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <tuple>
#include <utility>

#include "KLKit/KLDebug.h"
#include "KLKit/KLStringUtilities.h"

namespace {

/** Set from the command line before the device is opened, constant afterwards. */
std::atomic<bool> safeBootFlag = false;

std::unique_ptr<uint8_t[]> allocateBytes(size_t nbyte)
{
    return std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[nbyte]);
}

/** Far more than signals can interrupt; a device that goes on saying so has failed. */
constexpr uint32_t kMostInterruptions = 1000;

/** Repeats @p attempt for as long as that attempt itself was interrupted. */
template <typename Attempt>
int64_t withoutInterruption(const Attempt& attempt)
{
    int64_t result = attempt();
    for (uint32_t count = 0; count < kMostInterruptions && result == -EINTR; ++count) {
        result = attempt();
    }
    return result;
}

/** Whether @p result is the whole piece. More than was asked for is no device's answer. */
bool isWholePiece(int64_t result, size_t piece)
{
    if (result > static_cast<int64_t>(piece)) {
        KLPanic("%lld bytes transferred instead of %lu\n", result, piece);
    }
    return result == static_cast<int64_t>(piece);
}

bool failToOpen(VZDefragErrorSlot error, const std::string& path, int errorNumber)
{
    switch (errorNumber) {
        case EBUSY:
            return VZDefragFail(error, "The device is busy.");
        case EACCES:
            return VZDefragFail(error, "Permission was denied.");
        default:
            return VZDefragFail(error, "Unable to open %1$@. An error %2$d occurred.", path,
                                errorNumber);
    }
}

}  // namespace

std::unique_ptr<VZDefragVolume> VZDefragVolume::initWithDevice(const std::string& path,
                                                               PlatformDeviceOpener& opener,
                                                               VZDefragVolumeProber& prober,
                                                               VZDefragErrorSlot error)
{
    std::unique_ptr<VZDefragVolume> device(new VZDefragVolume(path));
    int errorNumber = 0;
    if (!device->_openDevice(opener, errorNumber)) {
        std::ignore = failToOpen(error, path, errorNumber);
        return nullptr;
    }
    device->_logDeviceInfo();

    std::unique_ptr<VZDefragVolume> volume = device->_probeWith(prober, error);
    if (volume == nullptr) {
        // Only where no step gave a better reason.
        std::ignore = failToOpen(error, path, errorNumber);
    }
    return volume;
}

std::unique_ptr<VZDefragVolume> VZDefragVolume::initWithBlockDevice(
    std::string path, std::unique_ptr<PlatformBlockDevice> device)
{
    std::unique_ptr<VZDefragVolume> volume(new VZDefragVolume(std::move(path)));
    const bool writable = device->isWritable();
    if (volume->_setDevice(std::move(device)) != 0) {
        return nullptr;
    }
    volume->_writable = writable;
    return volume;
}

VZDefragVolume::VZDefragVolume(std::string path) : _path(std::move(path)) {}

VZDefragVolume::VZDefragVolume(const VZDefragVolume& volume,
                               std::unique_ptr<PlatformBlockDevice> device)
    : _mounted(volume._mounted),
      _mountedSafe(volume._mountedSafe),
      _writable(volume._writable),
      _path(volume._path),
      _device(std::move(device)),
      _deviceBlockSize(volume._deviceBlockSize),
      _deviceBlockCount(volume._deviceBlockCount),
      _deviceSizeBytes(volume._deviceSizeBytes),
      _unsynchronized(volume._unsynchronized.load()),
      _synchronizationFailed(volume._synchronizationFailed.load())
{
}

VZDefragVolume::~VZDefragVolume() = default;

void VZDefragVolume::setSafeBoot(bool safeBoot)
{
    safeBootFlag = safeBoot;
}

std::unique_ptr<PlatformBlockDevice> VZDefragVolume::duplicateDevice() const
{
    return _device->duplicate();
}

bool VZDefragVolume::_openDevice(PlatformDeviceOpener& opener, int& errorNumber)
{
    const PlatformDeviceOpener::MountState state = opener.mountState(_path);
    _mounted = state.mounted;
    _mountedSafe = state.mounted && state.readOnly && safeBootFlag;

    std::unique_ptr<PlatformBlockDevice> device;
    if (!isMounted()) {
        // A file system mounted read-only holds the device itself, so the lock is not to be had.
        device =
            opener.openDevice(_path, {.readWrite = true, .exclusive = !_mountedSafe}, errorNumber);
        _writable = device != nullptr && device->isWritable();
    }
    if (device == nullptr && (isMounted() || errorNumber == EACCES)) {
        // Who only reads shares the device with others, hence no lock. The reason why writing is
        // denied stays the last error: it explains more than a later failure without one.
        int readOnlyErrorNumber = 0;
        device =
            opener.openDevice(_path, {.readWrite = false, .exclusive = false}, readOnlyErrorNumber);
        if (device == nullptr) {
            errorNumber = readOnlyErrorNumber;
        }
    }
    if (device == nullptr) {
        return false;
    }
    if (const int reason = _setDevice(std::move(device)); reason != 0) {
        errorNumber = reason;
        return false;
    }
    return true;
}

int VZDefragVolume::_setDevice(std::unique_ptr<PlatformBlockDevice> device)
{
    _deviceBlockSize = device->blockSize();
    _deviceBlockCount = device->blockCount();
    if (_deviceBlockSize == 0) {
        return EINVAL;
    }
    // Results of transfers are signed, and so is every offset of the system's.
    const auto limit = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    if (_deviceBlockCount > limit / _deviceBlockSize) {
        return EOVERFLOW;
    }
    _deviceSizeBytes = _deviceBlockSize * _deviceBlockCount;
    _device = std::move(device);
    return 0;
}

std::unique_ptr<VZDefragVolume> VZDefragVolume::_probeWith(VZDefragVolumeProber& prober,
                                                           VZDefragErrorSlot error)
{
    bool valid = false;
    if (!prober.probe(*this, valid, error)) {
        return nullptr;
    }
    if (!valid) {
        std::ignore = VZDefragFail(error, "Unsupported volume format.");
        return nullptr;
    }
    return prober.initWithVolume(*this, error);
}

void VZDefragVolume::_logDeviceInfo() const
{
    KLDebugLog(KLDebugLevel::kInfo,
               "Device info         = %@, %@ (block size = %lu, total blocks = %llu)\n", _path,
               stringWithPrettySize(_deviceSizeBytes), _deviceBlockSize, _deviceBlockCount);
}

bool VZDefragVolume::_isInRange(size_t nbyte, uint64_t offset) const
{
    return offset <= _deviceSizeBytes && nbyte <= _deviceSizeBytes - offset;
}

VZDefragVolume::Span VZDefragVolume::_spanOf(size_t nbyte, uint64_t offset) const
{
    // The device ends at a block boundary, so a piece inside it rounds up to a span inside it.
    const size_t head = static_cast<size_t>(offset % _deviceBlockSize);
    const size_t blocks = (head + nbyte + _deviceBlockSize - 1) / _deviceBlockSize;
    return {.offset = offset - head, .nbyte = blocks * _deviceBlockSize, .head = head};
}

bool VZDefragVolume::read(void* buffer, size_t nbyte, uint64_t offset, VZDefragErrorSlot error)
{
    if (!_isInRange(nbyte, offset)) {
        return VZDefragFail(error, "Out of range read failed at offset %llu and size %lu.", offset,
                            nbyte);
    }
    auto* destination = static_cast<uint8_t*>(buffer);
    while (nbyte > 0) {
        const size_t piece = std::min(nbyte, kLargestPiece);
        const int64_t result =
            withoutInterruption([&] { return _readPiece(destination, piece, offset); });
        if (!isWholePiece(result, piece)) {
            return result < 0 ? VZDefragFail(error,
                                             "Read failed with an error %d at offset %llu and "
                                             "size %lu.",
                                             -result, offset, piece)
                              : VZDefragFail(error, "Read failed at offset %llu and size %lu.",
                                             offset, piece);
        }
        destination += piece;
        offset += piece;
        nbyte -= piece;
    }
    return true;
}

bool VZDefragVolume::write(const void* buffer, size_t nbyte, uint64_t offset,
                           VZDefragErrorSlot error)
{
    if (!_writable) {
        KLPanic("write to %@, which is not writable\n", _path);
    }
    if (!_isInRange(nbyte, offset)) {
        return VZDefragFail(error, "Out of range write failed at offset %llu and size %lu.", offset,
                            nbyte);
    }
    const auto* source = static_cast<const uint8_t*>(buffer);
    while (nbyte > 0) {
        const size_t piece = std::min(nbyte, kLargestPiece);
        // Before the attempt: a piece that failed may still have changed some of the blocks.
        _unsynchronized = true;
        const int64_t result =
            withoutInterruption([&] { return _writePiece(source, piece, offset); });
        if (!isWholePiece(result, piece)) {
            return result < 0 ? VZDefragFail(error,
                                             "Write failed with an error %d at offset %llu and "
                                             "size %lu.",
                                             -result, offset, piece)
                              : VZDefragFail(error, "Write failed at offset %llu and size %lu.",
                                             offset, piece);
        }
        source += piece;
        offset += piece;
        nbyte -= piece;
    }
    return true;
}

bool VZDefragVolume::synchronize(VZDefragErrorSlot error)
{
    // Cleared before the barrier, so that a write made meanwhile asks for the next one.
    if (!_synchronizationFailed && _unsynchronized.exchange(false)) {
        const int64_t result =
            withoutInterruption([&]() -> int64_t { return -_device->synchronize(); });
        // The kernel reports lost writes once: a later barrier would succeed without them.
        _synchronizationFailed = result != 0;
    }
    return !_synchronizationFailed || VZDefragFail(error, "Write failure.");
}

int64_t VZDefragVolume::_readPiece(uint8_t* buffer, size_t nbyte, uint64_t offset)
{
    const Span span = _spanOf(nbyte, offset);
    if (span.nbyte == nbyte) {
        return _device->readAt(buffer, nbyte, offset);
    }
    const std::unique_ptr<uint8_t[]> bounce = allocateBytes(span.nbyte);
    if (bounce == nullptr) {
        return -ENOMEM;
    }
    const int64_t result = _device->readAt(bounce.get(), span.nbyte, span.offset);
    if (result < 0) {
        return result;
    }
    if (result < static_cast<int64_t>(span.nbyte)) {
        return -ERANGE;
    }
    std::memcpy(buffer, bounce.get() + span.head, nbyte);
    return static_cast<int64_t>(nbyte);
}

int64_t VZDefragVolume::_writePiece(const uint8_t* buffer, size_t nbyte, uint64_t offset)
{
    const Span span = _spanOf(nbyte, offset);
    if (span.nbyte == nbyte) {
        return _device->writeAt(buffer, nbyte, offset);
    }
    const std::unique_ptr<uint8_t[]> bounce = allocateBytes(span.nbyte);
    if (bounce == nullptr) {
        return -ENOMEM;
    }
    const std::lock_guard guard(_spanLock);
    int64_t result = _device->readAt(bounce.get(), span.nbyte, span.offset);
    if (result < static_cast<int64_t>(span.nbyte)) {
        // A short read leaves bytes unknown that the write would put back: nothing is written.
        return std::min<int64_t>(result, 0);
    }
    std::memcpy(bounce.get() + span.head, buffer, nbyte);
    result = _device->writeAt(bounce.get(), span.nbyte, span.offset);
    if (result < 0) {
        return result;
    }
    return result == static_cast<int64_t>(span.nbyte) ? static_cast<int64_t>(nbyte) : -ERANGE;
}
