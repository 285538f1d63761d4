#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/PlatformBlockDevice.h"

/** Opens devices and knows what is mounted. */
class PlatformDeviceOpener {
public:
    /** How a device is opened. */
    struct Mode {
        bool readWrite = false;
        bool exclusive = false;  // held against every other opener that asks for the same
    };

    /** What the mount table says of a device. */
    struct MountState {
        bool mounted = false;
        bool readOnly = false;
    };

    virtual ~PlatformDeviceOpener() = default;

    /** Opens @p path with caching and read-ahead off; null with the reason in @p errorNumber.
     *
     *  EBUSY: somebody else holds the device. EACCES: no permission, or a read-only file system.
     *  A device opened for writing may still say that it is not writable.
     */
    [[nodiscard]] virtual std::unique_ptr<PlatformBlockDevice> openDevice(const std::string& path,
                                                                          Mode mode,
                                                                          int& errorNumber) = 0;

    /** Whether a file system on @p path, or on a loop device that @p path backs, is mounted. */
    [[nodiscard]] virtual MountState mountState(const std::string& path) = 0;
};
