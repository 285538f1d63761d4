#include "KLKit/KLToolTask.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <csignal>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "KLKit/KLNotificationCenter.h"
#include "protocol/ToolProcess.h"

namespace {

/** Something that one thread says once and another waits for. */
class Flag {
public:
    void set()
    {
        const std::lock_guard guard(_lock);
        _set = true;
        _changed.notify_all();
    }
    void wait()
    {
        std::unique_lock guard(_lock);
        _changed.wait(guard, [this] { return _set; });
    }

private:
    std::mutex _lock;
    std::condition_variable _changed;
    bool _set = false;
};

/** Says when a task's notification was posted, and forgets its observers with the test. */
class KLToolTaskTest : public testing::Test {
protected:
    KLToolTaskTest()
    {
        KLNotificationCenter::defaultCenter().addObserver(
            KLToolTaskDidTerminateNotification,
            [this](const std::shared_ptr<KLToolTask>&) { ended.set(); });
    }
    ~KLToolTaskTest() override { KLNotificationCenter::defaultCenter().removeAllObservers(); }

    Flag ended;
};

TEST_F(KLToolTaskTest, ANewTaskHasNoNameNoEventAndIsNotAborted)
{
    const KLToolTask task;

    EXPECT_EQ(task.name(), "");
    EXPECT_EQ(task.event(), nullptr);
    EXPECT_TRUE(task.arguments().empty());
    EXPECT_FALSE(task.aborted());
}

TEST_F(KLToolTaskTest, TheWorkRunsOnAThreadOfItsOwn)
{
    const auto task = std::make_shared<KLToolTask>();
    std::thread::id worker;
    task->setAction([&] { worker = std::this_thread::get_id(); });

    task->start();
    ended.wait();

    EXPECT_NE(worker, std::thread::id());
    EXPECT_NE(worker, std::this_thread::get_id());
}

TEST_F(KLToolTaskTest, CurrentToolTaskIsTheTaskInsideItsWorkAndNoneElsewhere)
{
    const auto task = std::make_shared<KLToolTask>();
    KLToolTask* current = nullptr;
    task->setAction([&] { current = KLToolTask::currentToolTask(); });

    task->start();
    ended.wait();
    KLToolTask* onPlainThread = task.get();
    std::thread([&] { onPlainThread = KLToolTask::currentToolTask(); }).join();

    EXPECT_EQ(current, task.get());
    EXPECT_EQ(KLToolTask::currentToolTask(), nullptr);
    EXPECT_EQ(onPlainThread, nullptr);
}

TEST_F(KLToolTaskTest, AnAbortedTaskEndsAtItsNextCheck)
{
    const auto task = std::make_shared<KLToolTask>();
    task->setAction([&] {
        while (!task->aborted()) {
            std::this_thread::yield();
        }
    });
    task->start();

    task->abort();
    ended.wait();

    EXPECT_TRUE(task->aborted());
}

TEST_F(KLToolTaskTest, ARunningTaskOutlivesItsStartersReference)
{
    Flag released;
    auto task = std::make_shared<KLToolTask>();
    task->setName("DEFRAG");
    std::string name;
    task->setAction([&name, &released, self = task.get()] {
        released.wait();
        name = self->name();
    });
    task->start();

    task.reset();
    released.set();
    ended.wait();

    EXPECT_EQ(name, "DEFRAG");
}

TEST_F(KLToolTaskTest, ATaskWithoutWorkStillEnds)
{
    const auto task = std::make_shared<KLToolTask>();

    task->start();
    ended.wait();

    EXPECT_FALSE(task->aborted());
}

TEST_F(KLToolTaskTest, TheLockCanBeTakenAgainByItsHolder)
{
    KLToolTask task;

    task.lock();
    task.abort();
    task.unlock();

    EXPECT_TRUE(task.aborted());
}

TEST(KLToolTaskProgram, StartingATaskTwiceAborts)
{
    ToolProcess process({.program = KLTOOLFIXTURE_PROGRAM, .arguments = {"task-twice"}});

    EXPECT_NE(process.readErrorsToEnd().find("PANIC: task started twice: TWICE"),
              std::string::npos);
    EXPECT_EQ(process.wait(), -SIGABRT);
}

TEST(KLToolTaskProgram, ATaskThatReturnsAtOncePostsTheNotificationBeforeItsEventIsCompleted)
{
    ToolProcess process({.program = KLTOOLFIXTURE_PROGRAM, .arguments = {"task-events"}});

    process.write("one\ntwo\n");

    EXPECT_EQ(process.readLine(), "START one");
    EXPECT_EQ(process.readLine(), "NOTIFICATION one");
    EXPECT_EQ(process.readLine(), "START two");
    EXPECT_EQ(process.readLine(), "NOTIFICATION two");
    process.closeInput();
    EXPECT_EQ(process.readToEnd(), "TERMINATE\n");
    EXPECT_EQ(process.wait(), 0);
}

TEST(KLToolTaskProgram, ManyTasksOneAfterTheOtherAllEndAndTheProcessExitsCleanly)
{
    constexpr int kTasks = 500;
    ToolProcess process({.program = KLTOOLFIXTURE_PROGRAM, .arguments = {"task-events"}});

    std::string expected;
    for (int index = 0; index < kTasks; ++index) {
        const std::string word = std::to_string(index);
        process.write(word + "\n");
        expected += "START " + word + "\nNOTIFICATION " + word + "\n";
    }
    std::string output;
    for (int line = 0; line < 2 * kTasks; ++line) {
        output += process.readLine().value_or("missing") + "\n";
    }
    process.closeInput();

    EXPECT_EQ(output, expected);
    EXPECT_EQ(process.wait(), 0);
}

}  // namespace
