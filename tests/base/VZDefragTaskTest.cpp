#include "VZDefragTask.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <thread>
#include <vector>

#include "VZDefragVolume.h"
#include "base/ManualServices.h"
#include "base/StandardOutputCapture.h"
#include "support/MemoryBlockDevice.h"

namespace {

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

using Lines = std::vector<std::string>;

class VZDefragTaskTest : public testing::Test {
protected:
    [[nodiscard]] std::shared_ptr<VZDefragTask> makeTask() const
    {
        auto task = std::make_shared<VZDefragTask>(*_volume);
        task->setName("SCAN");
        return task;
    }

    [[nodiscard]] Lines lines() const { return linesOf(_capture.text()); }

    ManualServices _services;
    std::unique_ptr<VZDefragVolume> _volume =
        VZDefragVolume::initWithBlockDevice("/dev/test", std::make_unique<MemoryBlockDevice>(4096));
    StandardOutputCapture _capture;
};

TEST_F(VZDefragTaskTest, ATaskThatEndsWithinItsFirstIntervalPrintsNoProgressLine)
{
    const auto task = makeTask();

    task->reportTaskStart();
    for (int32_t value = 0; value < 100; ++value) {
        _services.now += 0.009;
        task->updateTaskProgress(value);
        _services.runMainThread();
    }
    task->reportTaskDone();

    EXPECT_EQ(lines(), (Lines{"SCAN,START", "SCAN,DONE"}));
}

TEST_F(VZDefragTaskTest, UpdatesEveryMillisecondPrintAboutOneLinePerSecondAndNoValueTwiceInARow)
{
    const auto task = makeTask();

    task->reportTaskStart();
    for (int32_t millisecond = 0; millisecond < 10000; ++millisecond) {
        _services.now += 0.001;
        task->updateTaskProgress(millisecond / 3000);
        _services.runMainThread();
    }
    task->reportTaskDone();

    // The value changes at 3, 6 and 9 seconds; its first change comes within the first interval.
    EXPECT_EQ(lines(), (Lines{"SCAN,START", "SCAN,PROGRESS,1", "SCAN,PROGRESS,2", "SCAN,PROGRESS,3",
                              "SCAN,DONE"}));
}

TEST_F(VZDefragTaskTest, AValueThatChangesAllTheTimeIsPrintedAtMostOncePerInterval)
{
    const auto task = makeTask();

    task->reportTaskStart();
    for (int32_t millisecond = 1; millisecond <= 10000; ++millisecond) {
        _services.now += 0.001;
        task->updateTaskProgress(millisecond);
        _services.runMainThread();
    }

    const Lines printed = lines();
    EXPECT_GE(printed.size(), 1U + 9U);
    EXPECT_LE(printed.size(), 1U + 10U);
}

TEST_F(VZDefragTaskTest, AValueGivenTooEarlyIsNotPrintedUnlessAChangeComesAfterTheInterval)
{
    const auto task = makeTask();
    task->reportTaskStart();

    _services.now += 0.5;
    task->updateTaskProgress(10);
    _services.now += 5;
    task->updateTaskProgress(10);
    EXPECT_TRUE(_services.mainThreadWork.empty()) << "an unchanged value never makes a line";
    task->updateTaskProgress(11);
    _services.runMainThread();

    EXPECT_EQ(lines(), (Lines{"SCAN,START", "SCAN,PROGRESS,11"}));
}

TEST_F(VZDefragTaskTest, ExactlyOneIntervalIsStillTooEarly)
{
    const auto task = makeTask();
    task->reportTaskStart();

    _services.now += 1.0;
    task->updateTaskProgress(1);
    EXPECT_TRUE(_services.mainThreadWork.empty());
    _services.now += 0.25;
    task->updateTaskProgress(2);
    EXPECT_EQ(_services.mainThreadWork.size(), 1U);
}

TEST_F(VZDefragTaskTest, APendingLinePrintsTheNewestValueAndIsScheduledOnce)
{
    const auto task = makeTask();
    task->reportTaskStart();
    _services.now += 2;

    task->updateTaskProgress(1);
    task->updateTaskProgress(2);
    _services.now += 2;
    task->updateTaskProgress(3);
    EXPECT_EQ(_services.mainThreadWork.size(), 1U);
    _services.runMainThread();

    EXPECT_EQ(lines(), (Lines{"SCAN,START", "SCAN,PROGRESS,3"}));
}

TEST_F(VZDefragTaskTest, TheIntervalCountsFromWhenTheLineWasPrinted)
{
    const auto task = makeTask();
    task->reportTaskStart();
    _services.now += 2;
    task->updateTaskProgress(1);
    _services.now += 10;
    _services.runMainThread();

    _services.now += 0.5;
    task->updateTaskProgress(2);
    EXPECT_TRUE(_services.mainThreadWork.empty());
}

TEST_F(VZDefragTaskTest, AnIntervalOfZeroPrintsEveryChange)
{
    const auto task = makeTask();
    task->setProgressReportInterval(0);
    task->reportTaskStart();
    for (int32_t value = 0; value < 3; ++value) {
        _services.now += 0.001;
        task->updateTaskProgress(value);
        _services.runMainThread();
    }

    EXPECT_EQ(lines(),
              (Lines{"SCAN,START", "SCAN,PROGRESS,0", "SCAN,PROGRESS,1", "SCAN,PROGRESS,2"}));
}

TEST_F(VZDefragTaskTest, TheIntervalIsTheApplicationsUnlessTheTaskSetsItsOwn)
{
    _services.interval = 2.5;
    const auto task = makeTask();

    EXPECT_EQ(task->progressReportInterval(), 2.5);
    task->setProgressReportInterval(0.25);
    EXPECT_EQ(task->progressReportInterval(), 0.25);
}

TEST_F(VZDefragTaskTest, AProgressLineScheduledBeforeDoneAndRunAfterItIsNotPrinted)
{
    const auto task = makeTask();
    task->reportTaskStart();
    _services.now += 2;
    task->updateTaskProgress(50);
    ASSERT_EQ(_services.mainThreadWork.size(), 1U);

    task->reportTaskDone();
    _services.runMainThread();

    EXPECT_EQ(lines(), (Lines{"SCAN,START", "SCAN,DONE"}));
}

TEST_F(VZDefragTaskTest, AProgressLineOfATaskThatIsGoneIsDropped)
{
    auto task = makeTask();
    task->reportTaskStart();
    _services.now += 2;
    task->updateTaskProgress(50);

    task.reset();
    _services.runMainThread();

    EXPECT_EQ(lines(), (Lines{"SCAN,START"}));
}

TEST_F(VZDefragTaskTest, NoProgressIsPrintedBeforeTheStart)
{
    const auto task = makeTask();

    task->updateTaskProgress(5);
    _services.runMainThread();
    task->reportTaskProgress();

    EXPECT_EQ(lines(), Lines{});
}

TEST_F(VZDefragTaskTest, ANegativeValueIsNotPrinted)
{
    const auto task = makeTask();
    task->reportTaskStart();

    _services.now += 2;
    task->updateTaskProgress(-2);
    _services.runMainThread();
    task->reportTaskProgress();

    EXPECT_EQ(lines(), (Lines{"SCAN,START"}));
}

TEST_F(VZDefragTaskTest, AProgressLineKeptWaitingByTheOutputIsNotPrintedAfterDone)
{
    const auto task = makeTask();
    task->reportTaskStart();
    task->updateTaskProgress(1);
    std::thread mainThread;
    {
        const VZDefragOutputLock output;
        const int readings = _services.clockReadings;
        mainThread = std::thread([&task] { task->reportTaskProgress(); });
        // Time enough to decide on the line, which reads the clock, before it may be written.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
        while (_services.clockReadings == readings && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        task->reportTaskDone();
    }
    mainThread.join();

    EXPECT_EQ(lines(), (Lines{"SCAN,START", "SCAN,DONE"}));
}

TEST_F(VZDefragTaskTest, AnErrorTextWithACommaAndABackslashIsEscaped)
{
    const auto task = makeTask();

    task->reportTaskError(VZDefragError::errorWithDescription("a,b\\c").get());

    EXPECT_EQ(lines(), (Lines{"SCAN,ERROR,a\\,b\\\\c"}));
}

TEST_F(VZDefragTaskTest, AUserCancelledTaskPrintsNoErrorLine)
{
    const auto task = makeTask();

    task->reportTaskStart();
    task->reportTaskError(VZDefragError::errorUserCancelled().get());
    task->reportTaskError(nullptr);
    task->reportTaskDone();

    EXPECT_EQ(lines(), (Lines{"SCAN,START", "SCAN,DONE"}));
}

TEST_F(VZDefragTaskTest, TheElapsedTimeIsLoggedAndKeptFromTheProtocol)
{
    // Of its own process, since the log reads its level once.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("KLDebugLevel", "DEBUG", 1);
            const auto task = makeTask();
            task->reportTaskStart();
            _services.now += 12.3456;
            task->reportTaskDone();
            std::exit(lines() == Lines{"SCAN,START", "SCAN,DONE"} ? 0 : 1);
        },
        testing::ExitedWithCode(0), "SCAN,DEBUG,Elapsed time 12\\.346s");
}

TEST_F(VZDefragTaskTest, WithoutTheDebugLevelTheElapsedTimeIsNotLogged)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            unsetenv("KLDebugLevel");
            const auto task = makeTask();
            task->reportTaskStart();
            task->reportTaskDone();
            std::exit(0);
        },
        testing::ExitedWithCode(0), "^$");
}

}  // namespace
