#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/ToolProcess.h"
#include "support/HFSPlusVolumeBuilder.h"

/** One move as a verbose run prints it. */
struct PrintedMove {
    int percent = 0;
    uint32_t source = 0;
    uint32_t destination = 0;
    uint32_t count = 0;
};

/** What the program printed. */
struct DefragTranscript {
    std::vector<std::string> lines;
    uint64_t peakMemory = 0;  // bytes, where it was measured

    /** Error lines of the program or of a task. */
    [[nodiscard]] std::vector<std::string> errors() const;
    [[nodiscard]] std::vector<PrintedMove> moves() const;
    /** How many lines read so. */
    [[nodiscard]] size_t count(std::string_view line) const;
};

/** The program on an image, ready for commands.
 *
 *  Its output goes through a pipe so small that a run with more to tell than a page stands still
 *  until somebody reads: whoever has read a first move is in the middle of the run.
 */
class DefragSession {
public:
    explicit DefragSession(const std::string& path,
                           const std::map<std::string, std::string>& environment = {});

    [[nodiscard]] ToolProcess& process() { return _process; }

    void command(std::string_view line) { _process.write(std::string(line) + "\n"); }
    /** Reads until @p count tasks are done, or to the end of output. */
    void readToDone(DefragTranscript& transcript, size_t count = 1);
    /** Reads up to and including the first move; false when the output ends before. */
    [[nodiscard]] bool readToFirstMove(DefragTranscript& transcript);
    void readToEnd(DefragTranscript& transcript);

    /** The most memory that the program had so far, in bytes. */
    [[nodiscard]] uint64_t peakMemory();
    /** How many bytes the program has written so far, to wherever. */
    [[nodiscard]] uint64_t bytesWritten();
    /** How many bytes the program has read so far. */
    [[nodiscard]] uint64_t bytesRead();

private:
    [[nodiscard]] uint64_t _numberInProc(const std::string& file, std::string_view word);

    ToolProcess _process;
};

/** Runs @p command on the image at @p path from "READY" to "QUIT". */
[[nodiscard]] DefragTranscript defragImage(const std::string& path,
                                           std::string_view command = "DEFRAG");

/** Files dealt out like cards: one piece of each, then the second of each. */
struct InterleavedFiles {
    uint32_t firstCNID = 100;
    uint32_t firstBlock = 0;
    uint32_t files = 0;
    uint32_t pieces = 0;       // of each file
    uint32_t pieceBlocks = 0;  // allocation blocks
    uint32_t slackBytes = 0;   // that the last block of each file does not use
};

/** Adds the files to @p builder, each with blocks of @p blockSize bytes. */
void addInterleavedFiles(HFSPlusVolumeBuilder& builder, const InterleavedFiles& shape,
                         uint32_t blockSize);
