#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "protocol/Conversation.h"
#include "protocol/DefragSession.h"
#include "protocol/VolumeImage.h"
#include "support/HFSPlusVolumeBuilder.h"

namespace {

using Lines = std::vector<std::string>;

// All dates that the builder writes, and no type and no creator.
const std::string kDates = ",1517155200,1517155200,1517155200";
const std::string kPlain = kDates + ",00000000,00000000";

/** Three files in three folders: one whole, one torn, one empty. Blocks 0 to 21 are the system's.
 */
HFSPlusVolumeBuilder smallVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(1000);
    builder.allocationExtents({{1, 1}}).extentsFileExtents({{2, 4}}).catalogExtents({{6, 16}});
    builder.folder("/folder", 30).folder("/folder/inner", 31);
    builder.file("/movie", 20).data({{100, 30}});
    builder.file("/folder/torn", 32).data({{200, 3}, {300, 4}}).resource({{400, 2}});
    builder.type(0x54455854, 0x74747874);
    builder.file("/folder/inner/empty", 33);
    return builder;
}

const std::string kMovie = "FILE,2,20,movie" + kPlain + ",100,30";
const std::string kTorn = "FILE,30,32,torn" + kDates + ",54455854,74747874,200,3,300,4,400,2";
const std::string kEmpty = "FILE,31,33,empty" + kPlain;
const std::string kScan = framedLines("SCAN", {kMovie, kTorn, kEmpty});
const std::string kFragInfo = framedLines("FRAGINFO", {"7,39,17"});

/** A file of six blocks in two pieces, far behind the free blocks from 25 on; 32 blocks in use. */
HFSPlusVolumeBuilder roomyVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(100000);
    builder.allocationExtents({{1, 4}}).extentsFileExtents({{5, 4}}).catalogExtents({{9, 16}});
    builder.file("/torn", 20).data({{50000, 3}, {60000, 3}});
    return builder;
}

/** The tool on the small volume. */
class Transcript : public testing::Test {
protected:
    HFSPlusVolumeBuilder builder = smallVolume();
    VolumeImage image{builder};
};

/** What the tool prints with its standard input from a file with this content. */
std::string outputForInputFile(const VolumeImage& image, const std::string& content)
{
    const std::string path = uniqueTemporaryPath("commands.txt");
    std::ofstream(path, std::ios::binary) << content;
    ToolProcess process(
        {.program = VZDEFRAG_PROGRAM, .arguments = {image.path()}, .inputPath = path});
    std::string output = process.readToEnd();
    EXPECT_EQ(process.wait(), 0);
    std::filesystem::remove(path);
    return output;
}

/** Replaces every occurrence of @p bytes in the file by as many others. */
void replaceInFile(const std::string& path, const std::string& bytes, const std::string& others)
{
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(file)), {});
    size_t count = 0;
    for (size_t index = content.find(bytes); index != std::string::npos;
         index = content.find(bytes, index + 1)) {
        file.seekp(static_cast<std::streamoff>(index));
        file.write(others.data(), static_cast<std::streamsize>(others.size()));
        ++count;
    }
    EXPECT_GT(count, 0U);
}

TEST_F(Transcript, ScanListsEveryFileByNameOrByPath)
{
    Conversation tool(image.path());
    const std::string paths = framedLines(
        "SCAN", {"FILE,2,20,/movie" + kPlain + ",100,30",
                 "FILE,30,32,/folder/torn" + kDates + ",54455854,74747874,200,3,300,4,400,2",
                 "FILE,31,33,/folder/inner/empty" + kPlain});

    EXPECT_EQ(tool.answerTo("SCAN"), kScan);
    EXPECT_EQ(tool.answerTo("SCAN -f"), paths);
    EXPECT_EQ(tool.answerTo("scan\t --full-paths "), paths);
}

TEST_F(Transcript, ScanOfFragmentedFilesOnlyListsTheTornOne)
{
    Conversation tool(image.path());

    EXPECT_EQ(tool.answerTo("SCAN --frag-only"), framedLines("SCAN", {kTorn}));
    EXPECT_EQ(tool.answerTo("SCAN --frag-only --full-paths"),
              framedLines("SCAN", {"FILE,30,32,/folder/torn" + kDates +
                                   ",54455854,74747874,200,3,300,4,400,2"}));
}

