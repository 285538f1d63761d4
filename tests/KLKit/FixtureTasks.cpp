#include <memory>
#include <set>

#include "KLKit/Fixture.h"
#include "KLKit/KLNotificationCenter.h"
#include "KLKit/KLToolApplication.h"
#include "KLKit/KLToolTask.h"

namespace {

/** Starts a task for every line, which holds the line until it ends. */
class TaskApplication : public KLToolApplication {
public:
    TaskApplication(int argc, const char* const* argv) : KLToolApplication(argc, argv)
    {
        KLNotificationCenter::defaultCenter().addObserver(
            KLToolTaskDidTerminateNotification, [this](const std::shared_ptr<KLToolTask>& task) {
                performOnMainThread([this, task] { _taskDidEnd(task); });
            });
    }

    void stringEvent(const std::shared_ptr<KLToolEvent>& event) override
    {
        const auto task = std::make_shared<KLToolTask>();
        task->setName(event->string());
        task->setEvent(event);
        task->setAction([] {});
        _tasks.insert(task);
        printLine("START " + task->name());
        task->start();
    }

    void terminate() override
    {
        printLine("TERMINATE");
        KLToolApplication::terminate();
    }

private:
    void _taskDidEnd(const std::shared_ptr<KLToolTask>& task)
    {
        _tasks.erase(task);
        // Were the event completed first, no event would be in flight any more.
        printLine((currentEvent() == task->event() ? "NOTIFICATION " : "TOO LATE ") + task->name());
    }

    std::set<std::shared_ptr<KLToolTask>> _tasks;
};

void startTwice()
{
    const auto task = std::make_shared<KLToolTask>();
    task->setName("TWICE");
    task->start();
    task->start();
}

}  // namespace

bool runTaskMode(std::string_view mode, int argc, const char* const* argv, int& status)
{
    if (mode == "task-events") {
        status = std::make_unique<TaskApplication>(argc, argv).release()->run();
    } else if (mode == "task-twice") {
        startTwice();
    } else {
        return false;
    }
    return true;
}
