#include <random>

#include "HFSPlusExtentsFixture.h"
#include "support/TestSeed.h"

namespace {

constexpr std::string_view kCongested =
    "Overflow extents file is too congested, unable to continue.";

/** Does random operations to a tree and to a map, which must always agree. */
class RandomOperations {
public:
    RandomOperations(const ExtentsVolume& volume, uint32_t seed) : _volume(volume), _random(seed) {}

    /** @p insertions of a hundred operations insert, as many as that delete less than 100. */
    void perform(uint32_t operations, uint32_t insertions, uint32_t deletions)
    {
        for (uint32_t operation = 0; operation < operations; ++operation) {
            const uint32_t choice = _below(100);
            if (choice < insertions) {
                _insert();
            } else if (choice < insertions + deletions) {
                _remove();
            } else if (choice % 2 == 0) {
                _update();
            } else {
                _lookUp();
            }
            if (testing::Test::HasFatalFailure()) {
                return;
            }
        }
    }
    void removeAll()
    {
        while (!_model.empty() && !testing::Test::HasFatalFailure()) {
            _remove();
        }
    }
    [[nodiscard]] const OverflowRecords& model() const { return _model; }
    [[nodiscard]] uint32_t refusals() const { return _refusals; }

private:
    uint32_t _below(uint32_t bound) { return static_cast<uint32_t>(_random() % bound); }
    OverflowKey _randomKey()
    {
        return {16 + _below(60), static_cast<uint8_t>(_below(3) == 0 ? 0xFF : 0), 1 + _below(200)};
    }
    OverflowKey _knownKey()
    {
        const auto found = _model.lower_bound(_randomKey());
        return found == _model.end() ? _model.begin()->first : found->first;
    }
    void _insert()
    {
        const OverflowKey key = _randomKey();
        std::unique_ptr<VZDefragError> error;
        const bool isNew = !_model.contains(key);
        const uint32_t mark = ++_mark;
        if (_volume.insert(key, mark, &error)) {
            ASSERT_TRUE(isNew);
            _model[key] = mark;
        } else if (error->description() == kCongested) {
            ++_refusals;
        } else {
            ASSERT_FALSE(isNew) << error->description();
        }
    }
    void _remove()
    {
        const OverflowKey key = _randomKey();
        ASSERT_EQ(_volume.remove(key), _model.erase(key) == 1);
        if (!_model.empty()) {
            const OverflowKey known = _knownKey();
            ASSERT_TRUE(_volume.remove(known));
            _model.erase(known);
        }
    }
    void _update()
    {
        if (!_model.empty()) {
            const OverflowKey known = _knownKey();
            _model[known] = ++_mark;
            ASSERT_TRUE(_volume.update(known, _mark));
        }
    }
    void _lookUp()
    {
        if (_model.empty()) {
            return;
        }
        const OverflowKey key = _randomKey();
        HFSPlusExtentRecord record;
        uint32_t block = key.startBlock;
        ASSERT_TRUE(
            _volume.tree().copyExtentRecord(record, block, key.fileID, key.forkType, nullptr));
        auto expected = _model.upper_bound(key);
        const bool isThere = expected != _model.begin() &&
                             (--expected)->first.fileID == key.fileID &&
                             expected->first.forkType == key.forkType;
        ASSERT_EQ(record[0].startBlock, isThere ? expected->second : 0u);
        ASSERT_EQ(block, isThere ? expected->first.startBlock : key.startBlock);
    }

    const ExtentsVolume& _volume;
    std::mt19937 _random;
    OverflowRecords _model;
    uint32_t _mark = 0;
    uint32_t _refusals = 0;
};

/** Grows a tree, keeps it busy and empties it, checking it on disk all the time. */
void growAndShrink(const ExtentsVolume& volume)
{
    RandomOperations operations(volume, testSeed());
    for (const auto& [insertions, deletions] :
         {std::pair{70u, 5u}, std::pair{30u, 20u}, std::pair{5u, 50u}}) {
        for (uint32_t batch = 0; batch < 12; ++batch) {
            operations.perform(500, insertions, deletions);
            ASSERT_EQ(volume.recordsOnDisk(), operations.model());
            if (testing::Test::HasFailure()) {
                return;
            }
        }
    }
    operations.removeAll();
    EXPECT_TRUE(volume.recordsOnDisk().empty());
    EXPECT_EQ(volume.tree().headerRecord().treeDepth, 0);
}

}  // namespace

TEST(HFSPlusExtents, RandomOperationsOnNodesOf512BytesAgreeWithAMap)
{
    const ExtentsVolume volume(2000);
    volume.tree().setNodeCacheSize(100 * 512);
    growAndShrink(volume);
}

TEST(HFSPlusExtents, RandomOperationsOnNodesOf1024BytesAgreeWithAMap)
{
    const ExtentsVolume volume(1000, 1024);
    growAndShrink(volume);
}

TEST(HFSPlusExtents, RandomOperationsInATreeThatIsOftenFullLeaveItSound)
{
    const ExtentsVolume volume(60);
    RandomOperations operations(volume, testSeed());
    for (uint32_t batch = 0; batch < 30; ++batch) {
        operations.perform(200, 60, 20);
        ASSERT_EQ(volume.recordsOnDisk(), operations.model());
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_GT(operations.refusals(), 0u);
}
