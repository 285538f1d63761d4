#pragma once

#include <chrono>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>

/** Does @p work; false when the system could not give it the memory, or the thread, that it needs.
 *
 *  The one place where exceptions end: nothing of ours throws. What @p work had begun is undone by
 *  its guards.
 */
template <typename Work>
[[nodiscard]] bool KLWithinMemory(const Work& work)
{
    try {
        work();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;  // more than any container can hold, as a size from a disk may ask for
    } catch (const std::system_error& failure) {
        if (failure.code() != std::errc::resource_unavailable_try_again) {
            throw;
        }
        return false;
    }
}

/** Does @p work again until there is memory for it: for what others wait for without end. */
template <typename Work>
void KLInsist(const Work& work)
{
    while (!KLWithinMemory(work)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}
