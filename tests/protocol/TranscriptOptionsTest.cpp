#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/Conversation.h"
#include "protocol/VolumeImage.h"
#include "support/HFSPlusVolumeBuilder.h"

namespace {

/** A line whose options are wrong, and what it is answered with besides start and done. */
struct WrongLine {
    std::string name;
    std::string words;
    std::string error;
};

std::ostream& operator<<(std::ostream& stream, const WrongLine& wrong)
{
    return stream << wrong.name << " " << wrong.words;
}

/** Expects that each line is answered with its error alone and changes nothing. */
void expectErrors(const std::vector<WrongLine>& lines)
{
    const VolumeImage image;
    const std::string before = image.bytes();
    {
        Conversation tool(image.path());
        for (const WrongLine& line : lines) {
            EXPECT_EQ(tool.answerTo(line.name + " " + line.words),
                      framedLines(line.name, {"ERROR," + line.error}))
                << line;
        }
        tool.process().closeInput();
        EXPECT_EQ(tool.process().wait(), 0);
    }
    EXPECT_EQ(image.bytes(), before);
}

TEST(TranscriptOptions, FragInfoTakesNone)
{
    expectErrors({{"FRAGINFO", "-f", "Unknown option: -f"},
                  {"FRAGINFO", "one two", "Unknown option: one"},
                  {"FRAGINFO", "a,b\\c", "Unknown option: a\\,b\\\\c"}});
}

TEST(TranscriptOptions, ErrorsOfBitmap)
{
    expectErrors({{"BITMAP", "", "Scale argument is required."},
                  {"BITMAP", "-m", "Scale argument is required."},
                  {"BITMAP", "0", "0 is not a positive integer."},
                  {"BITMAP", "-8", "-8 is not a positive integer."},
                  {"BITMAP", "many", "many is not a positive integer."},
                  {"BITMAP", "-M 8", "-M is not a positive integer."},
                  {"BITMAP", "8 9", "Unknown option: 9"},
                  {"BITMAP", "8 -m x", "Unknown option: x"}});
}

TEST(TranscriptOptions, ErrorsOfMap)
{
    expectErrors({{"MAP", "", "No options specified."},
                  {"MAP", "-i", "Option -i requires an argument."},
                  {"MAP", "--cnid", "Option --cnid requires an argument."},
                  {"MAP", "-p", "Option -p requires an argument."},
                  {"MAP", "--path", "Option --path requires an argument."},
                  {"MAP", "-i 0", "0 is not a valid CNID."},
                  {"MAP", "-i 4294967296", "4294967296 is not a valid CNID."},
                  {"MAP", "-i -p", "-p is not a valid CNID."},
                  {"MAP", "--cnid x,y", "x\\,y is not a valid CNID."},
                  {"MAP", "-i 4294967295", "Lookup failed for CNID 4294967295."},
                  {"MAP", "-p /nothing", "Lookup failed for path /nothing."},
                  {"MAP", "-p /", "Lookup failed for path /."},
                  {"MAP", "-P", "Unknown option: -P"},
                  {"MAP", "20", "Unknown option: 20"}});
}

TEST(TranscriptOptions, AnErrorOfMapLeavesTheMappingsBeforeItAndAnUnknownWordThoseAfterIt)
{
    const VolumeImage image;
    Conversation tool(image.path());

    EXPECT_EQ(tool.answerTo("MAP -i 2 -i x -i 2"),
              framedLines("MAP", {"DIR,1,2,", "ERROR,x is not a valid CNID."}));
    EXPECT_EQ(tool.answerTo("MAP -i 2 -p"),
              framedLines("MAP", {"DIR,1,2,", "ERROR,Option -p requires an argument."}));
    EXPECT_EQ(tool.answerTo("MAP x -i 2"),
              framedLines("MAP", {"DIR,1,2,", "ERROR,Unknown option: x"}));
}

TEST(TranscriptOptions, AnUnknownOptionOfScanIsReportedBehindTheWholeScan)
{
    const VolumeImage image;
    Conversation tool(image.path());
    const std::string scan = tool.answerTo("SCAN");
    ASSERT_TRUE(scan.starts_with("SCAN,START\nSCAN,FILE,2,20,movie,")) << scan;

    for (const std::string word : {"-F", "--FULL-PATHS", "-frag-only", "x\\,"}) {
        std::string expected = scan;
        expected.insert(expected.find("SCAN,DONE"),
                        "SCAN,ERROR,Unknown option: " +
                            (word == "x\\," ? std::string("x\\\\\\,") : word) + "\n");
        EXPECT_EQ(tool.answerTo("SCAN " + word), expected);
    }
}

TEST(TranscriptOptions, ErrorsOfDefrag)
{
    expectErrors({{"DEFRAG", "-x", "Unknown option: -x"},
                  {"DEFRAG", "-Q", "Unknown option: -Q"},
                  {"DEFRAG", "-q --fast", "Unknown option: --fast"},
                  {"DEFRAG", "-p", "Option -p requires an argument."},
                  {"DEFRAG", "-q --profile", "Option --profile requires an argument."},
                  {"DEFRAG", "-p boat", "Unknown profile: boat"},
                  {"DEFRAG", "--profile boot,Boot", "Unknown profile: Boot"},
                  {"DEFRAG", "--profile app,", "Unknown profile: "},
                  {"DEFRAG", "-p ,", "Unknown profile: "},
                  {"DEFRAG", "-p -q", "Unknown profile: -q"}});
}

TEST(TranscriptOptions, CompactTakesNoProfile)
{
    expectErrors({{"COMPACT", "-x", "Unknown option: -x"},
                  {"COMPACT", "-q --fast", "Unknown option: --fast"},
                  {"COMPACT", "-p boot", "Unknown option: -p"},
                  {"COMPACT", "--profile app", "Unknown option: --profile"},
                  {"COMPACT", "-p", "Unknown option: -p"}});
}

}  // namespace
