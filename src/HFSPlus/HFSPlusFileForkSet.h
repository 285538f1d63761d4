#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_set>

class HFSPlusVolume;

/** Distinct forks, each a file ID and a fork type, in the order in which they were added.
 *
 *  Removing at the front costs nothing, since the engine uses a set up from there. Indexes beyond
 *  count() abort. Used from the task's thread only.
 */
class HFSPlusFileForkSet {
public:
    /** An empty set; @p volume only names the files for dump(). */
    explicit HFSPlusFileForkSet(HFSPlusVolume& volume) : _volume(volume) {}

    [[nodiscard]] size_t count() const { return _entriesArray.size(); }
    void fileAtIndex(uint32_t& fileID, uint8_t& forkType, size_t index) const;
    void removeFileForkAtIndex(size_t index);
    /** Appends the fork unless the set has it already. */
    void add(uint32_t fileID, uint8_t forkType);
    [[nodiscard]] bool contains(uint32_t fileID, uint8_t forkType) const;
    void dump() const;

private:
    struct Entry {
        uint32_t fileID;
        uint8_t forkType;
        bool operator==(const Entry&) const = default;
    };
    struct EntryHash {
        size_t operator()(const Entry& entry) const
        {
            return entry.forkType ^ (entry.fileID ^ (entry.fileID << 8));
        }
    };

    [[nodiscard]] const Entry& _entryAtIndex(size_t index) const;

    HFSPlusVolume& _volume;
    // Both hold the same entries: the array their order, the set their presence.
    std::deque<Entry> _entriesArray;
    std::unordered_set<Entry, EntryHash> _entriesSet;
};
