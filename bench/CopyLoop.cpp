// copyloop FILE BYTES: what a defragmentation costs at least. Reads BYTES from the lower half of
// FILE and writes them to its upper half, in pieces of 64 MiB past the page cache, and waits until
// they are on the medium. Begins each half again where BYTES exceeds it.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr uint64_t kPiece = uint64_t{64} << 20;
constexpr uint64_t kAlignment = 4096;

int fail(const char* what)
{
    std::fprintf(stderr, "copyloop: %s: %s\n", what, std::strerror(errno));
    return EXIT_FAILURE;
}

/** Moves @p bytes in all; 0 or a failing exit status. */
int copy(int file, uint64_t half, uint64_t bytes)
{
    const std::unique_ptr<void, decltype(&std::free)> buffer(std::aligned_alloc(kAlignment, kPiece),
                                                             &std::free);
    if (buffer == nullptr) {
        return fail("buffer");
    }
    uint64_t offset = 0;
    while (bytes > 0) {
        const uint64_t piece = std::min({kPiece, bytes, half - offset});
        const auto from = static_cast<off_t>(offset);
        const auto to = static_cast<off_t>(half + offset);
        if (pread(file, buffer.get(), piece, from) != static_cast<ssize_t>(piece)) {
            return fail("read");
        }
        if (pwrite(file, buffer.get(), piece, to) != static_cast<ssize_t>(piece)) {
            return fail("write");
        }
        bytes -= piece;
        offset = offset + piece < half ? offset + piece : 0;
    }
    return fdatasync(file) == 0 ? EXIT_SUCCESS : fail("synchronize");
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fputs("usage: copyloop FILE BYTES\n", stderr);
        return EXIT_FAILURE;
    }
    const int file = open(argv[1], O_RDWR | O_DIRECT | O_CLOEXEC);
    struct stat status = {};
    if (file < 0 || fstat(file, &status) != 0) {
        return fail(argv[1]);
    }
    const uint64_t half = static_cast<uint64_t>(status.st_size) / 2 / kAlignment * kAlignment;
    // A part of an aligned unit costs as much as the whole.
    const uint64_t bytes =
        (std::strtoull(argv[2], nullptr, 10) + kAlignment - 1) / kAlignment * kAlignment;
    if (half == 0 || bytes == 0) {
        errno = EINVAL;
        return fail("nothing to copy");
    }
    const int result = copy(file, half, bytes);
    return close(file) == 0 ? result : fail("close");
}
