#include "HFSPlus/HFSPlusSkipList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <vector>

#include "support/NothrowAllocations.h"
#include "support/TestSeed.h"

namespace {

struct Item {
    uint32_t key = 0;
    uint32_t number = 0;  // tells items of one key apart
    bool operator==(const Item&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Item& item)
{
    return stream << item.key << '/' << item.number;
}

struct ItemOrder {
    using Key = uint32_t;
    static Key key(const Item& item) { return item.key; }
    static int compare(const Item& item, Key key)
    {
        return item.key < key ? -1 : static_cast<int>(item.key > key);
    }
};

using List = HFSPlusSkipList<Item, ItemOrder, 12>;

std::vector<Item> itemsOf(const List& list)
{
    std::vector<Item> items;
    for (const Item* item = list.first(); item != nullptr; item = list.next(*item)) {
        items.push_back(*item);
    }
    return items;
}

Item valueAt(const Item* item)
{
    return item != nullptr ? *item : Item{};
}

/** What the list should hold, in a plain vector. */
class Model {
public:
    void insert(const Item& item) { _items.insert(_firstNotBelow(item.key), item); }
    void erase(const Item& item) { _items.erase(std::ranges::find(_items, item)); }
    [[nodiscard]] const std::vector<Item>& items() const { return _items; }
    [[nodiscard]] Item lastBefore(uint32_t key)
    {
        const auto found = _firstNotBelow(key);
        return found != _items.begin() ? *(found - 1) : Item{};
    }

private:
    [[nodiscard]] std::vector<Item>::iterator _firstNotBelow(uint32_t key)
    {
        return std::ranges::lower_bound(_items, key, {}, &Item::key);
    }

    std::vector<Item> _items;
};

}  // namespace

TEST(HFSPlusSkipList, AnEmptyListHasNoItems)
{
    const List list;

    EXPECT_EQ(list.first(), nullptr);
    EXPECT_EQ(list.last(), nullptr);
    EXPECT_EQ(list.lastBefore(1), nullptr);
    EXPECT_EQ(list.lastNotAfter(1), nullptr);
}

TEST(HFSPlusSkipList, ItemsComeInTheOrderOfTheirKeys)
{
    List list;

    for (const uint32_t key : {30U, 10U, 20U}) {
        ASSERT_NE(list.insert({.key = key, .number = key + 1}), nullptr);
    }

    EXPECT_EQ(itemsOf(list), (std::vector<Item>{{10, 11}, {20, 21}, {30, 31}}));
    EXPECT_EQ(*list.first(), (Item{10, 11}));
    EXPECT_EQ(*list.last(), (Item{30, 31}));
}

TEST(HFSPlusSkipList, SearchesFindTheLastItemBelowOrAtAKey)
{
    List list;
    ASSERT_NE(list.insert({.key = 10}), nullptr);
    ASSERT_NE(list.insert({.key = 20}), nullptr);

    EXPECT_EQ(list.lastBefore(10), nullptr);
    EXPECT_EQ(list.lastBefore(20)->key, 10U);
    EXPECT_EQ(list.lastBefore(21)->key, 20U);
    EXPECT_EQ(list.lastNotAfter(9), nullptr);
    EXPECT_EQ(list.lastNotAfter(19)->key, 10U);
    EXPECT_EQ(list.lastNotAfter(20)->key, 20U);
}

TEST(HFSPlusSkipList, OneOfSeveralItemsOfOneKeyIsDeletedAlone)
{
    List list;
    std::vector<const Item*> items;
    for (uint32_t number = 0; number < 50; ++number) {
        items.push_back(list.insert({.key = 5, .number = number}));
    }

    for (uint32_t number = 0; number < 50; number += 2) {
        list.deletePayload(*items[number]);
    }

    const std::vector<Item> left = itemsOf(list);
    ASSERT_EQ(left.size(), 25U);
    EXPECT_TRUE(std::ranges::all_of(left, [](const Item& item) { return item.number % 2 == 1; }));
}

TEST(HFSPlusSkipList, ItemsKeepTheirAddressUntilTheyAreDeleted)
{
    List list;
    const Item* const kept = list.insert({.key = 500, .number = 7});
    std::vector<const Item*> others;
    for (uint32_t key = 0; key < 1000; ++key) {
        others.push_back(list.insert({.key = key}));
    }

    for (const Item* const other : others) {
        list.deletePayload(*other);
    }

    EXPECT_EQ(list.first(), kept);
    EXPECT_EQ(*kept, (Item{500, 7}));
}

TEST(HFSPlusSkipList, AnItemThatGetsNoMemoryLeavesTheListAsItWas)
{
    List list;
    ASSERT_NE(list.insert({.key = 1}), nullptr);
    NothrowAllocations allocations;
    allocations.failAfter(0);

    EXPECT_EQ(list.insert({.key = 2}), nullptr);

    EXPECT_EQ(itemsOf(list), (std::vector<Item>{{1, 0}}));
}

TEST(HFSPlusSkipList, AnItemIsOneAllocationOfAboutThirtyTwoBytes)
{
    constexpr uint64_t kItems = 20000;
    List list;
    const NothrowAllocations allocations;

    for (uint32_t key = 0; key < kItems; ++key) {
        ASSERT_NE(list.insert({.key = key}), nullptr);
    }

    EXPECT_EQ(allocations.count(), kItems);
    EXPECT_LE(allocations.bytes(), kItems * 33);
}

TEST(HFSPlusSkipList, RandomOperationsAgreeWithASortedVector)
{
    const uint32_t seed = testSeed();
    std::minstd_rand random(seed);
    HFSPlusRandom::sharedRandom() = HFSPlusRandom(seed);
    List list;
    Model model;

    for (uint32_t step = 0; step < 20000; ++step) {
        const auto key = static_cast<uint32_t>(random() % 300);
        // Grows in one half of the walk and shrinks in the other, down to nothing at times.
        const bool grows = random() % 100 < (step / 1000 % 2 == 0 ? 60U : 30U);
        const Item item = valueAt(list.lastNotAfter(key));
        if (grows) {
            ASSERT_NE(list.insert({.key = key, .number = step + 1}), nullptr);
            model.insert({.key = key, .number = step + 1});
        } else if (item.number != 0) {
            list.deletePayload(*list.lastNotAfter(key));
            model.erase(item);
        }
        ASSERT_EQ(valueAt(list.lastBefore(key)), model.lastBefore(key)) << "step " << step;
        if (step % 100 == 0) {
            ASSERT_EQ(itemsOf(list), model.items()) << "step " << step;
            ASSERT_EQ(valueAt(list.last()), model.items().empty() ? Item{} : model.items().back());
        }
    }
}
