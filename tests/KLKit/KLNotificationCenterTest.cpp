#include "KLKit/KLNotificationCenter.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

#include "KLKit/KLToolTask.h"

namespace {

TEST(KLNotificationCenter, ObserversOfTheNameAreToldInTheOrderInWhichTheyRegistered)
{
    KLNotificationCenter center;
    std::string told;
    center.addObserver("one", [&](const auto&) { told += "a"; });
    center.addObserver("two", [&](const auto&) { told += "b"; });
    center.addObserver("one", [&](const auto&) { told += "c"; });

    center.post("one", nullptr);

    EXPECT_EQ(told, "ac");
}

TEST(KLNotificationCenter, ObserversGetTheObjectOnThePostingThread)
{
    KLNotificationCenter center;
    const auto task = std::make_shared<KLToolTask>();
    std::shared_ptr<KLToolTask> object;
    std::thread::id observed;
    center.addObserver("one", [&](const std::shared_ptr<KLToolTask>& posted) {
        object = posted;
        observed = std::this_thread::get_id();
    });

    std::thread poster([&] { center.post("one", task); });
    const std::thread::id expected = poster.get_id();
    poster.join();

    EXPECT_EQ(object, task);
    EXPECT_EQ(observed, expected);
}

TEST(KLNotificationCenter, AnObserverMayRegisterAnotherWhileItIsTold)
{
    KLNotificationCenter center;
    int told = 0;
    center.addObserver(
        "one", [&](const auto&) { center.addObserver("one", [&](const auto&) { ++told; }); });

    center.post("one", nullptr);
    EXPECT_EQ(told, 0);
    center.post("one", nullptr);
    EXPECT_EQ(told, 1);
}

TEST(KLNotificationCenter, RemovedObserversAreToldNothing)
{
    KLNotificationCenter center;
    bool told = false;
    center.addObserver("one", [&](const auto&) { told = true; });

    center.removeAllObservers();
    center.post("one", nullptr);

    EXPECT_FALSE(told);
}

}  // namespace
