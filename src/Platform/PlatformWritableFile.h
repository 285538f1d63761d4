#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

/** An ordinary file that is read, written and cut, held against every other opener of its kind.
 *
 *  One attempt each: a short count and EINTR are the caller's to judge. Used by one thread at a
 *  time.
 */
class PlatformWritableFile {
public:
    PlatformWritableFile() = default;
    PlatformWritableFile(const PlatformWritableFile&) = delete;
    PlatformWritableFile& operator=(const PlatformWritableFile&) = delete;
    virtual ~PlatformWritableFile() = default;

    /** The bytes read, fewer at the file's end, or a negative errno value. */
    [[nodiscard]] virtual int64_t readAt(void* buffer, size_t nbyte, uint64_t offset) = 0;

    /** The bytes written, or a negative errno value; the file grows as needed. */
    [[nodiscard]] virtual int64_t writeAt(const void* buffer, size_t nbyte, uint64_t offset) = 0;

    /** Its size in bytes, or a negative errno value. */
    [[nodiscard]] virtual int64_t size() = 0;

    /** Cuts the file, or lets it grow by zeros. 0 or an errno value. */
    [[nodiscard]] virtual int setSize(uint64_t nbyte) = 0;

    /** Returns 0 once all earlier changes are durable, else an errno value. */
    [[nodiscard]] virtual int synchronize() = 0;

    /** All of @p nbyte bytes, repeating what was interrupted: 0 or an errno value. Fewer bytes are
     *  EIO when reading and ENOSPC when writing. */
    [[nodiscard]] int readWhole(void* buffer, size_t nbyte, uint64_t offset);
    [[nodiscard]] int writeWhole(const void* buffer, size_t nbyte, uint64_t offset);
    [[nodiscard]] int synchronizeWhole();
};

/** Opens one certain file. Without @p create, null with ENOENT where there is none. */
using PlatformWritableFileOpener =
    std::function<std::unique_ptr<PlatformWritableFile>(bool create, int& errorNumber)>;

/** Opens the ordinary file at @p path; null with the reason in @p errorNumber.
 *
 *  EBUSY: another process holds it. EINVAL: something else than a file lies there. A file that is
 *  made here is readable by its owner alone, and its name is durable when this returns.
 */
[[nodiscard]] std::unique_ptr<PlatformWritableFile> PlatformOpenWritableFile(
    const std::string& path, bool create, int& errorNumber);
