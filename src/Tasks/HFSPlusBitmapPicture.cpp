#include "Tasks/HFSPlusBitmapPicture.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "HFSPlus/HFSPlusByteOrder.h"

namespace {

constexpr uint64_t kWordBits = 64;
constexpr uint64_t kWordBytes = 8;
/** Bits that a word holds from any position within its first byte on. */
constexpr uint32_t kWindowBits = 57;
constexpr uint32_t kPrintedBits = 32;  // of the picture, at once
/** Small enough for its table to stay in the nearest cache. */
constexpr uint32_t kTableIndexBits = 12;

/** Both digits of every byte. */
constexpr auto kDigitPairs = [] {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::array<std::array<char, 2>, 256> pairs{};
    for (size_t byte = 0; byte < pairs.size(); ++byte) {
        pairs[byte] = {kDigits[byte / 16], kDigits[byte % 16]};
    }
    return pairs;
}();

/** The eight bytes from @p index on, the first one topmost; zeros behind the end. */
uint64_t wordAt(std::span<const uint8_t> bytes, uint64_t index)
{
    HFSPlusBigEndian<uint64_t> word = 0;
    if (bytes.size() - index >= kWordBytes) {
        std::memcpy(&word, bytes.data() + index, kWordBytes);
    } else {
        std::memcpy(&word, bytes.data() + index, bytes.size() - index);
    }
    return word;
}

/** How many of @p count bits from @p bit on are set; the range lies inside @p bytes. */
uint64_t usedBits(std::span<const uint8_t> bytes, uint64_t bit, uint64_t count)
{
    uint64_t used = 0;
    while (count > 0) {
        const uint64_t head = bit % 8;
        const uint64_t part = std::min(count, kWordBits - head);
        const uint64_t word = (wordAt(bytes, bit / 8) << head) >> (kWordBits - part);
        used += static_cast<uint64_t>(std::popcount(word));
        bit += part;
        count -= part;
    }
    return used;
}

}  // namespace

HFSPlusBitmapPicture::HFSPlusBitmapPicture(uint32_t scale, LineReceiver receiveLine)
    : _scale(scale),
      _receiveLine(std::move(receiveLine)),
      _windowGroups(kWindowBits / scale),
      _missing(scale)
{
    // Scale 1 has no need of a table: its bits are the bitmap's own.
    if (_scale > 1 && _scale <= kTableIndexBits) {
        _makeGroupTable();
    }
}

void HFSPlusBitmapPicture::_makeGroupTable()
{
    _tableGroups = kTableIndexBits / _scale;
    _windowGroups -= _windowGroups % _tableGroups;
    const uint32_t indexBits = _tableGroups * _scale;
    const uint32_t groupMask = (1U << _scale) - 1;
    _groupTable.resize(size_t{1} << indexBits);
    for (uint32_t index = 0; index < _groupTable.size(); ++index) {
        uint32_t groups = 0;
        for (uint32_t shift = indexBits; shift > 0; shift -= _scale) {
            const uint32_t blocks = index >> (shift - _scale) & groupMask;
            const auto used = static_cast<uint64_t>(std::popcount(blocks));
            groups = groups << 1 | (_isMostlyUsed(used) ? 1 : 0);
        }
        _groupTable[index] = static_cast<uint8_t>(groups);
    }
}

void HFSPlusBitmapPicture::append(std::span<const uint8_t> bytes)
{
    // The bytes are not ours to change, so those with masked blocks are copied, a few at a time.
    while (!bytes.empty() && _block < _firstUnmaskedBlock) {
        std::array<uint8_t, 4096> masked;
        const uint64_t maskedBlocks = _firstUnmaskedBlock - _block;
        const uint64_t size = std::min({masked.size(), bytes.size(), (maskedBlocks + 7) / 8});
        std::fill_n(masked.begin(), size, uint8_t{0xFF});
        if (maskedBlocks < size * 8) {
            masked[size - 1] =
                static_cast<uint8_t>(bytes[size - 1] | 0xFF00U >> (maskedBlocks % 8));
        }
        _appendMasked({masked.data(), size});
        bytes = bytes.subspan(size);
    }
    _appendMasked(bytes);
}

void HFSPlusBitmapPicture::_appendMasked(std::span<const uint8_t> bytes)
{
    if (_firstUnusedBlock == UINT32_MAX) {
        _noteFirstUnused(bytes);
    }
    _noteLastUsed(bytes);
    if (_scale == 1) {
        _appendBytes(bytes);
    } else {
        _appendGroups(bytes);
    }
    _block += uint64_t{bytes.size()} * 8;
}

