#include "KLKit/KLMemory.h"

#include <gtest/gtest.h>

#include <vector>

TEST(KLMemory, WorkThatEndsHadMemory)
{
    bool done = false;

    EXPECT_TRUE(KLWithinMemory([&] { done = true; }));

    EXPECT_TRUE(done);
}

TEST(KLMemory, WorkIsCutOffWhereAnAllocationFails)
{
    bool wentOn = false;

    EXPECT_FALSE(KLWithinMemory([&] {
        throw std::bad_alloc();
        wentOn = true;
    }));

    EXPECT_FALSE(wentOn);
}

TEST(KLMemory, MoreThanAContainerHoldsIsMoreThanThereIs)
{
    std::vector<int> numbers;

    EXPECT_FALSE(KLWithinMemory([&] { numbers.reserve(numbers.max_size() + 1); }));
}

TEST(KLMemory, NoThreadToBeHadIsLikeNoMemory)
{
    EXPECT_FALSE(KLWithinMemory([] {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    }));
}

TEST(KLMemory, WhatOnlyABugThrowsIsLetThrough)
{
    EXPECT_THROW(
        std::ignore = KLWithinMemory([] {
            throw std::system_error(std::make_error_code(std::errc::operation_not_permitted));
        }),
        std::system_error);
    EXPECT_THROW(std::ignore = KLWithinMemory([] { throw std::out_of_range("a bug"); }),
                 std::out_of_range);
}

TEST(KLMemory, WhatIsInsistedOnIsDoneAsSoonAsThereIsMemory)
{
    int attempts = 0;

    KLInsist([&] {
        if (++attempts < 4) {
            throw std::bad_alloc();
        }
    });

    EXPECT_EQ(attempts, 4);
}
