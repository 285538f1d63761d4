#include "KLKit/KLQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

namespace {

using Queue = KLQueue<int>;
using Object = Queue::Object;

Object make(int value)
{
    return std::make_shared<int>(value);
}

std::vector<int> valuesOf(const Queue& queue)
{
    std::vector<int> values;
    for (const Object& object : queue.getObjects()) {
        values.push_back(*object);
    }
    return values;
}

TEST(KLQueue, ANewQueueIsEmpty)
{
    const Queue queue;

    EXPECT_EQ(queue.count(), 0U);
    EXPECT_EQ(queue.headObject(), nullptr);
    EXPECT_EQ(queue.tailObject(), nullptr);
    EXPECT_TRUE(queue.getObjects().empty());
}

TEST(KLQueue, ObjectsKeepTheOrderInWhichTheyWereInserted)
{
    Queue queue;
    const Object two = make(2);
    const Object four = make(4);

    queue.enqueueTailObject(two);
    queue.enqueueTailObject(four);
    queue.enqueueHeadObject(make(1));
    queue.enqueueObjectAfterObject(make(3), two);
    queue.enqueueObjectAfterObject(make(6), four);
    queue.enqueueObjectBeforeObject(make(0), queue.headObject());
    queue.enqueueObjectBeforeObject(make(5), queue.tailObject());

    EXPECT_EQ(valuesOf(queue), (std::vector<int>{0, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(queue.count(), 7U);
    EXPECT_EQ(*queue.headObject(), 0);
    EXPECT_EQ(*queue.tailObject(), 6);
}

TEST(KLQueue, EnqueuingTheSameObjectTwiceAborts)
{
    Queue queue;
    const Object object = make(1);
    queue.enqueueTailObject(object);

    EXPECT_DEATH(queue.enqueueTailObject(object), "PANIC: inserting an object");
    EXPECT_DEATH(queue.enqueueHeadObject(object), "PANIC: inserting an object");
    EXPECT_DEATH(queue.enqueueObjectAfterObject(object, object), "PANIC: inserting an object");
}

TEST(KLQueue, InsertingNextToANonMemberAborts)
{
    Queue queue;
    queue.enqueueTailObject(make(1));

    EXPECT_DEATH(queue.enqueueObjectAfterObject(make(2), make(3)), "PANIC: inserting next to");
    EXPECT_DEATH(queue.enqueueObjectBeforeObject(make(2), nullptr), "PANIC: inserting next to");
}

TEST(KLQueue, DequeuingANonMemberDoesNothing)
{
    Queue queue;
    queue.enqueueTailObject(make(1));

    queue.dequeueObject(make(1));
    queue.dequeueObject(nullptr);

    EXPECT_EQ(valuesOf(queue), (std::vector<int>{1}));
}

TEST(KLQueue, TheTailHasNoNextAndTheHeadNoPreviousObject)
{
    Queue queue;
    const Object one = make(1);
    const Object two = make(2);
    queue.enqueueTailObject(one);
    queue.enqueueTailObject(two);

    EXPECT_EQ(queue.nextObject(one), two);
    EXPECT_EQ(queue.prevObject(two), one);
    EXPECT_EQ(queue.nextObject(two), nullptr);
    EXPECT_EQ(queue.prevObject(one), nullptr);
}

TEST(KLQueue, ANonMemberHasNoNeighbours)
{
    Queue queue;
    queue.enqueueTailObject(make(1));

    EXPECT_EQ(queue.nextObject(make(1)), nullptr);
    EXPECT_EQ(queue.prevObject(nullptr), nullptr);
    EXPECT_FALSE(queue.containsObject(make(1)));
}

TEST(KLQueue, RemovedObjectsAreReturnedAndTheirNeighboursJoined)
{
    Queue queue;
    std::vector<Object> objects;
    for (int value = 0; value < 6; ++value) {
        objects.push_back(make(value));
        queue.enqueueTailObject(objects.back());
    }

    EXPECT_EQ(queue.dequeueHeadObject(), objects[0]);
    EXPECT_EQ(queue.dequeueTailObject(), objects[5]);
    EXPECT_EQ(queue.dequeueNextObject(objects[1]), objects[2]);
    EXPECT_EQ(queue.dequeuePrevObject(objects[4]), objects[3]);
    EXPECT_EQ(queue.dequeueNextObject(objects[4]), nullptr);
    EXPECT_EQ(queue.dequeuePrevObject(objects[1]), nullptr);

    EXPECT_EQ(valuesOf(queue), (std::vector<int>{1, 4}));
    EXPECT_EQ(queue.nextObject(objects[1]), objects[4]);
    EXPECT_FALSE(queue.containsObject(objects[2]));
}

TEST(KLQueue, AnEmptiedQueueTakesObjectsAgain)
{
    Queue queue;
    const Object object = make(1);
    queue.enqueueTailObject(object);
    queue.enqueueTailObject(make(2));

    queue.dequeueAllObjects();
    EXPECT_EQ(queue.count(), 0U);
    EXPECT_EQ(queue.dequeueHeadObject(), nullptr);
    EXPECT_EQ(queue.dequeueTailObject(), nullptr);

    queue.enqueueHeadObject(object);
    EXPECT_EQ(valuesOf(queue), (std::vector<int>{1}));
}

TEST(KLQueue, TheQueueKeepsItsMembersAliveAndLetsRemovedOnesGo)
{
    std::weak_ptr<int> watched;
    {
        Queue queue;
        Object object = make(1);
        watched = object;
        queue.enqueueTailObject(std::move(object));
        EXPECT_FALSE(watched.expired());

        queue.dequeueObject(watched.lock());
        EXPECT_TRUE(watched.expired());

        object = make(2);
        watched = object;
        queue.enqueueTailObject(std::move(object));
    }
    EXPECT_TRUE(watched.expired());
}

TEST(KLQueue, RandomOperationsAgreeWithAPlainList)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    Queue queue;
    std::vector<Object> model;

    for (int step = 0; step < 5000; ++step) {
        const size_t index = model.empty() ? 0 : random() % model.size();
        const auto position = model.begin() + static_cast<std::ptrdiff_t>(index);
        switch (model.empty() ? 0 : random() % 6) {
            case 0:
                model.insert(model.begin(), make(step));
                queue.enqueueHeadObject(model.front());
                break;
            case 1:
                model.push_back(make(step));
                queue.enqueueTailObject(model.back());
                break;
            case 2: {
                const Object member = *position;
                const Object object = make(step);
                queue.enqueueObjectAfterObject(object, member);
                model.insert(position + 1, object);
                break;
            }
            case 3: {
                const Object member = *position;
                const Object object = make(step);
                queue.enqueueObjectBeforeObject(object, member);
                model.insert(position, object);
                break;
            }
            default:
                queue.dequeueObject(*position);
                model.erase(position);
                break;
        }
        ASSERT_EQ(queue.getObjects(), model);
    }
}

}  // namespace
