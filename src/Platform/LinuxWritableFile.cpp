#include "Platform/PlatformWritableFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <utility>

#include "Platform/LinuxDescriptor.h"

namespace {

class LinuxWritableFile final : public PlatformWritableFile {
public:
    explicit LinuxWritableFile(LinuxDescriptor descriptor) : _descriptor(std::move(descriptor)) {}

    int64_t readAt(void* buffer, size_t nbyte, uint64_t offset) override
    {
        return _resultOf(pread(_descriptor.number(), buffer, nbyte, static_cast<off_t>(offset)));
    }

    int64_t writeAt(const void* buffer, size_t nbyte, uint64_t offset) override
    {
        return _resultOf(pwrite(_descriptor.number(), buffer, nbyte, static_cast<off_t>(offset)));
    }

    int64_t size() override
    {
        struct stat status = {};
        return fstat(_descriptor.number(), &status) == 0 ? status.st_size : -errno;
    }

    int setSize(uint64_t nbyte) override
    {
        return ftruncate(_descriptor.number(), static_cast<off_t>(nbyte)) == 0 ? 0 : errno;
    }

    int synchronize() override { return fdatasync(_descriptor.number()) == 0 ? 0 : errno; }

private:
    static int64_t _resultOf(ssize_t transferred) { return transferred < 0 ? -errno : transferred; }

    LinuxDescriptor _descriptor;
};

LinuxDescriptor openRepeatedly(const std::string& path, int flags)
{
    int descriptor = -1;
    do {
        descriptor = open(path.c_str(), flags | O_CLOEXEC, S_IRUSR | S_IWUSR);
    } while (descriptor < 0 && errno == EINTR);
    return LinuxDescriptor(descriptor);
}

/** Makes the name of an open file itself survive a power cut. 0 or an errno value. */
int synchronizeFolderOf(const LinuxDescriptor& file)
{
    // Where the file lies, whatever links have led to it.
    std::error_code failure;
    const std::filesystem::path path =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file.number()), failure);
    if (failure) {
        return failure.value();
    }
    const LinuxDescriptor folder =
        openRepeatedly(path.parent_path().string(), O_RDONLY | O_DIRECTORY);
    if (!folder) {
        return errno;
    }
    int result = 0;
    do {
        result = fsync(folder.number()) == 0 ? 0 : errno;
    } while (result == EINTR);
    // Some file systems cannot do this for a folder, and have no need to.
    return result == EINVAL ? 0 : result;
}

}  // namespace

std::unique_ptr<PlatformWritableFile> PlatformOpenWritableFile(const std::string& path, bool create,
                                                               int& errorNumber)
{
    // A write beyond the limit of this process is to fail, not to end it.
    std::signal(SIGXFSZ, SIG_IGN);
    // Looked at before it is opened: opening some devices alone has effects.
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        errorNumber = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return nullptr;
    }
    // Should a fifo have taken its place meanwhile, nobody waits for its peer.
    LinuxDescriptor descriptor =
        openRepeatedly(path, O_RDWR | O_NONBLOCK | O_NOCTTY | (create ? O_CREAT : 0));
    if (!descriptor || fstat(descriptor.number(), &status) != 0) {
        errorNumber = errno;
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        errorNumber = EINVAL;
        return nullptr;
    }
    if (flock(descriptor.number(), LOCK_EX | LOCK_NB) != 0) {
        errorNumber = errno == EWOULDBLOCK ? EBUSY : errno;
        return nullptr;
    }
    errorNumber = create ? synchronizeFolderOf(descriptor) : 0;
    if (errorNumber != 0) {
        return nullptr;
    }
    return std::make_unique<LinuxWritableFile>(std::move(descriptor));
}
