#pragma once

#include <mutex>
#include <string>
#include <string_view>

/** Lines on their way to a descriptor, never split by another thread's. Any thread.
 *
 *  A write that fails means that the reader is gone: the services hear of it once, and what is
 *  written from then on is dropped. The process ignores SIGPIPE.
 */
class VZDefragOutput {
public:
    /** Writes to @p descriptor, which stays the caller's. */
    explicit VZDefragOutput(int descriptor);
    VZDefragOutput(const VZDefragOutput&) = delete;
    VZDefragOutput& operator=(const VZDefragOutput&) = delete;

    /** The lines of the protocol, on standard output. */
    [[nodiscard]] static VZDefragOutput& standardOutput();

    void write(std::string_view lines);
    void flush();

private:
    friend class VZDefragOutputLock;

    // Both return whether this call found the reader gone.
    [[nodiscard]] bool _append(std::string_view lines);
    [[nodiscard]] bool _drain();

    const int _descriptor;
    std::recursive_mutex _lock;  // guards what follows; taken before a task's lock, never after
    std::string _buffer;         // not yet written
    bool _readerIsGone = false;
};

/** Writes whole lines to standard output without flushing them. */
void VZDefragWriteOutput(std::string_view lines);
/** Sends what was written to the reader; a reader that is gone is told to the services once. */
void VZDefragFlushOutput();

/** Keeps other threads' lines out while a record of several writes is printed. */
class VZDefragOutputLock {
public:
    VZDefragOutputLock();
    VZDefragOutputLock(const VZDefragOutputLock&) = delete;
    VZDefragOutputLock& operator=(const VZDefragOutputLock&) = delete;
    ~VZDefragOutputLock();
};
