#include "Platform/LinuxRunLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

namespace {

/** A run loop over a pipe that the test writes to. */
class LinuxRunLoopTest : public testing::Test {
protected:
    LinuxRunLoopTest()
    {
        EXPECT_EQ(::pipe2(_pipe.data(), O_CLOEXEC), 0);
        loop = LinuxRunLoop::create(_pipe[0]);
    }
    ~LinuxRunLoopTest() override
    {
        closeInput();
        ::close(_pipe[0]);
    }

    void writeInput(const std::string& bytes)
    {
        ASSERT_EQ(::write(_pipe[1], bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }
    void closeInput()
    {
        if (_pipe[1] >= 0) {
            ::close(_pipe[1]);
            _pipe[1] = -1;
        }
    }
    PlatformRunLoop::Turn wait()
    {
        PlatformRunLoop::Turn turn;
        EXPECT_EQ(loop->wait(turn), 0);
        return turn;
    }

    std::unique_ptr<LinuxRunLoop> loop;

private:
    std::array<int, 2> _pipe = {-1, -1};
};

TEST_F(LinuxRunLoopTest, InputEndsAWaitAndIsRead)
{
    std::array<char, 16> buffer = {};
    writeInput("SCAN\n");

    EXPECT_TRUE(wait().inputReadable);
    ASSERT_EQ(loop->readInput(buffer.data(), buffer.size()), 5);

    EXPECT_EQ(std::string(buffer.data(), 5), "SCAN\n");
}

TEST_F(LinuxRunLoopTest, ReadingWithoutInputDoesNotWait)
{
    char byte = 0;

    EXPECT_EQ(loop->readInput(&byte, 1), -EAGAIN);
}

TEST_F(LinuxRunLoopTest, TheEndOfInputIsReadableAndReadsAsNothing)
{
    char byte = 0;
    closeInput();

    EXPECT_TRUE(wait().inputReadable);
    EXPECT_EQ(loop->readInput(&byte, 1), 0);
}

TEST_F(LinuxRunLoopTest, WhatWasWrittenBeforeTheEndIsReadFirst)
{
    char byte = 0;
    writeInput("x");
    closeInput();

    EXPECT_TRUE(wait().inputReadable);
    EXPECT_EQ(loop->readInput(&byte, 1), 1);
    EXPECT_EQ(loop->readInput(&byte, 1), 0);
}

TEST_F(LinuxRunLoopTest, UnwatchedInputEndsNoWait)
{
    writeInput("x");
    loop->setInputWatched(false);
    loop->wakeUp();

    EXPECT_FALSE(wait().inputReadable);

    loop->setInputWatched(true);
    EXPECT_TRUE(wait().inputReadable);
}

TEST_F(LinuxRunLoopTest, AFailingInputIsReportedByTheRead)
{
    const int folder = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const auto folderLoop = LinuxRunLoop::create(folder);
    char byte = 0;

    EXPECT_EQ(folderLoop->readInput(&byte, 1), -EISDIR);
    ::close(folder);
}

TEST_F(LinuxRunLoopTest, WakeUpsMadeBeforeAWaitCountOnce)
{
    loop->wakeUp();
    loop->wakeUp();
    loop->wakeUp();
    EXPECT_FALSE(wait().inputReadable);

    std::thread writer([this] { writeInput("x"); });
    EXPECT_TRUE(wait().inputReadable);
    writer.join();
}

TEST_F(LinuxRunLoopTest, AWakeUpFromAnotherThreadEndsAWait)
{
    std::thread waker([this] { loop->wakeUp(); });

    const PlatformRunLoop::Turn turn = wait();
    waker.join();

    EXPECT_FALSE(turn.inputReadable);
    EXPECT_TRUE(turn.signals.empty());
}

TEST_F(LinuxRunLoopTest, AWatchedSignalIsATurnOfTheLoopAndNothingElse)
{
    ASSERT_EQ(loop->watchSignal(SIGUSR1), 0);
    ASSERT_EQ(loop->watchSignal(SIGTERM), 0);

    ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);
    ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);

    EXPECT_EQ(wait().signals, (std::vector<int>{SIGUSR1, SIGTERM}));
}

TEST_F(LinuxRunLoopTest, ThreadsStartedLaterDoNotTakeTheSignal)
{
    ASSERT_EQ(loop->watchSignal(SIGUSR2), 0);
    sigset_t blocked;
    sigemptyset(&blocked);

    std::thread([&blocked] { ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked); }).join();

    EXPECT_EQ(sigismember(&blocked, SIGUSR2), 1);
}

TEST_F(LinuxRunLoopTest, ASignalThatDoesNotExistCannotBeWatched)
{
    EXPECT_EQ(loop->watchSignal(0), EINVAL);
    EXPECT_EQ(loop->watchSignal(1000), EINVAL);
}

TEST_F(LinuxRunLoopTest, AReaderThatGoesAwayIsAnErrorOfTheWrite)
{
    std::array<int, 2> ends = {-1, -1};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    ::close(ends[0]);

    const ssize_t written = ::write(ends[1], "x", 1);
    const int reason = errno;
    ::close(ends[1]);

    EXPECT_EQ(written, -1);
    EXPECT_EQ(reason, EPIPE);
}

}  // namespace
