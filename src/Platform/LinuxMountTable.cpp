#include "Platform/LinuxMountTable.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>
#include <utility>

/** A loop device and what is behind it. */
struct LinuxMountTable::LoopDevice {
    std::vector<dev_t> numbers;  // its own and its partitions'
    struct stat backing;
};

/** One line of the table. */
struct LinuxMountTable::Record {
    dev_t number = 0;  // of the file system, which need not be a device's
    std::string source;
    bool readOnly = false;
};

namespace {

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> fields;
    for (size_t start = 0; start <= text.size();) {
        const size_t end = std::min(text.find(separator, start), text.size());
        fields.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return fields;
}

bool isOctalDigit(char character)
{
    return character >= '0' && character <= '7';
}

/** Undoes the table's escapes: a backslash and three octal digits for a byte. */
std::string unescape(std::string_view text)
{
    std::string plain;
    for (size_t index = 0; index < text.size(); ++index) {
        const std::string_view digits = text.substr(index + 1, 3);
        if (text[index] == '\\' && digits.size() == 3 &&
            std::ranges::all_of(digits, isOctalDigit)) {
            plain += static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 +
                                       (digits[2] - '0'));
            index += 3;
        } else {
            plain += text[index];
        }
    }
    return plain;
}

/** A device number written "major:minor". */
bool parseDeviceNumber(std::string_view text, dev_t& number)
{
    const std::vector<std::string_view> parts = split(text, ':');
    unsigned values[2] = {};
    if (parts.size() != 2) {
        return false;
    }
    for (size_t index = 0; index < 2; ++index) {
        const char* const end = parts[index].data() + parts[index].size();
        const auto [parsed, error] = std::from_chars(parts[index].data(), end, values[index]);
        if (error != std::errc() || parsed != end) {
            return false;
        }
    }
    number = makedev(values[0], values[1]);
    return true;
}

/** The first line of a small file; "" when it cannot be read. */
std::string firstLineOfFile(const std::filesystem::path& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

bool isSameStorage(const struct stat& left, const struct stat& right)
{
    if (S_ISBLK(left.st_mode) && S_ISBLK(right.st_mode)) {
        return left.st_rdev == right.st_rdev;
    }
    return S_ISREG(left.st_mode) && S_ISREG(right.st_mode) && left.st_dev == right.st_dev &&
           left.st_ino == right.st_ino;
}

/** Directories below @p folder whose names begin with @p prefix. */
std::vector<std::filesystem::path> foldersNamed(const std::filesystem::path& folder,
                                                const std::string& prefix)
{
    std::vector<std::filesystem::path> folders;
    std::error_code error;
    std::filesystem::directory_iterator iterator(folder, error);
    while (!error && iterator != std::filesystem::directory_iterator()) {
        if (iterator->path().filename().string().starts_with(prefix)) {
            folders.push_back(iterator->path());
        }
        iterator.increment(error);
    }
    return folders;
}

/** The block device's name where @p realPath is that of a raw device, else @p realPath.
 *
 *  Such names exist for volumes that a user-space driver has mounted under them. Here a name like
 *  "/dev/rbd0" may as well be a block device's own, so both forms count as the device's.
 */
std::string blockDeviceName(const std::string& realPath)
{
    constexpr std::string_view kRawPrefix = "/dev/r";
    if (realPath.size() > kRawPrefix.size() && realPath.starts_with(kRawPrefix)) {
        return "/dev/" + realPath.substr(kRawPrefix.size());
    }
    return realPath;
}

}  // namespace

LinuxMountTable::LinuxMountTable(std::string mountInfoPath, std::string sysfsRoot)
    : _mountInfoPath(std::move(mountInfoPath)), _sysfsRoot(std::move(sysfsRoot))
{
}

