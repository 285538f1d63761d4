#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>

#include "HFSPlusExtentMapFixture.h"
#include "support/TestSeed.h"

namespace {

using namespace extentmaptest;
class HFSPlusExtentMapRandom : public Fixture {};

/** Who owns each block of a span, one element a block. */
class BlockModel {
public:
    struct Owner {
        uint32_t cnid = 0;
        uint32_t info = kFree;
        bool operator==(const Owner&) const = default;
    };

    explicit BlockModel(uint32_t blocks) : _owners(blocks), _end(blocks) {}

    [[nodiscard]] bool insert(uint32_t start, uint32_t count, const Owner& owner)
    {
        for (uint32_t block = first(start); block < last(start, count); ++block) {
            if (_owners[block] != Owner{}) {
                return false;
            }
        }
        fill(start, count, owner);
        return true;
    }
    void fill(uint32_t start, uint32_t count, const Owner& owner)
    {
        for (uint32_t block = first(start); block < last(start, count); ++block) {
            _owners[block] = owner;
        }
    }
    void setStart(uint32_t block) { _start = std::max(_start, std::min(block, _end)); }
    void setEnd(uint32_t block) { _end = block; }

    [[nodiscard]] uint32_t start() const { return _start; }
    [[nodiscard]] uint32_t end() const { return _end; }

    void expectEqual(const HFSPlusExtentMap& map) const
    {
        ASSERT_EQ(map.startBlock(), _start);
        ASSERT_EQ(map.blockCount(), _end - _start);
        const BlockRuns runs = runsOf(map);
        ASSERT_EQ(map.extentCount(), runs.size());
        std::vector<Owner> owners(_owners.begin(), _owners.begin() + _start);
        std::array<uint32_t, 3> counts = {};
        for (const BlockRun& run : runs) {
            ASSERT_EQ(run.start, owners.size()) << run;
            ASSERT_NE(run.count, 0U) << run;
            owners.insert(owners.end(), run.count, Owner{.cnid = run.cnid, .info = run.info});
            counts[run.info >> 24] += run.count;
        }
        ASSERT_TRUE(
            std::equal(owners.begin(), owners.end(), _owners.begin(), _owners.begin() + _end));
        for (uint8_t type = 0; type < counts.size(); ++type) {
            ASSERT_EQ(map.blockCountForType(type), counts[type]);
        }
        map.validate(false);
    }

private:
    [[nodiscard]] uint32_t first(uint32_t start) const { return std::max(start, _start); }
    [[nodiscard]] uint32_t last(uint32_t start, uint32_t count) const
    {
        return std::min(start + count, _end);
    }

    std::vector<Owner> _owners;
    uint32_t _start = 0;
    uint32_t _end;
};

}  // namespace

TEST_F(HFSPlusExtentMapRandom, RandomOperationsAgreeWithAnOwnerForEachBlock)
{
    std::minstd_rand random(testSeed());
    const auto below = [&random](uint32_t limit) {
        return static_cast<uint32_t>(random() % limit);
    };

    for (int round = 0; round < 40; ++round) {
        const auto map = mapFrom(0);
        BlockModel model(kBlocks);
        for (int step = 0; step < 400; ++step) {
            const uint32_t start = below(kBlocks + 50);
            const uint32_t count = below(below(4) == 0 ? 200 : 12);
            const BlockModel::Owner owner = {.cnid = 16 + below(4),
                                             .info = below(4) == 0 ? kFixed : kData};
            switch (below(40)) {
                case 0:
                    ASSERT_TRUE(map->removeToBlock(start));
                    model.setStart(start);
                    break;
                case 1:
                    if (!map->isEmpty()) {
                        ASSERT_TRUE(map->removeEntry(*map->firstEntry()));
                        model.setStart(map->startBlock());
                    }
                    break;
                case 2:
                    map->limitMemoryUsageTo(32 * std::max<uint64_t>(2, map->extentCount() - 1));
                    map->limitMemoryUsageTo(0);
                    model.setEnd(map->startBlock() + map->blockCount());
                    break;
                default:
                    if (map->isEmpty()) {
                        break;
                    }
                    if (below(2) == 0) {
                        ASSERT_EQ(map->insert(start, count, owner.cnid, owner.info),
                                  model.insert(start, count, owner));
                    } else {
                        ASSERT_TRUE(map->deleteRun(start, count));
                        model.fill(start, count, {});
                    }
            }
            if (step % 20 == 0) {
                ASSERT_NO_FATAL_FAILURE(model.expectEqual(*map)) << "step " << step;
            }
        }
        ASSERT_NO_FATAL_FAILURE(model.expectEqual(*map));
    }
}
