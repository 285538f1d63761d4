#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "KLKit/KLToolResponder.h"

class KLToolEvent;

inline constexpr const char* KLToolTaskDidTerminateNotification =
    "KLToolTaskDidTerminateNotification";

/** A piece of work on a thread of its own.
 *
 *  Configured and started on the main thread; the work runs on the task's thread. When it ends,
 *  the termination notification is posted first and the event completed after it.
 */
class KLToolTask : public KLToolResponder, public std::enable_shared_from_this<KLToolTask> {
public:
    [[nodiscard]] const std::vector<std::string>& arguments() const { return _arguments; }
    void setArguments(std::vector<std::string> arguments) { _arguments = std::move(arguments); }

    [[nodiscard]] const std::shared_ptr<KLToolEvent>& event() const { return _event; }
    void setEvent(std::shared_ptr<KLToolEvent> event) { _event = std::move(event); }

    [[nodiscard]] const std::string& name() const { return _name; }
    void setName(std::string name) { _name = std::move(name); }

    /** The work; the target and selector in one. */
    void setAction(std::function<void()> action) { _action = std::move(action); }

    [[nodiscard]] bool aborted() const { return _aborted; }
    void lock() { _lock.lock(); }
    void unlock() { _lock.unlock(); }

    /** Asks the work to stop at its next check. Any thread; does not wait. */
    virtual void abort();

    /** Returns once the thread runs. A second start aborts the process. */
    void start();

    /** The task whose thread is calling, or null. */
    [[nodiscard]] static KLToolTask* currentToolTask();

private:
    void _start(std::condition_variable_any& handshake);

    std::vector<std::string> _arguments;  // word 0 is the command
    std::shared_ptr<KLToolEvent> _event;  // completed when the task ends
    std::string _name;
    std::function<void()> _action;
    std::atomic<bool> _aborted = false;
    bool _started = false;  // guarded by _lock

protected:
    std::recursive_mutex _lock;  // a leaf: no other lock is taken under it
};
