#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusFormat.h"
#include "HFSPlus/HFSPlusRollbackFormat.h"
#include "Platform/PlatformWritableFile.h"
#include "VZDefragError.h"

class VZDefragVolume;

/** One attempt to undo what a run that was cut off left half done. */
class HFSPlusRollbackRecovery {
public:
    HFSPlusRollbackRecovery(PlatformWritableFile& file, const std::string& name,
                            VZDefragVolume& device)
        : _file(file), _name(name), _device(device)
    {
    }

    /** What HFSPlusRollbackFile::recover() promises. */
    [[nodiscard]] bool run(VZDefragErrorSlot error);

private:
    /** A record whose bytes were found whole. */
    struct Record {
        uint64_t place = 0;   // of the bytes in the file
        uint64_t offset = 0;  // of the bytes on the device
        uint32_t nbyte = 0;
        uint32_t generation = 0;
    };

    [[nodiscard]] bool _readHeader(bool& blank, VZDefragErrorSlot error);
    [[nodiscard]] bool _checkVolume(VZDefragErrorSlot error);
    [[nodiscard]] uint32_t _completeFlushes() const;
    [[nodiscard]] bool _hasMark() const;
    [[nodiscard]] bool _hasChangedSince() const;
    [[nodiscard]] bool _isCopy() const;
    [[nodiscard]] bool _forget(VZDefragErrorSlot error);
    [[nodiscard]] bool _rollBack(VZDefragErrorSlot error);
    [[nodiscard]] bool _cutFile(VZDefragErrorSlot error);
    [[nodiscard]] bool _isInVolume(uint64_t offset, uint64_t nbyte) const;
    [[nodiscard]] bool _findRecords(VZDefragErrorSlot error);
    [[nodiscard]] bool _takeRecord(uint64_t& place, uint64_t size, bool& whole,
                                   VZDefragErrorSlot error);
    [[nodiscard]] bool _putBack(VZDefragErrorSlot error);
    [[nodiscard]] bool _isVolumeHeader(const Record& record) const;
    void _keepMark(const Record& record);
    [[nodiscard]] bool _completeAlternate(VZDefragErrorSlot error);
    [[nodiscard]] bool _writeCleanHeader(VZDefragErrorSlot error);
    [[nodiscard]] bool _readVolumeHeader(VZDefragErrorSlot error);
    [[nodiscard]] HFSPlusVolumeHeader _cleanHeader() const;
    void _emptyFile();
    bool _failToRead(int errorNumber, VZDefragErrorSlot error) const;

    PlatformWritableFile& _file;
    const std::string& _name;
    VZDefragVolume& _device;
    HFSPlusRollbackHeader _header = {};
    HFSPlusVolumeHeader _before = {};        // before the run, as far as the file keeps it
    HFSPlusVolumeHeader _volumeHeader = {};  // as on disk now
    std::vector<Record> _records;            // in the order in which they were written
    std::vector<uint8_t> _bytes;             // of the record looked at last
};
