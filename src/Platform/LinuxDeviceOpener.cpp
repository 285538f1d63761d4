#include "Platform/LinuxDeviceOpener.h"

#include <utility>

#include "Platform/LinuxBlockDevice.h"

LinuxDeviceOpener::LinuxDeviceOpener(LinuxMountTable mountTable)
    : _mountTable(std::move(mountTable))
{
}

std::unique_ptr<PlatformBlockDevice> LinuxDeviceOpener::openDevice(const std::string& path,
                                                                   Mode mode, int& errorNumber)
{
    return LinuxBlockDevice::openPath(path, mode, errorNumber);
}

PlatformDeviceOpener::MountState LinuxDeviceOpener::mountState(const std::string& path)
{
    return _mountTable.stateOfDevice(_mountTable.deviceAtPath(path));
}