void HFSPlusBitmapPicture::_noteFirstUnused(std::span<const uint8_t> bytes)
{
    for (uint64_t index = 0; index < bytes.size(); index += kWordBytes) {
        const uint64_t unused = ~wordAt(bytes, index);
        const uint64_t bit = index * 8 + static_cast<uint64_t>(std::countl_zero(unused));
        if (unused != 0 && bit < bytes.size() * 8) {
            _firstUnusedBlock = static_cast<uint32_t>(_block + bit);
            return;
        }
    }
}

void HFSPlusBitmapPicture::_noteLastUsed(std::span<const uint8_t> bytes)
{
    if (_block >= _lastUsedLimit) {
        return;
    }
    uint64_t end = std::min<uint64_t>(bytes.size() * 8, _lastUsedLimit - _block);  // bits
    while (end > 0) {
        const uint64_t begin = (end - 1) / kWordBits * kWordBits;
        const uint64_t word = wordAt(bytes, begin / 8) >> (kWordBits - (end - begin));
        if (word != 0) {
            const uint64_t bit = end - 1 - static_cast<uint64_t>(std::countr_zero(word));
            _lastUsedBlock = static_cast<uint32_t>(_block + bit);
            return;
        }
        end = begin;
    }
}

void HFSPlusBitmapPicture::_appendGroups(std::span<const uint8_t> bytes)
{
    const uint64_t end = bytes.size() * 8;
    uint64_t bit = 0;
    while (bit < end) {
        if (_missing == _scale) {
            bit = _appendSmallGroups(bytes, bit);
        }
        const uint64_t part = std::min(end - bit, _missing);
        _used += usedBits(bytes, bit, part);
        _missing -= part;
        bit += part;
        if (_missing == 0) {
            _appendBits(_isMostlyUsed(_used) ? 1 : 0, 1);
            _used = 0;
            _missing = _scale;
        }
    }
}

/** Settles groups that begin at @p bit and lie in whole words; the bit behind them. */
uint64_t HFSPlusBitmapPicture::_appendSmallGroups(std::span<const uint8_t> bytes, uint64_t bit)
{
    while (_windowGroups > 0 && bit / 8 + kWordBytes <= bytes.size()) {
        _appendBits(_bitsOfWindow(wordAt(bytes, bit / 8) << (bit % 8)), _windowGroups);
        bit += uint64_t{_windowGroups} * _scale;
    }
    return bit;
}

/** The bits of the groups that begin at the top of @p window. */
uint64_t HFSPlusBitmapPicture::_bitsOfWindow(uint64_t window) const
{
    uint64_t bits = 0;
    if (_tableGroups > 0) {
        const uint32_t indexBits = _tableGroups * _scale;
        for (uint32_t group = 0; group < _windowGroups; group += _tableGroups) {
            bits = bits << _tableGroups | _groupTable[window >> (kWordBits - indexBits)];
            window <<= indexBits;
        }
        return bits;
    }
    for (uint32_t group = 0; group < _windowGroups; ++group) {
        const auto used = static_cast<uint64_t>(std::popcount(window >> (kWordBits - _scale)));
        bits = bits << 1 | (_isMostlyUsed(used) ? 1 : 0);
        window <<= _scale;
    }
    return bits;
}

void HFSPlusBitmapPicture::_appendBits(uint64_t bits, uint32_t count)
{
    _bits = _bits << count | bits;
    _bitCount += count;
    if (_bitCount >= kPrintedBits) {
        _bitCount -= kPrintedBits;
        const HFSPlusBigEndian<uint32_t> word = static_cast<uint32_t>(_bits >> _bitCount);
        std::array<uint8_t, sizeof word> bytes{};
        std::memcpy(bytes.data(), &word, sizeof word);
        _appendBytes(bytes);
    }
}

void HFSPlusBitmapPicture::_appendBytes(std::span<const uint8_t> bytes)
{
    while (!bytes.empty()) {
        const size_t count = std::min(bytes.size(), (kLineDigits - _lineSize) / 2);
        char* digits = _line.data() + _lineSize;
        for (const uint8_t byte : bytes.first(count)) {
            std::memcpy(digits, kDigitPairs[byte].data(), 2);
            digits += 2;
        }
        _lineSize += count * 2;
        bytes = bytes.subspan(count);
        if (_lineSize == kLineDigits) {
            _receiveLine({_line.data(), _lineSize});
            _lineSize = 0;
        }
    }
}

void HFSPlusBitmapPicture::finish()
{
    if (_bitCount % 8 > 0 || _missing < _scale) {
        _appendBits(0, 8 - _bitCount % 8);
    }
    while (_bitCount > 0) {
        _bitCount -= 8;
        const auto byte = static_cast<uint8_t>(_bits >> _bitCount);
        _appendBytes({&byte, 1});
    }
    if (_lineSize > 0) {
        _receiveLine({_line.data(), _lineSize});
        _lineSize = 0;
    }
}
