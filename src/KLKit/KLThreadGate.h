#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

class KLClosedGate;

/** Gives one thread at a time the use of a shared object, in order of arrival.
 *
 *  Re-entrant: the owner may close it again. Ownership passes only when the owner has opened the
 *  gate as often as it closed it, or yields. Any thread may call it.
 */
class KLThreadGate {
public:
    KLThreadGate() = default;
    KLThreadGate(const KLThreadGate&) = delete;
    KLThreadGate& operator=(const KLThreadGate&) = delete;

    /** Takes the gate; waits behind those who came first. */
    void close();
    /** Gives one close() back; ignored from a thread that does not hold the gate. */
    void open();
    /** Lets every waiting thread run once; keeps the nesting depth. */
    void yield();

    /** How many threads wait for their turn. */
    [[nodiscard]] size_t waiterCount();

private:
    struct Waiter {
        std::thread::id thread;
        uint32_t count = 0;
        Waiter* next = nullptr;
    };

    void _append(Waiter& waiter);
    void _handOverToFirstWaiter();

    std::mutex _lock;  // guards every other field
    std::thread::id _owner;
    uint32_t _refcnt = 0;
    std::condition_variable _signal;  // every waiter re-checks that it is the owner
    Waiter* _waitQHead = nullptr;
    Waiter* _waitQTail = nullptr;
};

/** Holds a gate closed for as long as it lives. */
class KLClosedGate {
public:
    explicit KLClosedGate(KLThreadGate& gate) : _gate(&gate) { gate.close(); }
    KLClosedGate(const KLClosedGate&) = delete;
    KLClosedGate& operator=(const KLClosedGate&) = delete;
    KLClosedGate(KLClosedGate&& other) noexcept : _gate(other._gate) { other._gate = nullptr; }
    KLClosedGate& operator=(KLClosedGate&&) = delete;
    ~KLClosedGate()
    {
        if (_gate != nullptr) {
            _gate->open();
        }
    }

private:
    KLThreadGate* _gate;
};
