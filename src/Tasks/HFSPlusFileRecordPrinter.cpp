#include "Tasks/HFSPlusFileRecordPrinter.h"

#include <charconv>
#include <cstring>

#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLMemory.h"
#include "VZDefragOutput.h"

namespace {

constexpr int64_t kUnixEpoch = 2082844800;  // in seconds of 1904, when dates on disk begin
constexpr size_t kPieceBytes = 65536;       // a longer line leaves in pieces
constexpr size_t kHeadBytes = 256;          // more than all fields but the name can take
constexpr size_t kExtentBytes = 22;         // two commas and two numbers of ten digits
constexpr unsigned kCodeDigits = 8;

}  // namespace

HFSPlusFileRecordPrinter::HFSPlusFileRecordPrinter(HFSPlusVolume& volume, std::string_view taskName,
                                                   DateWidth dateWidth)
    : _extents(volume.extents()),
      _lineStart(std::string(taskName) + ",FILE,"),
      _dateWidth(dateWidth),
      _visitor([this](const HFSPlusHostExtentDescriptor& extent) { _appendExtent(extent); }),
      _line(kPieceBytes)
{
}

bool HFSPlusFileRecordPrinter::print(uint32_t parentID, std::string_view safeName,
                                     const HFSPlusCatalogFile& file, VZDefragErrorSlot error)
{
    const VZDefragOutputLock output;
    _appendHead(parentID, safeName, file);
    return _printForks(file.fileID, file.dataFork, file.resourceFork, error);
}

bool HFSPlusFileRecordPrinter::print(uint32_t parentID, std::string_view safeName,
                                     const HFSPlusHostCatalogFile& file, VZDefragErrorSlot error)
{
    const VZDefragOutputLock output;
    _appendHead(parentID, safeName, file);
    return _printForks(file.fileID, diskOrder(file.dataFork), diskOrder(file.resourceFork), error);
}

template <typename File>
void HFSPlusFileRecordPrinter::_appendHead(uint32_t parentID, std::string_view safeName,
                                           const File& file)
{
    const size_t most = _lineStart.size() + safeName.size() + kHeadBytes;
    if (_line.size() < most) {
        _line.resize(most);
    }
    _appendText(_lineStart);
    _appendNumber(parentID);
    _appendSeparator();
    _appendNumber(file.fileID);
    _appendSeparator();
    _appendText(safeName);
    _appendDate(file.createDate);
    _appendDate(file.contentModDate);
    _appendDate(file.accessDate);
    _appendCode(file.fileType);
    _appendCode(file.fileCreator);
}

/** Appends the extents and writes the line, which is ended in every case. */
bool HFSPlusFileRecordPrinter::_printForks(uint32_t fileID, const HFSPlusForkData& data,
                                           const HFSPlusForkData& resource, VZDefragErrorSlot error)
{
    bool printed = false;
    const bool hadMemory = KLWithinMemory([&] {
        printed =
            _extents.visitForkExtents(data, fileID, kHFSDataForkType, _visitor, error) &&
            _extents.visitForkExtents(resource, fileID, kHFSResourceForkType, _visitor, error);
    });
    _line[_length++] = '\n';
    _writeOut();
    return hadMemory ? printed : VZDefragFail(error, "Out of memory.");
}

void HFSPlusFileRecordPrinter::_appendExtent(const HFSPlusHostExtentDescriptor& extent)
{
    // Room for the end of the line stays.
    if (_line.size() - _length <= kExtentBytes) {
        _writeOut();
    }
    _appendSeparator();
    _appendNumber(extent.startBlock);
    _appendSeparator();
    _appendNumber(extent.blockCount);
}

void HFSPlusFileRecordPrinter::_appendText(std::string_view text)
{
    std::memcpy(_line.data() + _length, text.data(), text.size());
    _length += text.size();
}

void HFSPlusFileRecordPrinter::_appendNumber(uint32_t number)
{
    char* const begin = _line.data() + _length;
    char* const end = std::to_chars(begin, _line.data() + _line.size(), number).ptr;
    _length += static_cast<size_t>(end - begin);
}

void HFSPlusFileRecordPrinter::_appendDate(uint32_t date)
{
    int64_t seconds = int64_t{date} - kUnixEpoch;
    if (_dateWidth == DateWidth::k32Bits) {
        seconds = static_cast<int32_t>(seconds);
    }
    _appendSeparator();
    if (seconds < 0) {
        _line[_length++] = '-';
    }
    _appendNumber(static_cast<uint32_t>(seconds < 0 ? -seconds : seconds));
}

/** A four-character code as eight hexadecimal digits. */
void HFSPlusFileRecordPrinter::_appendCode(uint32_t code)
{
    _appendSeparator();
    for (unsigned digit = 0; digit < kCodeDigits; ++digit) {
        _line[_length++] = "0123456789ABCDEF"[code >> 28];
        code <<= 4;
    }
}

void HFSPlusFileRecordPrinter::_appendSeparator()
{
    _line[_length++] = ',';
}

void HFSPlusFileRecordPrinter::_writeOut()
{
    VZDefragWriteOutput({_line.data(), _length});
    _length = 0;
}
