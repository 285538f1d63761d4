#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "HFSPlus/HFSPlusByteRange.h"
#include "HFSPlus/HFSPlusFormat.h"
#include "Platform/PlatformWritableFile.h"
#include "VZDefragError.h"

class VZDefragVolume;

/** Keeps the old bytes of what a run overwrites in a file beside the volume, until the change that
 *  they belong to is complete.
 *
 *  No order of single writes makes a change of catalog, extents file, bitmap and header one step.
 *  With this file it is: protect() makes the old bytes durable before anything is overwritten, and
 *  recover() undoes what a power cut left half done. A change is complete when the volume header
 *  on disk says so: its write count counts the complete changes of the run, which takes no barrier
 *  beside those of the volume.
 */
class HFSPlusRollbackFile {
public:
    /** A volume, and its state before a run. */
    struct Volume {
        uint64_t startOffset = 0;  // bytes into the device
        uint64_t sizeBytes = 0;
        HFSPlusVolumeHeader header = {};  // as on disk
        uint32_t finalWriteCount = 0;     // the header's once a change is complete
    };

    /** @p name is for messages. */
    HFSPlusRollbackFile(std::string name, PlatformWritableFileOpener opener);

    /** Undoes on @p device what a run that was cut off left half done; nothing to do is success.
     *
     *  Fails, with file and device untouched, for a file that is damaged or another volume's. When
     *  the device fails it, or it is cut off itself, it can be repeated.
     */
    [[nodiscard]] bool recover(VZDefragVolume& device, VZDefragErrorSlot error);

    /** Begins a run on @p volume of @p device: makes the file where there is none. */
    [[nodiscard]] bool begin(const VZDefragVolume& device, const Volume& volume,
                             VZDefragErrorSlot error);
    /** Makes what lies in @p ranges of @p device durable here, with one barrier, where it is not
     *  yet. */
    [[nodiscard]] bool protect(VZDefragVolume& device, std::span<const HFSPlusByteRange> ranges,
                               VZDefragErrorSlot error);
    /** Whether protect() has seen this very range since the last complete change. */
    [[nodiscard]] bool isProtected(const HFSPlusByteRange& range) const
    {
        return _protected.contains(range);
    }
    [[nodiscard]] bool hasRecords() const { return !_protected.empty(); }
    /** The write count by which the marked volume header says that the present change is complete,
     *  and the one by which it says so of those before it. */
    [[nodiscard]] uint32_t completeWriteCount() const { return _firstWriteCount + _generation; }
    [[nodiscard]] uint32_t presentWriteCount() const { return completeWriteCount() - 1; }
    /** The present change is complete and durable; the next one begins. */
    void changeDidComplete();
    /** Forgets the records for good: the mark may go from the volume. */
    [[nodiscard]] bool prepareToEnd(VZDefragErrorSlot error);
    /** Empties the file at the end of a run. */
    void end();

private:
    bool _fail(std::string_view format, int errorNumber, VZDefragErrorSlot error) const;
    [[nodiscard]] bool _open(bool create, VZDefragErrorSlot error);
    [[nodiscard]] bool _appendRecords(VZDefragVolume& device, HFSPlusByteRange range,
                                      std::vector<uint8_t>& records, VZDefragErrorSlot error) const;
    [[nodiscard]] bool _append(std::vector<uint8_t>& records, VZDefragErrorSlot error);

    std::string _name;
    PlatformWritableFileOpener _opener;
    std::unique_ptr<PlatformWritableFile> _file;  // null until there is one
    std::set<HFSPlusByteRange> _protected;
    uint64_t _end = 0;              // bytes; where the next record goes
    uint32_t _generation = 1;       // of the present change
    uint32_t _firstWriteCount = 0;  // the marked volume header's before any change
};
