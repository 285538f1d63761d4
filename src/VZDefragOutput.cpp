#include "VZDefragOutput.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <tuple>

#include "VZDefragServices.h"

namespace {

/** Lines beyond this many bytes are sent on without waiting for a flush. */
constexpr size_t kOutputBufferLimit = 65536;

/** Waits until a non-blocking descriptor takes more bytes, or says why it never will. */
void waitUntilWritable(int descriptor)
{
    pollfd request{.fd = descriptor, .events = POLLOUT, .revents = 0};
    // Whatever ends the wait, the next write tells what it was.
    std::ignore = poll(&request, 1, -1);
}

/** Writes all of @p bytes; false when the descriptor takes no more. */
bool writeAll(int descriptor, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
        if (count > 0) {
            bytes.remove_prefix(static_cast<size_t>(count));
        } else if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            waitUntilWritable(descriptor);
        } else if (count == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace

VZDefragOutput::VZDefragOutput(int descriptor) : _descriptor(descriptor)
{
    // Printing takes no memory from here on: there are lines to print also when there is none.
    _buffer.reserve(2 * kOutputBufferLimit);
}

VZDefragOutput& VZDefragOutput::standardOutput()
{
    // Never destroyed: a detached task thread may still print while the process exits.
    static VZDefragOutput* const output = new VZDefragOutput(STDOUT_FILENO);
    return *output;
}

void VZDefragOutput::write(std::string_view lines)
{
    bool lostReader = false;
    {
        const std::lock_guard guard(_lock);
        if (!_readerIsGone) {
            lostReader = _append(lines);
        }
    }
    if (lostReader) {
        VZDefragServices::sharedServices().outputReaderDidGoAway();
    }
}

void VZDefragOutput::flush()
{
    bool lostReader = false;
    {
        const std::lock_guard guard(_lock);
        lostReader = !_readerIsGone && _drain();
    }
    if (lostReader) {
        VZDefragServices::sharedServices().outputReaderDidGoAway();
    }
}

bool VZDefragOutput::_append(std::string_view lines)
{
    if (lines.size() <= _buffer.capacity() - _buffer.size()) {
        _buffer.append(lines);
        return _buffer.size() >= kOutputBufferLimit && _drain();
    }
    if (_drain()) {
        return true;
    }
    _readerIsGone = !writeAll(_descriptor, lines);
    return _readerIsGone;
}

bool VZDefragOutput::_drain()
{
    _readerIsGone = !writeAll(_descriptor, _buffer);
    _buffer.clear();
    return _readerIsGone;
}

void VZDefragWriteOutput(std::string_view lines)
{
    VZDefragOutput::standardOutput().write(lines);
}

void VZDefragFlushOutput()
{
    VZDefragOutput::standardOutput().flush();
}

VZDefragOutputLock::VZDefragOutputLock()
{
    VZDefragOutput::standardOutput()._lock.lock();
}

VZDefragOutputLock::~VZDefragOutputLock()
{
    VZDefragOutput::standardOutput()._lock.unlock();
}
