#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

/** What an allocation block is used for, as far as the line protocol tells. */
enum class ControlKind : uint8_t {
    kFree,
    kUsed,        // of a file whose forks are each in one piece
    kFragmented,  // of a file with a fork in pieces
    kFixed,       // in use and of no listed file: the volume's own structures, and the journal
};
constexpr size_t kControlKindCount = 4;

/** Blocks of each kind. */
class ControlKindCounts {
public:
    [[nodiscard]] uint64_t of(ControlKind kind) const { return _blocks[static_cast<size_t>(kind)]; }
    uint64_t& of(ControlKind kind) { return _blocks[static_cast<size_t>(kind)]; }
    /** Blocks of every kind. */
    [[nodiscard]] uint64_t total() const;
    /** The kind to show for all of them: that of most blocks, but free only when most are free. */
    [[nodiscard]] ControlKind shownKind() const;
    /** Adds all of @p other. */
    void add(const ControlKindCounts& other);

    bool operator==(const ControlKindCounts& other) const = default;

private:
    std::array<uint64_t, kControlKindCount> _blocks = {};
};

/** The blocks from @p start to before @p end. */
struct ControlBlockRange {
    uint64_t start = 0;
    uint64_t end = 0;

    bool operator==(const ControlBlockRange& other) const = default;
};

/** What a volume's blocks are used for, as counts in equal slices from its first block to its last.
 *
 *  A picture of any size is made from it with cells(). All numbers are allocation blocks.
 * Everything outside the volume is ignored.
 */
class ControlMap {
public:
    /** A volume without blocks. */
    ControlMap() : ControlMap(0) {}
    /** A volume of free blocks. It gets at most @p sliceLimit slices. */
    explicit ControlMap(uint32_t totalBlocks, size_t sliceLimit = kSliceLimit);

    /** The map that has @p slices of @p blocksPerSlice blocks, the last one cut off by the end.
     *
     *  Nothing when they are not as many as that takes, or one counts other than its blocks.
     */
    [[nodiscard]] static std::optional<ControlMap> withSlices(
        uint32_t totalBlocks, uint32_t blocksPerSlice, std::vector<ControlKindCounts> slices);

    [[nodiscard]] uint32_t totalBlocks() const { return _totalBlocks; }
    [[nodiscard]] uint32_t blocksPerSlice() const { return _blocksPerSlice; }
    [[nodiscard]] const std::vector<ControlKindCounts>& slices() const { return _slices; }
    [[nodiscard]] ControlKindCounts totals() const;

    /** Changes up to @p count blocks from @p start on from kind @p from to kind @p to.
     *
     *  In each slice no more than there are of @p from.
     */
    void change(uint32_t start, uint32_t count, ControlKind from, ControlKind to);

    /** Moves @p count blocks in use from @p source to @p destination.
     *
     *  Blocks of a slice are not told apart: those in pieces leave it first. What arrives keeps its
     *  kind, or is kUsed when @p becomesWhole. Free space is always right, the kinds nearly so.
     */
    void move(uint32_t source, uint32_t destination, uint32_t count, bool becomesWhole);

    /** The same in at most @p sliceLimit slices. */
    [[nodiscard]] ControlMap coarsened(size_t sliceLimit) const;
    /** The volume in @p count cells of (nearly) equal size. */
    [[nodiscard]] std::vector<ControlKindCounts> cells(size_t count) const;
    /** Which of @p count cells holds @p block. */
    [[nodiscard]] size_t cellOfBlock(uint32_t block, size_t count) const;
    /** Which blocks cell @p index of @p count cells shows. */
    [[nodiscard]] ControlBlockRange blocksOfCell(size_t index, size_t count) const;

private:
    static constexpr size_t kSliceLimit = 65536;

    /** The first block of slice @p index, or the volume's end. */
    [[nodiscard]] uint64_t _sliceStart(size_t index) const;
    /** Calls @p body with each slice that [start, start + count) meets and how many blocks it has
     * there. */
    template <typename Body>
    void _forEachSlice(uint32_t start, uint32_t count, Body body);

    uint32_t _totalBlocks;
    uint32_t _blocksPerSlice;
    std::vector<ControlKindCounts> _slices;
};
