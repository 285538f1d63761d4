#pragma once

#include <cstdint>
#include <string_view>

#include "ControlFigures.h"

/** Makes runs of the hexadecimal digits of a BITMAP 1: a bit a block, set when it is in use. */
class ControlFreeSpaceReader {
public:
    /** @p map gets the blocks in use as fixed ones; it and @p freeSpace outlive the reader. */
    ControlFreeSpaceReader(ControlMap& map, ControlFreeSpace& freeSpace);

    /** Takes the next digits; false when one is none, or beyond the volume's last byte. */
    [[nodiscard]] bool addDigits(std::string_view digits);
    /** Ends the last run; false when blocks are missing. */
    [[nodiscard]] bool finish();

private:
    /** @p count blocks more, all in use or all free. */
    void _addBlocks(bool isUsed, uint32_t count);
    void _endRun();

    ControlMap& _map;
    ControlFreeSpace& _freeSpace;
    uint64_t _block = 0;  // the next one
    uint64_t _runStart = 0;
    bool _runIsUsed = false;
};
