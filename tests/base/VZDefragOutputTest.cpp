#include "VZDefragOutput.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <sstream>
#include <thread>

#include "Platform/LinuxDescriptor.h"
#include "base/ManualServices.h"
#include "base/StandardOutputCapture.h"

namespace {

/** A pipe with the output under test at its writing end. */
class VZDefragOutputTest : public testing::Test {
protected:
    VZDefragOutputTest()
    {
        std::signal(SIGPIPE, SIG_IGN);
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) == 0) {
            _reader = LinuxDescriptor(ends[0]);
            _writer = LinuxDescriptor(ends[1]);
        }
    }

    void makeNonBlocking(const LinuxDescriptor& end)
    {
        fcntl(end.number(), F_SETFL, fcntl(end.number(), F_GETFL) | O_NONBLOCK);
    }

    /** What is in the pipe now, without waiting. */
    std::string readAvailable()
    {
        makeNonBlocking(_reader);
        return readToEnd();
    }

    /** Everything until no writer is left, or until nothing is there for a non-blocking reader. */
    std::string readToEnd()
    {
        std::string text;
        char chunk[997];
        ssize_t count = 0;
        while ((count = read(_reader.number(), chunk, sizeof chunk)) > 0) {
            text.append(chunk, static_cast<size_t>(count));
        }
        return text;
    }

    /** More lines than a pipe holds. */
    static std::string manyLines()
    {
        std::ostringstream lines;
        for (int number = 0; number < 50000; ++number) {
            lines << "LINE," << number << "\n";
        }
        return lines.str();
    }

    ManualServices _services;
    LinuxDescriptor _reader;
    LinuxDescriptor _writer;
};

TEST_F(VZDefragOutputTest, LinesReachTheReaderWithTheNextFlush)
{
    VZDefragOutput output(_writer.number());

    output.write("FIRST\n");
    EXPECT_EQ(readAvailable(), "");
    output.write("SECOND\n");
    output.flush();
    EXPECT_EQ(readAvailable(), "FIRST\nSECOND\n");
    output.flush();
    EXPECT_EQ(readAvailable(), "");
}

TEST_F(VZDefragOutputTest, ManyLinesGoOnWithoutAFlush)
{
    // Room for more than the output may hold back, so that nobody needs to read meanwhile.
    ASSERT_GE(fcntl(_writer.number(), F_SETPIPE_SZ, 262144), 262144);
    VZDefragOutput output(_writer.number());
    const std::string line(999, 'x');
    size_t written = 0;
    std::string received;

    while (received.empty() && written < 200000) {
        output.write(line + "\n");
        written += line.size() + 1;
        received = readAvailable();
    }

    EXPECT_EQ(received.size(), written) << "all of it, and whole lines only";
}

TEST_F(VZDefragOutputTest, ANonBlockingPipeThatIsFullIsWaitedFor)
{
    makeNonBlocking(_writer);
    VZDefragOutput output(_writer.number());
    std::string received;
    std::thread reader([&] { received = readToEnd(); });

    output.write(manyLines());
    output.flush();
    _writer = LinuxDescriptor();
    reader.join();

    EXPECT_TRUE(received == manyLines()) << received.size() << " bytes arrived";
    EXPECT_EQ(_services.lostReaders, 0);
}

TEST_F(VZDefragOutputTest, InterruptedWritesGoOn)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0) << "without SA_RESTART";
    std::string received;
    std::atomic<bool> done = false;
    std::thread writer([&] {
        VZDefragOutput output(_writer.number());
        output.write(manyLines());
        output.flush();
        done = true;
    });

    makeNonBlocking(_reader);
    while (!done) {
        pthread_kill(writer.native_handle(), SIGUSR1);
        received += readToEnd();
    }
    writer.join();
    received += readToEnd();

    EXPECT_TRUE(received == manyLines()) << received.size() << " bytes arrived";
    EXPECT_EQ(_services.lostReaders, 0);
}

TEST_F(VZDefragOutputTest, AReaderThatIsGoneIsToldOnceAndLaterLinesAreDropped)
{
    VZDefragOutput output(_writer.number());
    _reader = LinuxDescriptor();

    output.write("LOST\n");
    EXPECT_EQ(_services.lostReaders, 0) << "nobody has tried to reach it yet";
    output.flush();
    EXPECT_EQ(_services.lostReaders, 1);
    output.write(manyLines());
    output.flush();
    EXPECT_EQ(_services.lostReaders, 1);
}

TEST_F(VZDefragOutputTest, AnyOtherWriteErrorCountsAsAReaderThatIsGone)
{
    const LinuxDescriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    VZDefragOutput output(full.number());

    output.write("LOST\n");
    output.flush();
    output.flush();

    EXPECT_EQ(_services.lostReaders, 1);
}

TEST_F(VZDefragOutputTest, LinesOfSeveralThreadsStayWhole)
{
    VZDefragOutput output(_writer.number());
    std::string received;
    std::thread reader([&] { received = readToEnd(); });
    {
        std::vector<std::jthread> writers;
        for (const char letter : {'a', 'b', 'c'}) {
            writers.emplace_back([&output, letter] {
                for (size_t count = 0; count < 2000; ++count) {
                    output.write(std::string(1 + count % 97, letter) + "\n");
                    output.flush();
                }
            });
        }
    }
    _writer = LinuxDescriptor();
    reader.join();

    std::istringstream lines(received);
    std::string line;
    size_t count = 0;
    while (std::getline(lines, line)) {
        ASSERT_EQ(line, std::string(line.size(), line.front()));
        ++count;
    }
    EXPECT_EQ(count, 6000U);
}

TEST(VZDefragOutputLock, KeepsOtherThreadsLinesOutOfARecord)
{
    const StandardOutputCapture capture;
    std::atomic<bool> running = false;
    std::thread other;
    {
        const VZDefragOutputLock lock;
        VZDefragWriteOutput("RECORD");
        other = std::thread([&running] {
            running = true;
            running.notify_one();
            VZDefragWriteOutput("OTHER\n");
        });
        running.wait(false);
        VZDefragWriteOutput(",END\n");
    }
    other.join();
    VZDefragFlushOutput();

    EXPECT_EQ(capture.text(), "RECORD,END\nOTHER\n");
}

}  // namespace