TEST_F(Transcript, FragInfoCountsTheBlocksOfTornForks)
{
    Conversation tool(image.path());

    EXPECT_EQ(tool.answerTo("FRAGINFO"), kFragInfo);
}

TEST_F(Transcript, MapPrintsFoldersAndFilesInTheOrderOfItsOptions)
{
    Conversation tool(image.path());

    EXPECT_EQ(tool.answerTo("MAP -i 2"), framedLines("MAP", {"DIR,1,2,"}));
    EXPECT_EQ(tool.answerTo("MAP --path /folder/torn -i 31 --cnid 33 -p /folder"),
              framedLines("MAP", {"FILE,30,32,/folder/torn" + kDates +
                                      ",54455854,74747874,200,3,300,4,400,2",
                                  "DIR,30,31,/folder/inner",
                                  "FILE,31,33,/folder/inner/empty" + kPlain, "DIR,2,30,/folder"}));
}

TEST_F(Transcript, BitmapDrawsTheVolume)
{
    // Eight blocks a bit: 0 to 23 are in use but for two, 96 to 127 but for four, 296 to 303 by
    // half; the rest is free by more than half.
    const std::string picture =
        framedLines("BITMAP", {"LENGTH,16", "DATA,E00F000004" + std::string(22, '0'),
                               "FIRSTUNUSEDBLOCK,22", "LASTUSEDBLOCK,401"});
    Conversation tool(image.path());

    EXPECT_EQ(tool.answerTo("BITMAP 8"), picture);
    EXPECT_EQ(tool.answerTo("BITMAP -m 8"), picture);
    EXPECT_EQ(tool.answerTo("BITMAP 8 -m"), picture);
    EXPECT_EQ(
        tool.answerTo("BITMAP 1000"),
        framedLines("BITMAP", {"LENGTH,1", "DATA,00", "FIRSTUNUSEDBLOCK,22", "LASTUSEDBLOCK,401"}));
}

TEST(DefragTranscripts, DefragPrintsEveryMoveAndASecondRunNone)
{
    HFSPlusVolumeBuilder builder = roomyVolume();
    const VolumeImage image(builder);
    Conversation tool(image.path());

    EXPECT_EQ(tool.answerTo("DEFRAG"),
              framedLines("DEFRAG", {"PROGRESS,50,50000,25,3,32", "PROGRESS,100,60000,28,3,32"}));
    EXPECT_EQ(tool.answerTo("SCAN"), framedLines("SCAN", {"FILE,2,20,torn" + kPlain + ",25,6"}));
    EXPECT_EQ(tool.answerTo("DEFRAG"), framedLines("DEFRAG", {}));
}

TEST(DefragTranscripts, CompactPrintsEveryMoveAndASecondRunNone)
{
    HFSPlusVolumeBuilder builder = roomyVolume();
    const VolumeImage image(builder);
    Conversation tool(image.path());

    EXPECT_EQ(tool.answerTo("COMPACT"),
              framedLines("COMPACT", {"PROGRESS,50,50000,25,3,32", "PROGRESS,100,60000,28,3,32"}));
    EXPECT_EQ(tool.answerTo("SCAN"), framedLines("SCAN", {"FILE,2,20,torn" + kPlain + ",25,6"}));
    EXPECT_EQ(tool.answerTo("COMPACT"), framedLines("COMPACT", {}));
}

TEST(DefragTranscripts, AQuietRunPrintsNoMoves)
{
    for (const std::string line :
         {"DEFRAG -q", "DEFRAG --quiet", "COMPACT -q", "COMPACT --quiet"}) {
        HFSPlusVolumeBuilder builder = roomyVolume();
        const VolumeImage image(builder);
        Conversation tool(image.path());

        EXPECT_EQ(tool.answerTo(line), framedLines(line.substr(0, line.find(' ')), {}));
        EXPECT_EQ(tool.answerTo("SCAN"),
                  framedLines("SCAN", {"FILE,2,20,torn" + kPlain + ",25,6"}));
    }
}

TEST_F(Transcript, TwoCommandsInOneWriteAreAnsweredOneAfterTheOther)
{
    EXPECT_EQ(transcriptOf(image.path(), "SCAN\nFRAGINFO\n"), "READY\n" + kScan + kFragInfo);
}

TEST_F(Transcript, CommandsInAnyCaseAreAnsweredUnderTheirOwnName)
{
    Conversation tool(image.path());

    for (const char* const line : {"scan", "Scan", "SCAN", "sCaN"}) {
        EXPECT_EQ(tool.answerTo(line), kScan);
    }
}

