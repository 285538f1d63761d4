#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusFormatConversion.h"

class HFSPlusVolume;

/** Prints the record of a file: its fields, then all extents of its data and resource fork.
 *
 *  Standard output is locked for the whole line. A line of very many extents leaves in pieces, so
 *  that memory stays bounded; any other is written at once.
 */
class HFSPlusFileRecordPrinter {
public:
    /** How many bits of a date are printed, always with a sign. */
    enum class DateWidth : uint8_t { k32Bits, k64Bits };

    HFSPlusFileRecordPrinter(HFSPlusVolume& volume, std::string_view taskName, DateWidth dateWidth);
    HFSPlusFileRecordPrinter(const HFSPlusFileRecordPrinter&) = delete;
    HFSPlusFileRecordPrinter& operator=(const HFSPlusFileRecordPrinter&) = delete;

    /** Prints the line of @p file in folder @p parentID; @p safeName is safe for output already.
     *
     *  Fails when extents are missing; the line is then ended after those that were found.
     */
    [[nodiscard]] bool print(uint32_t parentID, std::string_view safeName,
                             const HFSPlusCatalogFile& file, VZDefragErrorSlot error);
    [[nodiscard]] bool print(uint32_t parentID, std::string_view safeName,
                             const HFSPlusHostCatalogFile& file, VZDefragErrorSlot error);

private:
    template <typename File>
    void _appendHead(uint32_t parentID, std::string_view safeName, const File& file);
    [[nodiscard]] bool _printForks(uint32_t fileID, const HFSPlusForkData& data,
                                   const HFSPlusForkData& resource, VZDefragErrorSlot error);
    void _appendExtent(const HFSPlusHostExtentDescriptor& extent);
    void _appendText(std::string_view text);
    void _appendNumber(uint32_t number);
    void _appendDate(uint32_t date);
    void _appendCode(uint32_t code);
    void _appendSeparator();
    void _writeOut();

    HFSPlusExtents& _extents;
    std::string _lineStart;  // the same in every line
    DateWidth _dateWidth;
    HFSPlusExtentVisitor _visitor;
    std::vector<char> _line;
    size_t _length = 0;  // bytes of the line that are not yet written
};
