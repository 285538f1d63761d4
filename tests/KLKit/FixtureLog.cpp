#include <cstdlib>
#include <thread>

#include "KLKit/Fixture.h"
#include "KLKit/KLDebug.h"

namespace {

void logEveryLevel()
{
    KLDebugLog(KLDebugLevel::kPanic, "at panic\n");
    KLDebugLog(KLDebugLevel::kError, "at err\n");
    KLDebugLog(KLDebugLevel::kWarning, "at warn\n");
    KLDebugLog(KLDebugLevel::kInfo, "at info\n");
    KLDebugLog(KLDebugLevel::kDebug, "%@,DEBUG,at debug\n", "SCAN");
    KLDebugLog(KLDebugLevel::kDebugMore, "at debug_more\n");
}

void logUnfinishedLines()
{
    KLDebugLog(KLDebugLevel::kError, "one ");
    KLDebugLog(KLDebugLevel::kInfo, "not enabled");
    KLDebugLog(KLDebugLevel::kError, "line\n");
    KLDebugLog(KLDebugLevel::kError, "ended by another level");
    KLDebugLog(KLDebugLevel::kWarning, "ended by the thread");
    std::thread([] { KLDebugLog(KLDebugLevel::kError, "ended by the end of its thread"); }).join();
}

void logFromManyThreads()
{
    constexpr int kThreads = 4;
    std::thread threads[kThreads];
    for (std::thread& thread : threads) {
        thread = std::thread([] {
            for (int line = 0; line < 200; ++line) {
                KLDebugLog(KLDebugLevel::kError, "a piece, ");
                KLDebugLog(KLDebugLevel::kError, "and its end\n");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace

/** Nested so that the stack is as deep as asked for; not static, so that it has a symbol. */
void fixtureRecursion(int depth)
{
    if (depth == 0) {
        KLBacktrace();
        return;
    }
    volatile int left = depth - 1;
    fixtureRecursion(left);
    // Something to come back for, so that the call above is a call and not a jump.
    left = depth;
}

bool runLogMode(std::string_view mode, int argc, const char* const* argv, int& status)
{
    status = 0;
    if (mode == "log-levels") {
        logEveryLevel();
    } else if (mode == "log-unfinished") {
        logUnfinishedLines();
    } else if (mode == "log-two-lines") {
        KLDebugLog(KLDebugLevel::kError, "first\nsecond\n");
    } else if (mode == "log-empty-line") {
        KLDebugLog(KLDebugLevel::kError, "\n");
    } else if (mode == "log-threads") {
        logFromManyThreads();
    } else if (mode == "backtrace") {
        fixtureRecursion(argc > 2 ? std::atoi(argv[2]) : 0);
    } else if (mode == "panic") {
        KLPanic("rule %d of %@ is broken\n", 7, "the fixture");
    } else if (mode == "panic-in-line") {
        KLDebugLog(KLDebugLevel::kWarning, "begun");
        KLPanic("without newline");
    } else {
        return false;
    }
    return true;
}
