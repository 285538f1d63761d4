#include "ControlOutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <tuple>

namespace {

/** Closes a descriptor. */
class Descriptor {
public:
    explicit Descriptor(int descriptor) : _descriptor(descriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (_descriptor >= 0) {
            ::close(_descriptor);
        }
    }
    [[nodiscard]] int get() const { return _descriptor; }

private:
    int _descriptor;
};

bool failWithReason(const std::string& path, ControlErrorSlot error)
{
    return ControlFail(error, ControlStatus::kInputOutput,
                       path + " cannot be written: " + std::strerror(errno) + '.');
}

bool writeAll(int descriptor, std::string_view content)
{
    while (!content.empty()) {
        const ssize_t written = ::write(descriptor, content.data(), content.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        content.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
    }
    return true;
}

std::string_view firstLineOf(std::string_view content)
{
    return content.substr(0, content.find('\n'));
}

/** Whether the file at @p path is empty or begins with @p line. */
bool isOlderVersion(const std::string& path, std::string_view line)
{
    std::string beginning(line.size(), '\0');
    std::ifstream file(path, std::ios::binary);
    file.read(beginning.data(), static_cast<std::streamsize>(beginning.size()));
    const auto size = static_cast<size_t>(file.gcount());
    return file.is_open() && (size == 0 || (size == line.size() && beginning == line));
}

/** Puts @p content in the place of @p path by way of a file beside it. */
bool replaceFile(const std::string& path, std::string_view content, mode_t mode,
                 ControlErrorSlot error)
{
    std::string temporary = path + ".XXXXXX";
    const Descriptor file(::mkstemp(temporary.data()));
    if (file.get() < 0) {
        return failWithReason(path, error);
    }
    if (!writeAll(file.get(), content) || ::fchmod(file.get(), mode) != 0 ||
        ::fsync(file.get()) != 0 || ::rename(temporary.c_str(), path.c_str()) != 0) {
        std::ignore = failWithReason(path, error);
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

mode_t modeOfNewFiles()
{
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

}  // namespace

bool mayWriteOutputFile(const std::string& path, std::string_view beginning, ControlErrorSlot error)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0 || S_ISCHR(status.st_mode) || S_ISFIFO(status.st_mode) ||
        (S_ISREG(status.st_mode) && isOlderVersion(path, beginning))) {
        return true;
    }
    return ControlFail(error, ControlStatus::kRefused,
                       path + " holds something else and is left as it is.");
}

bool writeOutputFile(const std::string& path, std::string_view content, ControlErrorSlot error)
{
    if (!mayWriteOutputFile(path, firstLineOf(content), error)) {
        return false;
    }
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) {
        return replaceFile(path, content, modeOfNewFiles(), error);
    }
    if (S_ISREG(status.st_mode)) {
        return replaceFile(path, content, status.st_mode & 07777U, error);
    }
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return (file.get() >= 0 && writeAll(file.get(), content)) || failWithReason(path, error);
}
