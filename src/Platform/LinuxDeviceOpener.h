#pragma once

#include "Platform/LinuxMountTable.h"
#include "Platform/PlatformDeviceOpener.h"

/** Opens the block devices and image files of this machine. Any thread. */
class LinuxDeviceOpener final : public PlatformDeviceOpener {
public:
    LinuxDeviceOpener() = default;
    explicit LinuxDeviceOpener(LinuxMountTable mountTable);

    [[nodiscard]] std::unique_ptr<PlatformBlockDevice> openDevice(const std::string& path,
                                                                  Mode mode,
                                                                  int& errorNumber) override;
    [[nodiscard]] MountState mountState(const std::string& path) override;

private:
    LinuxMountTable _mountTable;
};
