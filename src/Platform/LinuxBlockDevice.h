#pragma once

#include <string>

#include "Platform/LinuxDescriptor.h"
#include "Platform/PlatformBlockDevice.h"
#include "Platform/PlatformDeviceOpener.h"

/** The errno value of a failed open as PlatformDeviceOpener words it: a read-only file system is no
 *  permission, a lock held elsewhere is a busy device. */
[[nodiscard]] int LinuxOpenErrorNumber(int errorNumber);

/** A block device, or a regular file taken as a device of 512-byte blocks.
 *
 *  Transfers that fit the alignment the kernel asks for bypass the page cache; the others, and all
 *  of them where that is refused, take the ordinary way with read-ahead off. The kernel keeps the
 *  two ways coherent. The bytes of a file behind its last whole block are never touched.
 */
class LinuxBlockDevice final : public PlatformBlockDevice {
public:
    /** Opens @p path; null with the reason in @p errorNumber.
     *
     *  EBUSY: somebody else holds it. EACCES: no permission, or a read-only file system. ENOTBLK or
     *  EISDIR: neither a block device nor a regular file. Never waits for a peer or a lock.
     */
    [[nodiscard]] static std::unique_ptr<LinuxBlockDevice> openPath(const std::string& path,
                                                                    PlatformDeviceOpener::Mode mode,
                                                                    int& errorNumber);

    [[nodiscard]] int64_t readAt(void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] int64_t writeAt(const void* buffer, size_t nbyte, uint64_t offset) override;
    [[nodiscard]] int synchronize() override;
    [[nodiscard]] uint32_t blockSize() const override { return _geometry.blockSize; }
    [[nodiscard]] uint64_t blockCount() const override { return _geometry.blockCount; }
    [[nodiscard]] bool isWritable() const override { return _geometry.writable; }
    [[nodiscard]] std::unique_ptr<PlatformBlockDevice> duplicate() const override;

    /** Whether a transfer like this bypasses the page cache. */
    [[nodiscard]] bool isDirect(const void* buffer, size_t nbyte, uint64_t offset) const;

private:
    struct Geometry {
        uint32_t blockSize = 0;   // bytes
        uint64_t blockCount = 0;  // whole blocks
        bool writable = false;
    };
    /** What direct transfers must be multiples of, in bytes; 0 when there are none. */
    struct Alignment {
        uint32_t memory = 0;
        uint32_t offset = 0;
    };

    LinuxBlockDevice(LinuxDescriptor descriptor, Geometry geometry);

    [[nodiscard]] static int _getGeometry(int descriptor, bool readWrite, Geometry& geometry);
    void _openDirectly(const std::string& path, bool readWrite);
    [[nodiscard]] uint64_t _sizeBytes() const;

    LinuxDescriptor _descriptor;        // holds the locks as well
    LinuxDescriptor _directDescriptor;  // empty where the page cache cannot be bypassed
    Geometry _geometry;
    Alignment _alignment;
};
