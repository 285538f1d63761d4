#include "ControlFreeSpaceReader.h"

#include <algorithm>
#include <bit>

namespace {

constexpr uint32_t kBlocksPerDigit = 4;
constexpr int kNoDigit = -1;

int valueOfDigit(char digit)
{
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : kNoDigit;
}

}  // namespace

ControlFreeSpaceReader::ControlFreeSpaceReader(ControlMap& map, ControlFreeSpace& freeSpace)
    : _map(map), _freeSpace(freeSpace)
{
}

bool ControlFreeSpaceReader::addDigits(std::string_view digits)
{
    // The picture is made of whole bytes, so a few bits may lie beyond the last block.
    const uint64_t end = (uint64_t{_map.totalBlocks()} + 7) / 8 * 8;
    for (const char digit : digits) {
        const int value = valueOfDigit(digit);
        if (value == kNoDigit || _block + kBlocksPerDigit > end) {
            return false;
        }
        if (value == 0 || value == 0xF) {
            _addBlocks(value != 0, kBlocksPerDigit);
            continue;
        }
        for (unsigned bit = 0; bit < kBlocksPerDigit; bit++) {
            _addBlocks((static_cast<unsigned>(value) & (8U >> bit)) != 0, 1);
        }
    }
    return true;
}

bool ControlFreeSpaceReader::finish()
{
    const bool isWhole = _block >= _map.totalBlocks();
    _endRun();
    return isWhole;
}

void ControlFreeSpaceReader::_addBlocks(bool isUsed, uint32_t count)
{
    if (isUsed != _runIsUsed) {
        _endRun();
        _runIsUsed = isUsed;
    }
    _block += count;
}

void ControlFreeSpaceReader::_endRun()
{
    const uint64_t end = std::min<uint64_t>(_block, _map.totalBlocks());
    const auto count = static_cast<uint32_t>(end > _runStart ? end - _runStart : 0);
    if (count > 0 && _runIsUsed) {
        _map.change(static_cast<uint32_t>(_runStart), count, ControlKind::kFree,
                    ControlKind::kFixed);
    } else if (count > 0) {
        ControlRunClass& runClass =
            _freeSpace.classes.at(static_cast<size_t>(std::bit_width(count)) - 1);
        runClass.runs++;
        runClass.blocks += count;
        _freeSpace.runs++;
        _freeSpace.blocks += count;
        _freeSpace.largestRun = std::max(_freeSpace.largestRun, count);
    }
    _runStart = _block;
}
