#pragma once

#include <memory>
#include <string>

#include "Platform/PlatformDeviceOpener.h"
#include "support/MemoryBlockDevice.h"

/** A device that counts as mounted. */
class MountedOpener : public PlatformDeviceOpener {
public:
    explicit MountedOpener(const MemoryBlockDevice& device) : _device(device) {}
    std::unique_ptr<PlatformBlockDevice> openDevice(const std::string& /*path*/, Mode /*mode*/,
                                                    int& /*errorNumber*/) override
    {
        return _device.share();
    }
    MountState mountState(const std::string& /*path*/) override { return {true, false}; }

private:
    const MemoryBlockDevice& _device;
};
