#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "Platform/PlatformDeviceOpener.h"

/** Answers from the kernel's table of mounted file systems. Any thread. */
class LinuxMountTable {
public:
    /** What a mount of a device or image file can be recognised by. */
    struct Device {
        std::string realPath;        // absolute, links followed
        std::vector<dev_t> numbers;  // of the block devices that reach its bytes
    };

    /** @p mountInfoPath is read anew for every answer; @p sysfsRoot tells the loop devices. */
    explicit LinuxMountTable(std::string mountInfoPath = "/proc/self/mountinfo",
                             std::string sysfsRoot = "/sys");

    /** The device at @p path; no path and no numbers when there is nothing. */
    [[nodiscard]] Device deviceAtPath(const std::string& path) const;

    /** Whether @p device is mounted, and whether every mount of it is of a read-only file system.
     *
     *  A table that cannot be read knows no mounts.
     */
    [[nodiscard]] PlatformDeviceOpener::MountState stateOfDevice(const Device& device) const;

private:
    struct LoopDevice;
    struct Record;

    [[nodiscard]] std::vector<LoopDevice> _loopDevices() const;
    [[nodiscard]] static bool _parseRecord(std::string_view line, Record& record);
    [[nodiscard]] static bool _isMountOf(const Record& record, const Device& device);

    std::string _mountInfoPath;
    std::string _sysfsRoot;
};