LinuxMountTable::Device LinuxMountTable::deviceAtPath(const std::string& path) const
{
    const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr),
                                                               &std::free);
    struct stat status = {};
    if (resolved == nullptr || stat(resolved.get(), &status) != 0) {
        return {};
    }
    Device device{.realPath = resolved.get(), .numbers = {}};
    if (S_ISBLK(status.st_mode)) {
        device.numbers.push_back(status.st_rdev);
    }
    const std::vector<LoopDevice> loops = _loopDevices();
    // A loop device's bytes are those of its file, which other loop devices may show as well.
    std::vector<struct stat> storages = {status};
    for (const LoopDevice& loop : loops) {
        if (S_ISBLK(status.st_mode) && loop.numbers.front() == status.st_rdev) {
            storages.push_back(loop.backing);
        }
    }
    for (const LoopDevice& loop : loops) {
        if (std::ranges::any_of(storages, [&loop](const struct stat& storage) {
                return isSameStorage(storage, loop.backing);
            })) {
            device.numbers.insert(device.numbers.end(), loop.numbers.begin(), loop.numbers.end());
        }
    }
    return device;
}

std::vector<LinuxMountTable::LoopDevice> LinuxMountTable::_loopDevices() const
{
    std::vector<LoopDevice> loops;
    for (const std::filesystem::path& folder : foldersNamed(_sysfsRoot + "/block", "loop")) {
        LoopDevice loop = {};
        dev_t number = 0;
        const std::string backingFile = firstLineOfFile(folder / "loop" / "backing_file");
        if (backingFile.empty() || stat(backingFile.c_str(), &loop.backing) != 0 ||
            !parseDeviceNumber(firstLineOfFile(folder / "dev"), number)) {
            continue;
        }
        loop.numbers.push_back(number);
        for (const std::filesystem::path& partition :
             foldersNamed(folder, folder.filename().string())) {
            if (parseDeviceNumber(firstLineOfFile(partition / "dev"), number)) {
                loop.numbers.push_back(number);
            }
        }
        loops.push_back(std::move(loop));
    }
    return loops;
}

PlatformDeviceOpener::MountState LinuxMountTable::stateOfDevice(const Device& device) const
{
    PlatformDeviceOpener::MountState state;
    if (device.realPath.empty()) {
        return state;
    }
    std::ifstream table(_mountInfoPath);
    std::string line;
    while (std::getline(table, line)) {
        Record record;
        if (_parseRecord(line, record) && _isMountOf(record, device)) {
            state.readOnly = record.readOnly && (state.readOnly || !state.mounted);
            state.mounted = true;
        }
    }
    return state;
}

bool LinuxMountTable::_parseRecord(std::string_view line, Record& record)
{
    const std::vector<std::string_view> fields = split(line, ' ');
    constexpr size_t kNumberField = 2;
    constexpr size_t kFirstOptionalField = 6;
    if (fields.size() <= kFirstOptionalField ||
        !parseDeviceNumber(fields[kNumberField], record.number)) {
        return false;
    }
    // Type, source and options of the file system follow the end mark of the optional fields.
    const auto mark = std::find(fields.begin() + kFirstOptionalField, fields.end(), "-");
    if (fields.end() - mark < 4) {
        return false;
    }
    record.source = unescape(mark[2]);
    // The file system's options, not the mount's: one mount may be read-only and the next not.
    record.readOnly = std::ranges::count(split(mark[3], ','), std::string_view("ro")) > 0;
    return true;
}

bool LinuxMountTable::_isMountOf(const Record& record, const Device& device)
{
    const auto isOfDevice = [&device](dev_t number) {
        return std::ranges::count(device.numbers, number) > 0;
    };
    if (record.source == device.realPath || record.source == blockDeviceName(device.realPath) ||
        isOfDevice(record.number)) {
        return true;
    }
    // File systems over several devices have a number of their own, and names may be links. Only
    // names of devices are followed: others may lead to a server that does not answer.
    struct stat status = {};
    return record.source.starts_with("/dev/") && stat(record.source.c_str(), &status) == 0 &&
           S_ISBLK(status.st_mode) && isOfDevice(status.st_rdev);
}
