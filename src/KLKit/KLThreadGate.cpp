#include "KLKit/KLThreadGate.h"

void KLThreadGate::close()
{
    std::unique_lock guard(_lock);
    const std::thread::id self = std::this_thread::get_id();
    if (_refcnt == 0 || _owner == self) {
        _owner = self;
        ++_refcnt;
        return;
    }
    Waiter waiter{.thread = self};
    _append(waiter);
    _signal.wait(guard, [this, self] { return _owner == self; });
}

void KLThreadGate::open()
{
    const std::lock_guard guard(_lock);
    if (_refcnt == 0 || _owner != std::this_thread::get_id()) {
        return;
    }
    --_refcnt;
    if (_refcnt > 0) {
        return;
    }
    if (_waitQHead != nullptr) {
        _handOverToFirstWaiter();
    } else {
        _owner = std::thread::id();
    }
}

void KLThreadGate::yield()
{
    std::unique_lock guard(_lock);
    const std::thread::id self = std::this_thread::get_id();
    if (_refcnt == 0 || _owner != self || _waitQHead == nullptr) {
        return;
    }
    Waiter waiter{.thread = self, .count = _refcnt};
    _append(waiter);
    _handOverToFirstWaiter();
    _signal.wait(guard, [this, self] { return _owner == self; });
    _refcnt = waiter.count;
}

size_t KLThreadGate::waiterCount()
{
    const std::lock_guard guard(_lock);
    size_t count = 0;
    for (const Waiter* waiter = _waitQHead; waiter != nullptr; waiter = waiter->next) {
        ++count;
    }
    return count;
}

void KLThreadGate::_append(Waiter& waiter)
{
    if (_waitQTail != nullptr) {
        _waitQTail->next = &waiter;
    } else {
        _waitQHead = &waiter;
    }
    _waitQTail = &waiter;
}

void KLThreadGate::_handOverToFirstWaiter()
{
    // The record lives on its thread's stack and is gone once that thread has seen its turn, so it
    // leaves the queue while the lock is still held.
    const Waiter& first = *_waitQHead;
    _owner = first.thread;
    _refcnt = 1;
    _waitQHead = first.next;
    if (_waitQHead == nullptr) {
        _waitQTail = nullptr;
    }
    _signal.notify_all();
}