TEST_F(Transcript, ACommandLineOf10000BytesIsOneCommand)
{
    std::string line = "MAP";
    std::string lines;
    while (line.size() < 10000) {
        line += " -i 31";
        lines += "MAP,DIR,30,31,/folder/inner\n";
    }
    Conversation tool(image.path());

    EXPECT_EQ(tool.answerTo(line), "MAP,START\n" + lines + "MAP,DONE\n");
    EXPECT_EQ(tool.answerTo("SCAN" + std::string(10000, ' ')), kScan);
    EXPECT_EQ(tool.answerTo(std::string(10000, 'x')),
              "ERROR," + std::string(10000, 'x') + " is not a recognized command.\n");
}

TEST_F(Transcript, ACarriageReturnStaysPartOfTheLastWord)
{
    Conversation tool(image.path());

    EXPECT_EQ(tool.answerTo("FRAGINFO\r"), "ERROR,FRAGINFO\r is not a recognized command.\n");
    EXPECT_EQ(tool.answerTo("FRAGINFO \r"), framedLines("FRAGINFO", {"ERROR,Unknown option: \r"}));
    EXPECT_EQ(tool.answerTo("MAP -p\r"), framedLines("MAP", {"ERROR,Unknown option: -p\r"}));
}

TEST_F(Transcript, ALineThatIsNotUTF8IsNoCommandWhereverItsBadByteStands)
{
    EXPECT_EQ(transcriptOf(image.path(), "SCAN \xFF\n\xC3\x28\nMAP -p /\xED\xA0\x80\nFRAGINFO\n"),
              "READY\n" + kFragInfo);
}

TEST_F(Transcript, AFileOfCommandsIsAnsweredToItsEndAndALastLineWithoutNewlineIsNone)
{
    EXPECT_EQ(outputForInputFile(image, "FRAGINFO\nSCAN\n"), "READY\n" + kFragInfo + kScan);
    EXPECT_EQ(outputForInputFile(image, "FRAGINFO\nSCAN"), "READY\n" + kFragInfo);
}

TEST_F(Transcript, ACommandBeforeQuitIsAnsweredWholeAndThoseAfterItNotAtAll)
{
    EXPECT_EQ(transcriptOf(image.path(), "SCAN\nQUIT\nFRAGINFO\nbogus\n"), "READY\n" + kScan);
}

TEST_F(Transcript, QuitTypedTwiceEndsTheToolOnce)
{
    EXPECT_EQ(transcriptOf(image.path(), "FRAGINFO\nQUIT\nquit\n"), "READY\n" + kFragInfo);
    EXPECT_EQ(transcriptOf(image.path(), "QUIT\nQUIT\n"), "READY\n");
}

TEST_F(Transcript, ReportingCommandsLeaveEveryByteOfTheVolume)
{
    const std::string before = image.bytes();

    EXPECT_NE(transcriptOf(image.path(), "SCAN -f\nFRAGINFO\nMAP -p /movie\nBITMAP 1\n"), "");

    EXPECT_EQ(image.bytes(), before);
}

TEST(NameTranscripts, NamesOfAnyCharactersArePrintedEscapedAndAsUTF8)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(1000);
    const std::string nul("nul\0x", 5);
    builder.file("/a,b\\c", 20).file("/" + nul, 21).file("/\u65e5\u672c \U0001F4BE", 22);
    // Broken up below: a name of unpaired surrogates cannot be written as UTF-8.
    builder.file("/\uFA0Ex\uFA0F", 23);
    builder.folder("/folder,\\", 30);
    const VolumeImage image(builder);
    replaceInFile(image.path(), std::string("\xFA\x0E\0x\xFA\x0F", 6),
                  std::string("\xD8\0\0x\xDC\0", 6));
    const Lines names = {"a\\,b\\\\c", "nul\\xC0\\x80x", "\u65e5\u672c \U0001F4BE",
                         "\uFFFDx\uFFFD"};
    Lines scanned;
    Lines paths;
    for (size_t index = 0; index < names.size(); ++index) {
        const std::string ids = "FILE,2," + std::to_string(20 + index) + ",";
        scanned.push_back(ids + names[index] + kPlain);
        paths.push_back(ids + "/" + names[index] + kPlain);
    }

    Conversation tool(image.path());

    EXPECT_EQ(tool.answerTo("SCAN"), framedLines("SCAN", scanned));
    EXPECT_EQ(tool.answerTo("SCAN -f"), framedLines("SCAN", paths));
    EXPECT_EQ(tool.answerTo("MAP -i 20 -i 21 -i 22 -i 23"), framedLines("MAP", paths));
    EXPECT_EQ(tool.answerTo("MAP -p /a,b\\c"), framedLines("MAP", {paths[0]}));
    EXPECT_EQ(tool.answerTo("MAP -p /folder,\\"), framedLines("MAP", {"DIR,2,30,/folder\\,\\\\"}));
    EXPECT_EQ(tool.answerTo("MAP -p /no,\\"),
              framedLines("MAP", {"ERROR,Lookup failed for path /no\\\\\\,\\\\\\\\."}));
}

