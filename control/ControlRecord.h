#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ControlFigures.h"

/** One record of the line protocol. */
struct ControlRecord {
    enum class Kind {
        kUnknown,  // none of the others; a record of vzdefrag that this program does not know
        kReady,
        kError,  // text: the message
        kStart,
        kProgress,       // percent
        kMove,           // percent, source, destination, count and blocks in use in numbers
        kFile,           // file
        kFragmentation,  // blocks in pieces, blocks considered and percent in numbers
        kBitmapLength,   // bytes in numbers[0]
        kBitmapData,     // text: hexadecimal digits
        kFirstUnused,    // block in numbers[0]
        kLastUsed,       // block in numbers[0]
        kDone,
    };

    Kind kind = Kind::kUnknown;
    std::string task;  // "SCAN", ...; empty for READY and an error of no command
    std::string text;
    int percent = 0;
    std::array<uint64_t, 4> numbers = {};
    ControlFile file;
};

/** Makes records of the lines of vzdefrag.
 *
 *  A name may hold line breaks, so a record that ends in free text is complete only when the line
 *  after it is known to begin another.
 */
class ControlRecordReader {
public:
    /** Takes the next @p line, without its newline. Gives the record that is complete by it.
     *
     *  The object is overwritten by the next call.
     */
    [[nodiscard]] const ControlRecord* addLine(std::string_view line);
    /** The record that @p addLine kept back besides the one it gave, or at the end of all lines. */
    [[nodiscard]] const ControlRecord* takeRest();
    /** Whether takeRest() can give a record now, with no further line. */
    [[nodiscard]] bool hasWholeRest() const { return _restIsWhole; }

private:
    [[nodiscard]] const ControlRecord* _parse(std::string_view line);

    std::string _rest;  // a line that more may belong to, or one that waits for its turn
    bool _hasRest = false;
    bool _restIsWhole = false;
    ControlRecord _record;
};

/** The text that the protocol's escapes in @p field stand for. */
[[nodiscard]] std::string unescapedField(std::string_view field);
