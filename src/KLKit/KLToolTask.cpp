#include "KLKit/KLToolTask.h"

#include <thread>

#include "KLKit/KLDebug.h"
#include "KLKit/KLMemory.h"
#include "KLKit/KLNotificationCenter.h"
#include "KLKit/KLToolEvent.h"

namespace {

thread_local KLToolTask* threadTask = nullptr;

}  // namespace

void KLToolTask::abort()
{
    const std::lock_guard guard(_lock);
    _aborted = true;
}

void KLToolTask::start()
{
    std::condition_variable_any handshake;
    std::unique_lock guard(_lock);
    if (_started) {
        KLPanic("task started twice: %@\n", _name);
    }
    // The thread keeps its task alive, whatever the starter does with its own reference.
    std::thread([task = shared_from_this(), &handshake] { task->_start(handshake); }).detach();
    handshake.wait(guard, [this] { return _started; });
}

KLToolTask* KLToolTask::currentToolTask()
{
    return threadTask;
}

void KLToolTask::_start(std::condition_variable_any& handshake)
{
    threadTask = this;
    {
        // Signalled under the lock: the condition is gone as soon as the starter can take it.
        const std::lock_guard guard(_lock);
        _started = true;
        handshake.notify_all();
    }
    if (_action) {
        _action();
    }
    // Before the event, so that the application knows of the end when the next line is dispatched.
    KLInsist([this] {
        KLNotificationCenter::defaultCenter().post(KLToolTaskDidTerminateNotification,
                                                   shared_from_this());
    });
    if (_event != nullptr) {
        KLInsist([this] { _event->complete(); });
    }
    threadTask = nullptr;
}
