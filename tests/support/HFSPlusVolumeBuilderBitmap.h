#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <vector>

/** The blocks in use on a volume under construction; only the parts with used blocks take memory.
 */
class HFSPlusVolumeBuilderBitmap {
public:
    /** Receives bytes of the bitmap as they are on disk; false ends the walk. */
    using Visitor = std::function<bool(uint64_t byteOffset, std::span<const uint8_t> bytes)>;

    explicit HFSPlusVolumeBuilderBitmap(uint32_t totalBlocks) : _totalBlocks(totalBlocks) {}

    /** Whether all of the run lies on the volume and none of it is used. */
    [[nodiscard]] bool isFree(uint32_t start, uint32_t count) const;

    /** Marks the run as used, as far as it lies on the volume. */
    void use(uint32_t start, uint32_t count);

    /** The first block of the first free run of @p count blocks at or after @p from. */
    [[nodiscard]] std::optional<uint32_t> findRun(uint32_t count, uint32_t from) const;

    [[nodiscard]] uint32_t freeBlocks() const;

    /** Visits all parts that are not zero, in ascending order. */
    [[nodiscard]] bool visit(const Visitor& visitor) const;

private:
    static constexpr uint32_t kPageBytes = 4096;
    static constexpr uint32_t kPageBlocks = kPageBytes * 8;

    /** The number of blocks of one state that begin at @p block, at most to @p limit or the page's
     *  end.
     */
    [[nodiscard]] uint32_t _runAt(uint32_t block, uint64_t limit, bool& used) const;

    uint32_t _totalBlocks;
    std::map<uint32_t, std::vector<uint8_t>> _pages;  // by page number
};
