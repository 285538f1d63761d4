#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "KLKit/KLThreadGate.h"
#include "Platform/PlatformBlockDevice.h"
#include "Platform/PlatformDeviceOpener.h"
#include "VZDefragError.h"

class VZDefragVolume;

/** Recognises a volume on an open device and builds its model; implemented above this layer. */
class VZDefragVolumeProber {
public:
    virtual ~VZDefragVolumeProber() = default;
    /** False only when a read failed; @p valid says whether a supported volume is there. */
    [[nodiscard]] virtual bool probe(VZDefragVolume& volume, bool& valid,
                                     VZDefragErrorSlot error) = 0;
    /** The volume model on a second handle of @p volume's device, or null. */
    [[nodiscard]] virtual std::unique_ptr<VZDefragVolume> initWithVolume(
        const VZDefragVolume& volume, VZDefragErrorSlot error) = 0;
};

/** Byte-addressed access to a disk device or image file, and the gate of the volume on it.
 *
 *  Fields are fixed after construction and transfers are positioned, so several threads may read
 *  and write at once; excluding tasks from one another is the gate's business.
 */
class VZDefragVolume {
public:
    /** Longer transfers go to the device in pieces of so many bytes, which bounds the memory that
     *  an unaligned piece takes. */
    static constexpr size_t kLargestPiece = 1048576;

    /** Opens the device at @p path, probes it and returns the volume found there, or null. */
    [[nodiscard]] static std::unique_ptr<VZDefragVolume> initWithDevice(
        const std::string& path, PlatformDeviceOpener& opener, VZDefragVolumeProber& prober,
        VZDefragErrorSlot error = nullptr);
    /** A plain volume on a device that is already open and not mounted. */
    [[nodiscard]] static std::unique_ptr<VZDefragVolume> initWithBlockDevice(
        std::string path, std::unique_ptr<PlatformBlockDevice> device);

    VZDefragVolume(const VZDefragVolume&) = delete;
    VZDefragVolume& operator=(const VZDefragVolume&) = delete;
    virtual ~VZDefragVolume();

    /** Whether volumes mounted read-only may be written (set before the device is opened). */
    static void setSafeBoot(bool safeBoot);

    [[nodiscard]] bool isMounted() const { return _mounted && !_mountedSafe; }
    [[nodiscard]] bool isWritable() const { return _writable; }
    [[nodiscard]] uint32_t deviceBlockSize() const { return _deviceBlockSize; }
    [[nodiscard]] uint64_t deviceSizeBytes() const { return _deviceSizeBytes; }
    [[nodiscard]] const std::string& path() const { return _path; }

    /** A second handle on the open device, for a copy of this volume; null with errno set. */
    [[nodiscard]] std::unique_ptr<PlatformBlockDevice> duplicateDevice() const;

    [[nodiscard]] KLThreadGate& gate() { return _gate; }
    void closeGate() { _gate.close(); }
    void openGate() { _gate.open(); }
    void yieldGate() { _gate.yield(); }

    /** Reads exactly @p nbyte bytes at byte @p offset or fails. Any alignment. */
    [[nodiscard]] virtual bool read(void* buffer, size_t nbyte, uint64_t offset,
                                    VZDefragErrorSlot error);
    /** Writes exactly @p nbyte bytes at byte @p offset or fails; aborts on a read-only volume. */
    [[nodiscard]] virtual bool write(const void* buffer, size_t nbyte, uint64_t offset,
                                     VZDefragErrorSlot error);
    /** Makes every write so far durable. Costs nothing when nothing was written since the last.
     *
     *  Fails with "Write failure.", and then for ever: a barrier that failed protects nothing.
     */
    [[nodiscard]] bool synchronize(VZDefragErrorSlot error);

protected:
    /** Takes over path, flags and sizes of @p volume with a second handle on its device. */
    explicit VZDefragVolume(const VZDefragVolume& volume,
                            std::unique_ptr<PlatformBlockDevice> device);

    bool _mounted = false;
    bool _mountedSafe = false;
    bool _writable = false;

private:
    /** The device blocks that a piece touches. */
    struct Span {
        uint64_t offset;  // bytes, at a block boundary
        size_t nbyte;     // whole blocks
        size_t head;      // bytes of the span before the piece
    };

    explicit VZDefragVolume(std::string path);

    /** Takes @p device over; returns 0, or the errno value that fits a device that cannot be used.
     */
    [[nodiscard]] int _setDevice(std::unique_ptr<PlatformBlockDevice> device);
    /** Opens the device as its mount state allows; the last errno value is left in
     *  @p errorNumber, also where opening read-only helped. */
    [[nodiscard]] bool _openDevice(PlatformDeviceOpener& opener, int& errorNumber);
    [[nodiscard]] std::unique_ptr<VZDefragVolume> _probeWith(VZDefragVolumeProber& prober,
                                                             VZDefragErrorSlot error);
    void _logDeviceInfo() const;

    [[nodiscard]] bool _isInRange(size_t nbyte, uint64_t offset) const;
    [[nodiscard]] Span _spanOf(size_t nbyte, uint64_t offset) const;
    // One attempt each: the bytes transferred, or a negative errno value.
    [[nodiscard]] int64_t _readPiece(uint8_t* buffer, size_t nbyte, uint64_t offset);
    [[nodiscard]] int64_t _writePiece(const uint8_t* buffer, size_t nbyte, uint64_t offset);

    KLThreadGate _gate;
    std::string _path;
    std::unique_ptr<PlatformBlockDevice> _device;  // null when not open
    uint32_t _deviceBlockSize = 0;                 // bytes
    uint64_t _deviceBlockCount = 0;
    uint64_t _deviceSizeBytes = 0;
    // Held from reading a span until it is written back with a piece changed: two pieces that share
    // a device block would otherwise undo one another.
    std::mutex _spanLock;
    std::atomic<bool> _unsynchronized = false;  // something was written since the last barrier
    std::atomic<bool> _synchronizationFailed = false;
};
