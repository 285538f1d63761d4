#pragma once

#include <cstdint>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "support/HFSPlusVolumeBuilderPlan.h"
#include "support/MemoryBlockDevice.h"

/** Damages the structures of a built volume at random.
 *
 *  It knows where fields lie, so that a damage looks like the real thing: a number that is off by
 *  one, a link to another node, a record that is another one's. The same generator does the same
 *  damage again.
 */
class HFSPlusVolumeMutator {
public:
    /** @p memory holds the volume of @p plan. */
    HFSPlusVolumeMutator(const HFSPlusVolumeBuilderPlan& plan, MemoryBlockDevice& memory,
                         std::mt19937& random)
        : _plan(plan), _memory(memory), _random(random)
    {
    }

    /** Does one damage. */
    void mutate();

    /** What was done, for the message of a test that fails. */
    [[nodiscard]] const std::string& story() const { return _story; }

private:
    /** A number on the volume; its bytes may be parted by the end of an extent. */
    struct Field {
        const HFSPlusBuilderExtents* extents;  // null: within the device
        uint64_t offset;                       // bytes
        uint32_t size;                         // bytes
    };

    [[nodiscard]] uint64_t _below(uint64_t limit) { return limit == 0 ? 0 : _random() % limit; }
    [[nodiscard]] uint64_t _place(const Field& field, uint32_t index) const;
    [[nodiscard]] uint64_t _value(const Field& field) const;
    void _setValue(const Field& field, uint64_t value);
    [[nodiscard]] uint64_t _newValue(const Field& field);
    void _damage(const Field& field, const char* what);

    [[nodiscard]] const HFSPlusBuilderTreePlan& _tree();
    [[nodiscard]] uint32_t _usedNode(const HFSPlusBuilderTreePlan& tree);
    [[nodiscard]] Field _nodeField(const HFSPlusBuilderTreePlan& tree, uint32_t node,
                                   uint64_t offset, uint32_t size) const;
    void _mutateHeader();
    void _mutateWrapperOrJournal();
    void _mutateBitmap();
    void _mutateTreeHeader();
    void _mutateNode();
    void _mutateRecord();
    void _mutateWholeNode();
    void _mutateBytes();

    const HFSPlusVolumeBuilderPlan& _plan;
    MemoryBlockDevice& _memory;
    std::mt19937& _random;
    std::string _story;
};
