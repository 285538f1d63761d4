#include "Platform/PlatformFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "Platform/LinuxDescriptor.h"

std::optional<std::string> PlatformContentsOfFile(const std::string& path, size_t mostBytes)
{
    // Only opening must not wait: once the pipe is open, reading ends when no writer is left.
    const LinuxDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file || ::fcntl(file.number(), F_SETFL, 0) != 0) {
        return std::nullopt;
    }
    std::string contents;
    std::array<char, 65536> chunk;
    while (contents.size() <= mostBytes) {
        const ssize_t count = ::read(file.number(), chunk.data(), chunk.size());
        if (count == 0) {
            return contents;
        }
        if (count > 0) {
            contents.append(chunk.data(), static_cast<size_t>(count));
        } else if (errno != EINTR) {
            return std::nullopt;
        }
    }
    return std::nullopt;
}