TEST(DefragTranscripts, AScanStartedDuringADefragRunsInItsMiddleAndIsWhole)
{
    constexpr uint32_t kFiles = 16;
    constexpr uint32_t kBlocksOfFile = 72 * 32;
    // So many that the list does not fit the pipe, and the run could print in its middle.
    constexpr uint32_t kEmptyFiles = 4000;
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(131072).contents(false);
    addInterleavedFiles(
        builder, {.firstBlock = 2000, .files = kFiles, .pieces = 72, .pieceBlocks = 32}, 4096);
    builder.manyFiles(kEmptyFiles);
    const VolumeImage image(builder);

    DefragTranscript run;
    DefragSession session(image.path());
    session.command("DEFRAG");
    ASSERT_TRUE(session.readToFirstMove(run));
    session.command("SCAN -f");
    session.readToDone(run);
    session.command("QUIT");
    session.readToEnd(run);

    EXPECT_EQ(session.process().wait(), 0);
    const std::regex move(R"(DEFRAG,PROGRESS,\d+,\d+,\d+,\d+,\d+)");
    const std::regex file(R"(SCAN,FILE,2,\d+,/file\d+(?:,\d+){3},0{8},0{8}((?:,\d+,\d+)+))");
    const std::regex emptyFile(R"(SCAN,FILE,\d+,\d+,/many/[^,]+(?:,\d+){3},0{8},0{8})");
    const std::regex frame(R"((DEFRAG|SCAN),(START|DONE)|SCAN,PROGRESS,\d+)");
    std::vector<size_t> places;  // of the files' lines
    for (size_t index = 0; index < run.lines.size(); ++index) {
        const std::string& line = run.lines[index];
        std::smatch match;
        if (std::regex_match(line, emptyFile)) {
            places.push_back(index);
            continue;
        }
        if (!std::regex_match(line, match, file)) {
            EXPECT_TRUE(std::regex_match(line, move) || std::regex_match(line, frame)) << line;
            continue;
        }
        places.push_back(index);
        uint32_t blocks = 0;
        const std::string extents = match[1];
        const std::regex count(R"(,\d+,(\d+))");
        for (auto extent = std::sregex_iterator(extents.begin(), extents.end(), count);
             extent != std::sregex_iterator(); ++extent) {
            blocks += static_cast<uint32_t>(std::stoul((*extent)[1]));
        }
        EXPECT_EQ(blocks, kBlocksOfFile) << line;
    }

    // All files, side by side, behind the first move and before the last.
    ASSERT_EQ(places.size(), kFiles + kEmptyFiles);
    EXPECT_EQ(places.back() - places.front() + 1, places.size());
    const auto isMove = [&](const std::string& line) { return std::regex_match(line, move); };
    const auto first = run.lines.begin() + static_cast<std::ptrdiff_t>(places.front());
    EXPECT_TRUE(std::any_of(run.lines.begin(), first, isMove));
    EXPECT_TRUE(std::any_of(first, run.lines.end(), isMove));
    EXPECT_EQ(run.count("SCAN,START"), 1U);
    EXPECT_EQ(run.count("SCAN,DONE"), 1U);
    EXPECT_LT(std::ranges::find(run.lines, "SCAN,START"), first);
    EXPECT_GT(std::ranges::find(run.lines, "SCAN,DONE"), first);
    EXPECT_EQ(run.lines.back(), "DEFRAG,DONE");
    EXPECT_EQ(run.errors(), Lines());
}

}  // namespace
