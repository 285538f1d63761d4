#include "protocol/DefragSession.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <fstream>

namespace {

constexpr int kSmallPipe = 4096;  // bytes
// Seconds that no run takes: a progress line that waits for the output would keep the program's
// first thread from hearing anything.
constexpr const char* kNoProgress = "100000";
constexpr std::string_view kMovers[] = {"DEFRAG", "COMPACT"};

/** The numbers between the commas of @p text. */
std::vector<uint64_t> numbersIn(std::string_view text)
{
    std::vector<uint64_t> numbers;
    const char* position = text.data();
    const char* const end = text.data() + text.size();
    while (position < end) {
        uint64_t number = 0;
        const auto result = std::from_chars(position, end, number);
        if (result.ec != std::errc()) {
            break;
        }
        numbers.push_back(number);
        position = result.ptr + 1;
    }
    return numbers;
}

/** Whether @p line is one of a moving task's, of the kind @p word. */
bool isOfMover(std::string_view line, const std::string& word)
{
    return std::ranges::any_of(kMovers, [&](std::string_view name) {
        return line.starts_with(std::string(name) + "," + word);
    });
}

std::optional<PrintedMove> moveIn(std::string_view line)
{
    constexpr std::string_view kWord = "PROGRESS,";
    if (!isOfMover(line, std::string(kWord))) {
        return std::nullopt;
    }
    const std::vector<uint64_t> numbers = numbersIn(line.substr(line.find(kWord) + kWord.size()));
    // A quiet run's progress has one number only.
    if (numbers.size() != 5) {
        return std::nullopt;
    }
    return PrintedMove{static_cast<int>(numbers[0]), static_cast<uint32_t>(numbers[1]),
                       static_cast<uint32_t>(numbers[2]), static_cast<uint32_t>(numbers[3])};
}

}  // namespace

std::vector<std::string> DefragTranscript::errors() const
{
    std::vector<std::string> found;
    for (const std::string& line : lines) {
        if (line.starts_with("ERROR,") || isOfMover(line, "ERROR,")) {
            found.push_back(line);
        }
    }
    return found;
}

std::vector<PrintedMove> DefragTranscript::moves() const
{
    std::vector<PrintedMove> found;
    for (const std::string& line : lines) {
        if (const auto move = moveIn(line)) {
            found.push_back(*move);
        }
    }
    return found;
}

size_t DefragTranscript::count(std::string_view line) const
{
    return static_cast<size_t>(std::ranges::count(lines, line));
}

DefragSession::DefragSession(const std::string& path,
                             const std::map<std::string, std::string>& environment)
    : _process({.program = VZDEFRAG_PROGRAM,
                .arguments = {"--interval", kNoProgress, path},
                .environment = environment,
                .outputPipeSize = kSmallPipe})
{
    EXPECT_EQ(_process.readLine(), "READY");
}

void DefragSession::readToDone(DefragTranscript& transcript, size_t count)
{
    while (count > 0) {
        const auto line = _process.readLine();
        if (!line) {
            return;
        }
        transcript.lines.push_back(*line);
        count -= isOfMover(*line, "DONE") ? 1 : 0;
    }
}

bool DefragSession::readToFirstMove(DefragTranscript& transcript)
{
    while (const auto line = _process.readLine()) {
        transcript.lines.push_back(*line);
        if (moveIn(*line)) {
            return true;
        }
    }
    return false;
}

void DefragSession::readToEnd(DefragTranscript& transcript)
{
    while (const auto line = _process.readLine()) {
        transcript.lines.push_back(*line);
    }
}

uint64_t DefragSession::peakMemory()
{
    // Of the program alone: what the system keeps for its parent begins with the test's own size.
    return _numberInProc("status", "VmHWM:") * 1024;
}

uint64_t DefragSession::bytesWritten()
{
    return _numberInProc("io", "wchar:");
}

uint64_t DefragSession::bytesRead()
{
    return _numberInProc("io", "rchar:");
}

uint64_t DefragSession::_numberInProc(const std::string& file, std::string_view word)
{
    std::ifstream stream("/proc/" + std::to_string(_process.processID()) + "/" + file);
    std::string name;
    while (stream >> name) {
        uint64_t number = 0;
        if (name == word && stream >> number) {
            return number;
        }
    }
    ADD_FAILURE() << "the system does not tell " << word;
    return 0;
}

DefragTranscript defragImage(const std::string& path, std::string_view command)
{
    DefragTranscript transcript;
    DefragSession session(path);
    session.command(command);
    session.readToDone(transcript);
    transcript.peakMemory = session.peakMemory();
    session.command("QUIT");
    session.readToEnd(transcript);

    EXPECT_EQ(session.process().wait(), 0);
    EXPECT_FALSE(transcript.lines.empty());
    if (!transcript.lines.empty()) {
        const std::string name(command.substr(0, command.find(' ')));
        EXPECT_EQ(transcript.lines.front(), name + ",START");
        EXPECT_EQ(transcript.lines.back(), name + ",DONE");
    }
    return transcript;
}

void addInterleavedFiles(HFSPlusVolumeBuilder& builder, const InterleavedFiles& shape,
                         uint32_t blockSize)
{
    const uint64_t fileSize = uint64_t{shape.pieces} * shape.pieceBlocks * blockSize;
    for (uint32_t file = 0; file < shape.files; ++file) {
        HFSPlusBuilderExtents extents;
        for (uint32_t piece = 0; piece < shape.pieces; ++piece) {
            const uint32_t place = piece * shape.files + file;
            extents.push_back({shape.firstBlock + place * shape.pieceBlocks, shape.pieceBlocks});
        }
        builder.file("/file" + std::to_string(file), shape.firstCNID + file)
            .data(extents)
            .dataSize(fileSize - shape.slackBytes);
    }
}
