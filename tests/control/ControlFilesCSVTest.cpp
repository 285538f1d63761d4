#include "ControlFilesCSV.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "ControlFileText.h"
#include "control/SampleFigures.h"

namespace {

constexpr const char* kHeader =
    "id,folder_id,path,blocks,bytes,extents,fragmented,created,changed,read,type,creator\r\n";

/** What is written for @p file alone, without the header. */
std::string lineOf(const ControlFile& file)
{
    std::ostringstream output;
    ControlFilesCSV files(output, 4096);
    const size_t header = output.str().size();
    files.addFile(file);
    return output.str().substr(header);
}

/** The field of the path in the line of a file with @p path. */
std::string pathField(const std::string& path)
{
    const std::string line = lineOf(sampleFile(20, path, {{5, 1}}));
    const std::string before = "20,2,";
    const size_t end = line.find(",1,4096,1,no,");
    return line.starts_with(before) ? line.substr(before.size(), end - before.size()) : line;
}

TEST(ControlFilesCSV, EveryFileIsALineBelowTheHeader)
{
    std::ostringstream output;

    ControlFilesCSV files(output, 4096);
    EXPECT_EQ(output.str(), kHeader);
    files.addFile(sampleFile(20, "/a", {{5, 1}, {9, 2}, {20, 3}}));
    files.addFile(sampleFile(21, "/b", {}));

    EXPECT_EQ(output.str(), std::string(kHeader) +
                                "20,2,/a,6,24576,3,yes,2017-07-14T02:40:20Z,2020-09-13T12:26:40Z,"
                                "2023-11-14T22:13:20Z,TEXT,ttxt\r\n"
                                "21,2,/b,0,0,0,no,2017-07-14T02:40:21Z,2020-09-13T12:26:40Z,"
                                "2023-11-14T22:13:20Z,TEXT,ttxt\r\n");
}

TEST(ControlFilesCSV, FieldsThatWouldPartTheRecordAreQuoted)
{
    EXPECT_EQ(pathField("/plain name;x"), "/plain name;x");
    EXPECT_EQ(pathField("/a,b"), "\"/a,b\"");
    EXPECT_EQ(pathField("/say \"hi\""), "\"/say \"\"hi\"\"\"");
    EXPECT_EQ(pathField("/a\r\nb"), "/a\\x0D\\x0Ab");
    EXPECT_EQ(pathField("/a\x1B[0m\\"), "/a\\x1B[0m\\\\");
    EXPECT_EQ(pathField("/Größe"), "/Größe");
}

TEST(ControlFilesCSV, NoFieldIsAFormula)
{
    for (const char first : {'=', '+', '-', '@', '\''}) {
        EXPECT_EQ(pathField(first + std::string("cmd")), std::string("'") + first + "cmd");
    }
    EXPECT_EQ(pathField("=A1,B1"), "\"'=A1,B1\"");
    EXPECT_EQ(pathField("\t=1"), "\\x09=1");

    ControlFile file = sampleFile(20, "/a", {{5, 1}});
    file.type = 0x3D41312B;     // =A1+
    file.creator = 0x2C222C22;  // ,",",
    EXPECT_TRUE(lineOf(file).ends_with(",'=A1+,\",\"\",\"\"\"\r\n")) << lineOf(file);
}

TEST(ControlFilesCSV, AStreamThatTakesNothingSaysSo)
{
    std::ostringstream output;
    output.setstate(std::ios::badbit);

    ControlFilesCSV files(output, 4096);
    files.addFile(sampleFile(20, "/a", {{5, 1}}));

    EXPECT_FALSE(output.good());
    EXPECT_EQ(output.str(), "");
}

TEST(ControlFileText, DatesAreInUniversalTimeAndEmptyBeyondFourDigitsOfAYear)
{
    EXPECT_EQ(readableDate(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(readableDate(-2082844800), "1904-01-01T00:00:00Z");
    EXPECT_EQ(readableDate(253402300799), "9999-12-31T23:59:59Z");
    EXPECT_EQ(readableDate(253402300800), "");
    EXPECT_EQ(readableDate(-62135596800), "0001-01-01T00:00:00Z");
    EXPECT_EQ(readableDate(-62135596801), "");
    EXPECT_EQ(readableDate(INT64_MIN), "");
    EXPECT_EQ(readableDate(INT64_MAX), "");
}

TEST(ControlFileText, CodesAreCharactersOnlyWhenAllFourCanBeSeen)
{
    EXPECT_EQ(readableCode(0x54455854), "TEXT");
    EXPECT_EQ(readableCode(0), "");
    EXPECT_EQ(readableCode(0x1A), "0x0000001A");
    EXPECT_EQ(readableCode(0x5445587F), "0x5445587F");
    EXPECT_EQ(readableCode(0x20202020), "    ");
}

}  // namespace
