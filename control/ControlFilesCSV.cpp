#include "ControlFilesCSV.h"

#include <string>

#include "ControlFileText.h"
#include "ControlText.h"

namespace {

/** @p text as one field: guarded against being a formula, and in quotation marks where it has to.
 */
std::string fieldOf(std::string_view text)
{
    std::string field;
    if (!text.empty() && std::string_view("=+-@'").find(text[0]) != std::string_view::npos) {
        field += '\'';
    }
    for (const char character : text) {
        field += character;
        if (character == '"') {
            field += '"';
        }
    }
    return field.find_first_of("\",\r\n") == std::string::npos ? field : '"' + field + '"';
}

}  // namespace

ControlFilesCSV::ControlFilesCSV(std::ostream& output, uint32_t blockSize)
    : _output(output), _blockSize(blockSize)
{
    _write(
        "id,folder_id,path,blocks,bytes,extents,fragmented,created,changed,read,type,creator\r\n");
}

void ControlFilesCSV::addFile(const ControlFile& file)
{
    const uint64_t blocks = file.blockCount();
    std::string line = std::to_string(file.fileID) + ',' + std::to_string(file.folderID) + ',';
    line += fieldOf(escapedForTerminal(file.path, ControlCharacters::kUnicode)) + ',';
    line += std::to_string(blocks) + ',' + std::to_string(blocks * _blockSize) + ',';
    line += std::to_string(file.extents.size()) + ',';
    line += file.isFragmented ? "yes," : "no,";
    for (const int64_t date : {file.created, file.changed, file.read}) {
        line += readableDate(date) + ',';
    }
    line += fieldOf(readableCode(file.type)) + ',' + fieldOf(readableCode(file.creator)) + "\r\n";
    _write(line);
}

void ControlFilesCSV::_write(std::string_view text)
{
    _output.write(text.data(), static_cast<std::streamsize>(text.size()));
}
