#pragma once

#include <ostream>
#include <string_view>

#include "ControlFileSink.h"

/** Writes files as comma-separated values (RFC 4180), a line for each as it comes.
 *
 *  The first line names the columns. Paths are escaped as escapedForTerminal() does, so that a
 *  record is always one line and safe to look at. A field that a spreadsheet would take for a
 *  formula (one that begins with =, +, -, @) gets an apostrophe in front, and so does one that
 *  begins with an apostrophe: whoever drops an apostrophe at the beginning has the field.
 */
class ControlFilesCSV : public ControlFileSink {
public:
    /** Writes to @p output, which tells whether it failed; blocks have @p blockSize bytes. */
    ControlFilesCSV(std::ostream& output, uint32_t blockSize);

    void addFile(const ControlFile& file) override;

private:
    void _write(std::string_view text);

    std::ostream& _output;
    uint32_t _blockSize;
};
