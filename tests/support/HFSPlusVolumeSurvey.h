#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "support/HFSPlusVolumeChecker.h"
#include "support/MemoryBlockDevice.h"

/** What a field of a volume's metadata is for. */
enum class HFSPlusFieldGroup : uint8_t {
    kHeader,         // of the volume, without the forks
    kHeaderFork,     // sizes and extents of the special files
    kAlternate,      // header at the volume's end, forks included
    kWrapper,        // master directory block
    kJournal,        // info block, and the journal's own header
    kBitmap,         // one byte each, of the front and the end
    kTreeHeader,     // header records
    kNodeMap,        // one byte each
    kDescriptor,     // links, kind, height and record count of nodes
    kRecordOffset,   // the table at a node's end
    kKeyLength,      // of any record
    kKey,            // IDs, name lengths and beginnings of names
    kChild,          // node numbers in index records
    kFileFork,       // sizes and extents in file records
    kOverflow,       // extents in overflow records
    kRecord,         // types, IDs and the like in leaf records
    kFileOfNumbers,  // the playlist and the hot-files tree's user data
    kCount,
};

/** Where the fields of a sound volume lie, learnt from its bytes alone, so that a damage to any
 *  volume, built or real, can look like the real thing.
 */
class HFSPlusVolumeSurvey {
public:
    /** A number; its bytes lie side by side. */
    struct Field {
        uint64_t place = 0;  // bytes into the device
        uint32_t size = 0;   // bytes
    };
    /** A node's sectors of 512 bytes, in the node's order: where each lies on the device. */
    using Node = std::vector<uint64_t>;

    explicit HFSPlusVolumeSurvey(const MemoryBlockDevice& memory);

    /** Whether the volume was sound; nothing is known of another. */
    [[nodiscard]] bool isSound() const { return _result.consistent; }
    [[nodiscard]] std::span<const Field> fields(HFSPlusFieldGroup group) const
    {
        return _fields[static_cast<size_t>(group)];
    }
    /** Used nodes of all trees. */
    [[nodiscard]] std::span<const Node> nodes() const { return _nodes; }
    /** Places of all sectors that hold metadata. */
    [[nodiscard]] std::span<const uint64_t> sectors() const { return _sectors; }
    /** What the checker found. */
    [[nodiscard]] const HFSPlusCheckResult& result() const { return _result; }

private:
    enum class Tree { kExtents, kCatalog, kAttributes, kHotFiles };
    /** The node being looked at. */
    struct Place {
        Tree tree;
        const Node* sectors;
        uint32_t size;  // bytes
    };

    [[nodiscard]] uint64_t _number(uint64_t place, uint32_t size) const;
    [[nodiscard]] uint64_t _number(const Place& node, uint64_t offset, uint32_t size) const;
    void _add(HFSPlusFieldGroup group, uint64_t place, uint32_t size);
    void _add(HFSPlusFieldGroup group, const Place& node, uint64_t offset, uint32_t size);
    [[nodiscard]] Node _sectorsOf(uint32_t cnid) const;
    void _surveyHeader(HFSPlusFieldGroup group, HFSPlusFieldGroup forkGroup, uint64_t place);
    void _surveyWrapper();
    void _surveyJournal();
    void _surveyBitmap();
    void _surveyTree(Tree tree, uint32_t cnid);
    void _surveyTreeHeader(const Place& node);
    void _surveyNode(const Place& node);
    void _surveyRecord(const Place& node, bool isLeaf, uint64_t start, uint64_t end);
    void _surveyCatalogRecord(const Place& node, uint64_t key, uint64_t data, uint64_t end);
    void _surveyAttribute(const Place& node, uint64_t data, uint64_t end);
    void _addExtents(HFSPlusFieldGroup group, const Place& node, uint64_t offset, uint64_t end);
    void _noteNamedFile(const Place& node, uint64_t key, uint32_t cnid);
    void _surveyNamedFiles();
    void _keepSectors(const Node& sectors);

    const MemoryBlockDevice& _memory;
    HFSPlusCheckResult _result;
    std::array<std::vector<Field>, static_cast<size_t>(HFSPlusFieldGroup::kCount)> _fields;
    std::vector<Node> _nodes;
    std::vector<uint64_t> _sectors;
    uint32_t _playlist = 0;  // file IDs; 0: there is none
    uint32_t _hotFiles = 0;
};
