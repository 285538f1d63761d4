#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

/** A scaled picture of a bitmap, drawn from its bytes as they come.
 *
 *  A bit of the picture stands for as many blocks as the scale says, the most significant bit of a
 *  digit first, and is set when at least half of them are in use. Blocks are counted from 0; byte
 *  N of the bitmap holds blocks 8 N to 8 N + 7, the most significant bit first.
 */
class HFSPlusBitmapPicture {
public:
    /** Takes a line of upper-case hex digits, which are only valid during the call. */
    using LineReceiver = std::function<void(std::string_view digits)>;

    static constexpr size_t kLineDigits = 4096;

    /** @p scale is how many blocks a bit stands for, at least 1. */
    HFSPlusBitmapPicture(uint32_t scale, LineReceiver receiveLine);

    /** Counts every block below @p block as used. Before the first byte. */
    void setFirstUnmaskedBlock(uint32_t block) { _firstUnmaskedBlock = block; }
    /** No block from @p block on is the last used one. Before the first byte. */
    void setLastUsedLimit(uint32_t block) { _lastUsedLimit = block; }

    /** Takes the next bytes of the bitmap; every full line is handed out at once. */
    void append(std::span<const uint8_t> bytes);
    /** Hands out the rest, a whole number of bytes: zeros fill it up, and a last group of too few
     *  blocks has no bit of its own. */
    void finish();

    /** The first block that was not in use; 4294967295 if there was none. */
    [[nodiscard]] uint32_t firstUnusedBlock() const { return _firstUnusedBlock; }
    /** The last block in use below the limit; 0 if there was none. */
    [[nodiscard]] uint32_t lastUsedBlock() const { return _lastUsedBlock; }

private:
    void _appendMasked(std::span<const uint8_t> bytes);
    void _noteFirstUnused(std::span<const uint8_t> bytes);
    void _noteLastUsed(std::span<const uint8_t> bytes);
    void _appendGroups(std::span<const uint8_t> bytes);
    [[nodiscard]] uint64_t _appendSmallGroups(std::span<const uint8_t> bytes, uint64_t bit);
    [[nodiscard]] uint64_t _bitsOfWindow(uint64_t window) const;
    void _makeGroupTable();
    [[nodiscard]] bool _isMostlyUsed(uint64_t used) const { return 2 * used >= _scale; }
    void _appendBits(uint64_t bits, uint32_t count);
    /** Takes what are bytes of the picture already. */
    void _appendBytes(std::span<const uint8_t> bytes);

    const uint32_t _scale;  // blocks per bit
    const LineReceiver _receiveLine;
    uint32_t _windowGroups;     // groups that a word settles at once; 0 if they are too large
    uint32_t _tableGroups = 0;  // groups that one look into the table settles; 0: no table
    std::vector<uint8_t> _groupTable;  // the groups' bits, by the bits of their blocks
    uint32_t _firstUnmaskedBlock = 0;
    uint32_t _lastUsedLimit = UINT32_MAX;
    uint32_t _firstUnusedBlock = UINT32_MAX;
    uint32_t _lastUsedBlock = 0;
    uint64_t _block = 0;     // the first one of the next bytes
    uint64_t _used = 0;      // blocks of the current group
    uint64_t _missing;       // blocks of the current group that are still to come
    uint64_t _bits = 0;      // of the picture, not yet printed; only the lowest _bitCount count
    uint32_t _bitCount = 0;  // less than 32 between calls
    std::array<char, kLineDigits> _line{};
    size_t _lineSize = 0;  // digits
};
