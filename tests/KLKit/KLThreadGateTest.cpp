#include "KLKit/KLThreadGate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

/** Returns once @p count threads wait at @p gate. */
void waitForWaiters(KLThreadGate& gate, size_t count)
{
    while (gate.waiterCount() < count) {
        std::this_thread::yield();
    }
}

/** Whether another thread gets @p gate at once, told by a thread that tries. */
class Trial {
public:
    explicit Trial(KLThreadGate& gate)
        : _thread([this, &gate] {
              gate.close();
              _entered = true;
              gate.open();
          })
    {
    }
    ~Trial() { _thread.join(); }

    [[nodiscard]] bool entered() const { return _entered; }

private:
    std::atomic<bool> _entered = false;
    std::thread _thread;
};

TEST(KLThreadGate, AGateClosedThreeTimesIsFreeOnlyAtTheThirdOpen)
{
    KLThreadGate gate;
    gate.close();
    gate.close();
    gate.close();
    Trial trial(gate);
    waitForWaiters(gate, 1);

    gate.open();
    EXPECT_EQ(gate.waiterCount(), 1U);
    gate.open();
    EXPECT_EQ(gate.waiterCount(), 1U);
    EXPECT_FALSE(trial.entered());

    gate.open();
    gate.close();  // comes back only after the trial had its turn
    EXPECT_TRUE(trial.entered());
    gate.open();
}

TEST(KLThreadGate, YieldLetsTheWaiterRunAtDepthOneAndGivesTheDepthBack)
{
    KLThreadGate gate;
    bool waiterRan = false;
    gate.close();
    gate.close();
    std::thread waiter([&] {
        gate.close();
        waiterRan = true;
        gate.open();  // one open is enough: its depth is one
    });
    waitForWaiters(gate, 1);

    gate.yield();
    EXPECT_TRUE(waiterRan);
    waiter.join();

    Trial trial(gate);
    waitForWaiters(gate, 1);
    gate.open();
    EXPECT_EQ(gate.waiterCount(), 1U);
    EXPECT_FALSE(trial.entered());
    gate.open();
}

TEST(KLThreadGate, YieldWithoutWaitersKeepsTheGate)
{
    KLThreadGate gate;
    gate.close();

    gate.yield();

    Trial trial(gate);
    waitForWaiters(gate, 1);
    EXPECT_FALSE(trial.entered());
    gate.open();
}

TEST(KLThreadGate, WaitingThreadsGetTheGateInTheOrderInWhichTheyArrived)
{
    KLThreadGate gate;
    std::string order;
    std::vector<std::thread> threads;
    gate.close();
    for (const char name : {'a', 'b', 'c'}) {
        threads.emplace_back([&gate, &order, name] {
            gate.close();
            order += name;
            gate.open();
        });
        waitForWaiters(gate, threads.size());
    }

    gate.open();
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(order, "abc");
}

TEST(KLThreadGate, YieldLetsEveryThreadThatWaitsRunOnce)
{
    KLThreadGate gate;
    std::string order;
    std::vector<std::thread> threads;
    gate.close();
    for (const char name : {'a', 'b', 'c'}) {
        threads.emplace_back([&gate, &order, name] {
            gate.close();
            order += name;
            gate.open();
        });
        waitForWaiters(gate, threads.size());
    }

    gate.yield();
    EXPECT_EQ(order, "abc");

    gate.open();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(KLThreadGate, TwoThreadsAlternateAtTheirYields)
{
    constexpr int kTurns = 5;
    KLThreadGate gate;
    std::string order;
    const auto takeTurns = [&](char name) {
        for (int turn = 0; turn < kTurns; ++turn) {
            order += name;
            gate.yield();
        }
    };
    gate.close();
    std::thread other([&] {
        gate.close();
        takeTurns('b');
        gate.open();
    });
    waitForWaiters(gate, 1);

    takeTurns('a');
    gate.open();
    other.join();

    EXPECT_EQ(order, "ababababab");
}

TEST(KLThreadGate, OpeningAndYieldingAGateThatIsNotHeldChangesNothing)
{
    KLThreadGate gate;
    gate.open();
    gate.yield();

    gate.close();
    Trial trial(gate);
    waitForWaiters(gate, 1);
    std::thread([&] {
        gate.open();
        gate.yield();
    }).join();

    EXPECT_EQ(gate.waiterCount(), 1U);
    EXPECT_FALSE(trial.entered());
    gate.open();
}

TEST(KLThreadGate, OneThreadAtATimeIsInsideHoweverManyCome)
{
    constexpr int kThreads = 8;
    constexpr int kRounds = 500;
    KLThreadGate gate;
    int inside = 0;
    int entries = 0;
    bool alone = true;
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                const KLClosedGate closed(gate);
                alone = alone && ++inside == 1;
                ++entries;
                --inside;
                gate.yield();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_TRUE(alone);
    EXPECT_EQ(entries, kThreads * kRounds);
}

TEST(KLClosedGate, TheGateIsOpenedWhenTheGuardGoes)
{
    KLThreadGate gate;
    {
        const KLClosedGate closed(gate);
        const KLClosedGate again(gate);
    }

    const Trial trial(gate);
    while (!trial.entered()) {
        std::this_thread::yield();
    }
    EXPECT_EQ(gate.waiterCount(), 0U);
}

TEST(KLClosedGate, AMovedGuardOpensTheGateOnce)
{
    KLThreadGate gate;
    gate.close();
    {
        KLClosedGate closed(gate);
        const KLClosedGate moved(std::move(closed));
    }

    Trial trial(gate);
    waitForWaiters(gate, 1);
    EXPECT_FALSE(trial.entered());
    gate.open();
}

}  // namespace
