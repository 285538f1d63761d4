#include "support/HFSPlusVolumeCheckerBase.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

void HFSPlusCheckProblems::report(const char* format, ...)
{
    ++_count;
    if (_count > _limit) {
        return;
    }
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    _list.emplace_back(text);
}

void HFSPlusCheckProblems::finish()
{
    if (_count > _limit) {
        _list.push_back("and " + std::to_string(_count - _limit) + " more problems");
    }
}

HFSPlusCheckForkStream::HFSPlusCheckForkStream(const HFSPlusCheckedVolume& volume,
                                               const HFSPlusCheckedFork& fork)
    : _reader(volume.reader),
      _volumeOffset(volume.offset),
      _volumeSize(volume.size),
      _blockSize(volume.blockSize),
      _extents(fork.extents)
{
    uint64_t end = 0;
    _ends.reserve(_extents.size());
    for (const HFSPlusCheckedExtent& extent : _extents) {
        end += extent.blockCount * _blockSize;
        _ends.push_back(end);
    }
}

bool HFSPlusCheckForkStream::read(void* buffer, size_t nbyte, uint64_t offset)
{
    auto* bytes = static_cast<uint8_t*>(buffer);
    auto index =
        static_cast<size_t>(std::upper_bound(_ends.begin(), _ends.end(), offset) - _ends.begin());
    // Each round ends the request or goes on to the next extent.
    while (nbyte > 0) {
        if (index >= _extents.size()) {
            return false;
        }
        const uint64_t extentStart = _ends[index] - _extents[index].blockCount * _blockSize;
        const uint64_t place = _extents[index].startBlock * _blockSize + (offset - extentStart);
        const auto count = static_cast<size_t>(std::min<uint64_t>(nbyte, _ends[index] - offset));
        if (place > _volumeSize || count > _volumeSize - place ||
            !_reader.read(bytes, count, _volumeOffset + place)) {
            return false;
        }
        bytes += count;
        nbyte -= count;
        offset += count;
        ++index;
    }
    return true;
}

std::string checkedForkName(uint32_t cnid, uint8_t forkType)
{
    switch (cnid) {
        case 3:
            return "the extents overflow file";
        case 4:
            return "the catalog file";
        case 5:
            return "the bad-block file";
        case 6:
            return "the allocation file";
        case 7:
            return "the startup file";
        case 8:
            return "the attributes file";
        default:
            break;
    }
    return (forkType == kHFSPlusCheckDataFork ? "the data fork of file "
                                              : "the resource fork of file ") +
           std::to_string(cnid);
}
