#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ControlCommandLine.h"
#include "control/ControlCommand.h"
#include "control/FakeTool.h"
#include "protocol/VolumeImage.h"

namespace {

/** A tool that writes down how it was started, and runs to its end at once. */
class ControlOptionsTest : public testing::Test {
protected:
    ControlOptionsTest()
        : _tool({.opening = "echo \"words $*\" >> \"$journal\"; "
                            "echo \"rollback=$VZDefragRollbackFile\" >> \"$journal\"; echo READY"}),
          _file(uniqueTemporaryPath("written"))
    {
        _control.setTool(_tool.path());
    }
    ~ControlOptionsTest() override { std::filesystem::remove(_file); }

    /** What the program prints when it is asked for @p command and ends well. */
    std::string outputOf(const std::string& command, std::vector<std::string> options = {})
    {
        options.insert(options.begin(), {command, _tool.image()});
        const ControlResult result = _control.run(options);
        EXPECT_EQ(result.status, 0) << result.messages;
        return result.output;
    }
    [[nodiscard]] std::string written() const
    {
        std::ostringstream text;
        text << std::ifstream(_file).rdbuf();
        return text.str();
    }

    FakeTool _tool;
    ControlCommand _control;
    std::string _file;
};

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST_F(ControlOptionsTest, TopAndSortChooseTheFilesThatAreListed)
{
    const std::string all = outputOf("info");
    EXPECT_LT(all.find("/b"), all.find("/a")) << all;
    const std::string byName = outputOf("info", {"--sort", "name"});
    EXPECT_LT(byName.find("/a"), byName.find("/b")) << byName;
    const std::string one = outputOf("info", {"--top", "1"});
    EXPECT_NE(one.find("/b"), std::string::npos);
    EXPECT_EQ(one.find("/a"), std::string::npos) << one;
}

TEST_F(ControlOptionsTest, CSVHasALineForEachFile)
{
    const std::vector<std::string> lines = linesOf(outputOf("info", {"--csv"}));

    ASSERT_EQ(lines.size(), 3U);
    EXPECT_TRUE(lines[1].starts_with("16,2,/a,16,65536,1,")) << lines[1];
    EXPECT_TRUE(lines[2].starts_with("17,2,/b,16,65536,2,")) << lines[2];
}

TEST_F(ControlOptionsTest, MapsHaveTheSizeCharactersAndColoursThatAreAskedFor)
{
    const std::vector<std::string> lines =
        linesOf(outputOf("map", {"--width", "32", "--height", "6", "--ascii", "--color", "never"}));
    ASSERT_GT(lines.size(), 6U);
    for (size_t row = 0; row < 6; row++) {
        EXPECT_EQ(lines[row].size(), 32U) << lines[row];
    }

    const std::string plain = outputOf("map", {"--ascii"});
    EXPECT_TRUE(std::ranges::all_of(plain, [](char character) { return character > 0; }));
    EXPECT_EQ(plain.find('\033'), std::string::npos);
    EXPECT_NE(outputOf("map", {"--color", "always"}).find("\033["), std::string::npos);
    const std::string unicode = outputOf("map");
    EXPECT_TRUE(std::ranges::any_of(unicode, [](char character) { return character < 0; }));
}

TEST_F(ControlOptionsTest, PicturesAndReportsAreWrittenWhereTheyAreToBe)
{
    EXPECT_EQ(outputOf("map", {"--svg", _file}), "");
    EXPECT_NE(written().find("<svg"), std::string::npos);
    std::filesystem::remove(_file);

    EXPECT_EQ(outputOf("report", {"--output", _file}), "");
    EXPECT_NE(written().find("<!DOCTYPE html>"), std::string::npos);
    EXPECT_EQ(written().find("Before"), std::string::npos);
    std::filesystem::remove(_file);

    std::ignore = outputOf("defrag", {"--force", "--report", _file});
    EXPECT_NE(written().find("Before"), std::string::npos);
}

TEST_F(ControlOptionsTest, ReportsCompareWithABaseline)
{
    const std::string saved = uniqueTemporaryPath("saved.json");
    std::ofstream(saved) << outputOf("info", {"--json"});

    EXPECT_EQ(outputOf("report", {"-o", _file, "--baseline", saved}), "");
    EXPECT_NE(written().find("Before"), std::string::npos);

    std::ofstream(saved) << "{}";
    const ControlResult broken =
        _control.run({"report", _tool.image(), "-o", _file, "--baseline", saved});
    EXPECT_EQ(broken.status, 2);
    std::filesystem::remove(saved);
}

TEST_F(ControlOptionsTest, LowPriorityIsHandedOn)
{
    std::ignore = outputOf("compact", {"--force"});
    EXPECT_EQ(_tool.journal().find("--lowpri"), std::string::npos);
    std::ignore = outputOf("compact", {"--force", "--lowpri"});
    EXPECT_NE(_tool.journal().find("words --lowpri " + _tool.image()), std::string::npos);
}

TEST_F(ControlOptionsTest, RollbackFilesAreKeptUnlessToldOtherwise)
{
    std::ignore = outputOf("info");
    EXPECT_NE(_tool.journal().find("rollback=\n"), std::string::npos) << _tool.journal();

    std::ignore = outputOf("defrag", {"--force"});
    EXPECT_NE(_tool.journal().find("rollback=" + _control.stateFolder() + "/"), std::string::npos);

    std::ignore = outputOf("defrag", {"--force", "--rollback", _file});
    EXPECT_NE(_tool.journal().find("rollback=" + _file + "\n"), std::string::npos);

    const size_t before = _tool.journal().size();
    std::ignore = outputOf("defrag", {"--force", "--no-rollback"});
    EXPECT_NE(_tool.journal().find("rollback=\n", before), std::string::npos);
}

TEST_F(ControlOptionsTest, VersionAndHelpArePrintedAsData)
{
    EXPECT_TRUE(_control.run({"--version"}).output.starts_with("vzdefragctl "));
    for (const char* const command : {"info", "map", "defrag", "compact", "report", "recover"}) {
        const ControlResult help = _control.run({command, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_NE(help.output.find("IMAGE"), std::string::npos) << command;
        EXPECT_EQ(help.messages, "");
    }
}

TEST(ControlDurations, AreReadInEveryForm)
{
    EXPECT_EQ(secondsIn("90"), 90);
    EXPECT_EQ(secondsIn("90s"), 90);
    EXPECT_EQ(secondsIn("5m"), 300);
    EXPECT_EQ(secondsIn("2h"), 7200);
    EXPECT_EQ(secondsIn("1h30m"), 5400);
    EXPECT_EQ(secondsIn("1h1m1s"), 3661);
    EXPECT_EQ(secondsIn("0.5s"), 0.5);
    for (const char* const text : {"", "0", "-1", "s", "5x", "5 m", "m5", "30m1h", "1h1h", "nan",
                                   "inf", "1e9", "99999999999", "1s5"}) {
        EXPECT_FALSE(secondsIn(text).has_value()) << text;
    }
}

}  // namespace
