#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Platform/TemporaryFolder.h"
#include "protocol/DefragSession.h"
#include "protocol/VolumeJudgement.h"

namespace {

constexpr const char* kVariable = "VZDefragRollbackFile";
constexpr uint32_t kUnmountedMask = uint32_t{1} << 8;  // of a volume header's attributes
constexpr uint32_t kTotalBlocks = 100000;

std::string bytesOf(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream content;
    content << stream.rdbuf();
    return std::move(content).str();
}

/** The pages of the image at @p path that hold anything, by their place. */
std::map<off_t, std::string> pagesOf(const std::string& path)
{
    constexpr size_t kPage = 4096;
    std::map<off_t, std::string> pages;
    const int image = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(image, 0);
    off_t place = ::lseek(image, 0, SEEK_DATA);
    // Ends behind the last data, where there are none to find.
    while (place >= 0) {
        const off_t end = ::lseek(image, place, SEEK_HOLE);
        for (; place < end; place += kPage) {
            std::string page(kPage, '\0');
            EXPECT_GT(::pread(image, page.data(), kPage, place), 0);
            if (page.find_first_not_of('\0') != std::string::npos) {
                pages[place] = std::move(page);
            }
        }
        place = ::lseek(image, end, SEEK_DATA);
    }
    ::close(image);
    return pages;
}

/** A volume whose one copy list has more to tell than the small pipe of a session holds. */
void buildVolume(const std::string& path, uint32_t totalBlocks = kTotalBlocks)
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(4096).totalBlocks(totalBlocks);
    addInterleavedFiles(builder, {.firstBlock = 2000, .files = 16, .pieces = 40, .pieceBlocks = 4},
                        4096);
    EXPECT_TRUE(builder.buildFile(path)) << builder.error();
}

/** A volume, and the path of a rollback file beside it that does not exist yet. */
class RollbackFile : public testing::Test {
protected:
    RollbackFile() { buildVolume(image); }

    [[nodiscard]] std::map<std::string, std::string> environment() const
    {
        return {{kVariable, rollback}};
    }

    [[nodiscard]] ToolProcess::Setup setup(std::vector<std::string> words = {}) const
    {
        words.push_back(image);
        return {.program = VZDEFRAG_PROGRAM, .arguments = words, .environment = environment()};
    }

    /** Kills a run that stands still behind its first complete flush. */
    void killRun() const
    {
        DefragTranscript run;
        DefragSession session(image, environment());
        session.command("DEFRAG");
        ASSERT_TRUE(session.readToFirstMove(run));
        session.process().sendSignal(SIGKILL);
        EXPECT_EQ(session.process().wait(), -SIGKILL);
    }

    /** Whether the volume header on disk says that nobody is changing the volume. */
    [[nodiscard]] bool isMarkedClean() const
    {
        const auto check = readVolumeStateWithoutHashes(image).check;
        return (check.attributes & kUnmountedMask) != 0;
    }

    /** What the program prints when it is to open the volume and end. */
    [[nodiscard]] std::string outputOfOpening() const
    {
        ToolProcess process(setup({"--quit"}));
        std::string output = process.readToEnd();
        EXPECT_EQ(process.wait(), 0);
        return output;
    }

    /** Expects that a DEFRAG's only error is @p error, and that it is the last thing it says. */
    static void expectRunFails(const ToolProcess::Setup& setup, const std::string& error)
    {
        ToolProcess process(setup);
        EXPECT_EQ(process.readLine(), "READY");
        process.write("DEFRAG\n");
        DefragTranscript run;
        while (run.count("DEFRAG,DONE") == 0) {
            const auto line = process.readLine();
            ASSERT_TRUE(line);
            run.lines.push_back(*line);
        }
        EXPECT_EQ(run.errors(), std::vector<std::string>{"DEFRAG,ERROR," + error});
        EXPECT_EQ(run.lines.at(run.lines.size() - 2), "DEFRAG,ERROR," + error);
        process.write("QUIT\n");
        EXPECT_EQ(process.wait(), 0);
    }

    const TemporaryFolder folder;
    const std::string image = folder.file("volume/volume.img", "");
    const std::string rollback = folder.path("rollback");
};

TEST_F(RollbackFile, WithoutTheVariableNothingIsWrittenBesideTheVolume)
{
    EXPECT_EQ(defragImage(image).errors(), std::vector<std::string>());

    EXPECT_FALSE(std::filesystem::exists(rollback));
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path("volume"))) {
        files.push_back(entry.path().filename().string());
    }
    EXPECT_EQ(files, std::vector<std::string>{"volume.img"});
}

TEST_F(RollbackFile, AnEmptyVariableCountsAsNone)
{
    DefragTranscript run;
    DefragSession session(image, {{kVariable, ""}});
    session.command("DEFRAG");
    session.readToDone(run);
    session.command("QUIT");

    EXPECT_EQ(session.process().wait(), 0);
    EXPECT_EQ(run.errors(), std::vector<std::string>());
}

TEST_F(RollbackFile, ARunWithItLeavesTheBytesOfARunWithoutAndAnEmptyPrivateFile)
{
    const std::string other = folder.path("other.img");
    buildVolume(other);
    EXPECT_EQ(defragImage(other).errors(), std::vector<std::string>());

    DefragTranscript run;
    DefragSession session(image, environment());
    session.command("DEFRAG");
    ASSERT_TRUE(session.readToFirstMove(run));
    EXPECT_GT(std::filesystem::file_size(rollback), 0U);
    session.readToDone(run);
    EXPECT_EQ(std::filesystem::file_size(rollback), 0U);
    session.command("QUIT");

    EXPECT_EQ(session.process().wait(), 0);
    EXPECT_EQ(run.errors(), std::vector<std::string>());
    EXPECT_TRUE(pagesOf(image) == pagesOf(other));
    struct stat status = {};
    ASSERT_EQ(::stat(rollback.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

/** A way to end a run in order. */
struct Ending {
    const char* name;
    std::function<void(ToolProcess&)> end;
};

std::ostream& operator<<(std::ostream& stream, const Ending& ending)
{
    return stream << ending.name;
}

class EndedRollbackRun : public RollbackFile, public testing::WithParamInterface<Ending> {};

TEST_P(EndedRollbackRun, TakesTheMarkAwayAndEmptiesTheFile)
{
    const VolumeState before = readVolumeState(image);
    DefragTranscript run;
    DefragSession session(image, environment());
    session.command("DEFRAG");
    ASSERT_TRUE(session.readToFirstMove(run));
    EXPECT_FALSE(isMarkedClean());
    EXPECT_GT(std::filesystem::file_size(rollback), 0U);

    GetParam().end(session.process());
    session.readToEnd(run);

    EXPECT_EQ(session.process().wait(), 0);
    EXPECT_TRUE(isMarkedClean());
    EXPECT_EQ(std::filesystem::file_size(rollback), 0U);
    expectUnharmed(image, before);
}

INSTANTIATE_TEST_SUITE_P(
    Program, EndedRollbackRun,
    testing::Values(Ending{"QUIT", [](ToolProcess& process) { process.write("QUIT\n"); }},
                    Ending{"EndOfInput", [](ToolProcess& process) { process.closeInput(); }},
                    Ending{"SIGTERM", [](ToolProcess& process) { process.sendSignal(SIGTERM); }},
                    Ending{"KilledReader", [](ToolProcess& process) { process.closeOutput(); }}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(RollbackFile, AKilledRunLeavesTheMarkUntilTheVolumeIsOpenedWithTheFile)
{
    const VolumeState before = readVolumeState(image);
    killRun();
    EXPECT_FALSE(isMarkedClean());
    EXPECT_GT(std::filesystem::file_size(rollback), 0U);

    ToolProcess process(setup());
    EXPECT_EQ(process.readLine(), "READY");
    process.write("QUIT\n");

    const std::string log = process.readErrorsToEnd();
    EXPECT_EQ(process.wait(), 0);
    EXPECT_EQ(std::ranges::count(log, '\n'), 1) << log;
    EXPECT_NE(log.find("]: WARNING: An interrupted run was rolled back with " + rollback +
                       " (records put back = "),
              std::string::npos)
        << log;
    EXPECT_TRUE(isMarkedClean());
    EXPECT_EQ(std::filesystem::file_size(rollback), 0U);
    expectUnharmed(image, before);
}

TEST_F(RollbackFile, AKilledRunWithoutItLeavesTheMark)
{
    DefragTranscript run;
    DefragSession session(image);
    session.command("DEFRAG");
    ASSERT_TRUE(session.readToFirstMove(run));
    session.process().sendSignal(SIGKILL);

    EXPECT_EQ(session.process().wait(), -SIGKILL);
    EXPECT_FALSE(isMarkedClean());
}

TEST_F(RollbackFile, OneOfAnotherVolumeIsAnErrorAndBothAreLeftAlone)
{
    killRun();
    // Of another size, and then as large as the first.
    for (const uint32_t totalBlocks : {kTotalBlocks - 1000, kTotalBlocks}) {
        std::filesystem::remove(image);
        HFSPlusVolumeBuilder builder;
        builder.blockSize(totalBlocks == kTotalBlocks ? 2048 : 4096)
            .totalBlocks(totalBlocks == kTotalBlocks ? 2 * kTotalBlocks : totalBlocks);
        ASSERT_TRUE(builder.buildFile(image)) << builder.error();
        const auto volumePages = pagesOf(image);
        const std::string fileBytes = bytesOf(rollback);

        EXPECT_EQ(outputOfOpening(),
                  "ERROR,Rollback file " + rollback + " belongs to another volume.\n");

        EXPECT_TRUE(pagesOf(image) == volumePages);
        EXPECT_EQ(bytesOf(rollback), fileBytes);
    }
}

TEST_F(RollbackFile, OneWithADamagedHeaderIsAnErrorAndBothAreLeftAlone)
{
    killRun();
    const auto volumePages = pagesOf(image);
    const std::string whole = bytesOf(rollback);
    for (const size_t place : {size_t{0}, size_t{40}, size_t{100}, size_t{511}}) {
        std::string damaged = whole;
        ASSERT_GT(damaged.size(), place);
        damaged[place] = static_cast<char>(damaged[place] ^ 1);
        std::ofstream(rollback, std::ios::binary) << damaged;

        EXPECT_EQ(outputOfOpening(), "ERROR,Rollback file " + rollback + " is damaged.\n");

        EXPECT_TRUE(pagesOf(image) == volumePages);
        EXPECT_EQ(bytesOf(rollback), damaged);
    }
}

TEST_F(RollbackFile, WhatIsNoRollbackFileIsLeftAlone)
{
    const std::string text = "a letter that somebody has put here";
    std::ofstream(rollback, std::ios::binary) << text;
    const auto volumePages = pagesOf(image);

    EXPECT_EQ(outputOfOpening(), "ERROR,Rollback file " + rollback + " is damaged.\n");

    EXPECT_EQ(bytesOf(rollback), text);
    EXPECT_TRUE(pagesOf(image) == volumePages);
}

TEST_F(RollbackFile, ADeviceOrFolderInItsPlaceIsAnError)
{
    const auto volumePages = pagesOf(image);
    for (const std::string& path : {std::string("/dev/full"), folder.path("volume")}) {
        ToolProcess process({.program = VZDEFRAG_PROGRAM,
                             .arguments = {"--quit", image},
                             .environment = {{kVariable, path}}});

        const int errorNumber = path == "/dev/full" ? EINVAL : EISDIR;
        EXPECT_EQ(process.readToEnd(), "ERROR,Unable to open rollback file " + path +
                                           ". An error " + std::to_string(errorNumber) +
                                           " occurred.\n");
        EXPECT_EQ(process.wait(), 0);
    }
    EXPECT_TRUE(pagesOf(image) == volumePages);
}

TEST_F(RollbackFile, OneThatCannotBeMadeEndsTheRunBeforeTheVolumeIsTouched)
{
    const std::string fixed = folder.path("volume");
    std::filesystem::permissions(
        fixed, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    const std::string path = fixed + "/rollback";
    ToolProcess::Setup tool = {
        .program = VZDEFRAG_PROGRAM, .arguments = {image}, .environment = {{kVariable, path}}};
    if (::geteuid() == 0) {
        // The superuser may write whatever the permissions are, unless that right is given up.
        tool.program = "/usr/bin/setpriv";
        tool.arguments = {"--bounding-set", "-dac_override",  "--inh-caps",
                          "-dac_override",  VZDEFRAG_PROGRAM, image};
    }
    const auto volumePages = pagesOf(image);

    expectRunFails(tool, "Unable to open rollback file " + path + ". An error " +
                             std::to_string(EACCES) + " occurred.");

    std::filesystem::permissions(fixed, std::filesystem::perms::owner_all);
    EXPECT_TRUE(pagesOf(image) == volumePages);
}

TEST_F(RollbackFile, AFullFileSystemUnderItEndsTheRunWithNothingLost)
{
    const VolumeState before = readVolumeState(image);
    const std::string small = folder.path("small");
    std::filesystem::create_directory(small);
    const std::string path = small + "/rollback";
    // A file system of one page, which only the program and its shell see.
    const std::string script = "mount -t tmpfs -o size=4k none \"$1\" && exec \"$2\" \"$3\"";
    const auto inSmall = [&](const std::string& program) {
        return ToolProcess::Setup{.program = "/usr/bin/unshare",
                                  .arguments = {"--map-root-user", "--mount", "sh", "-c", script,
                                                "sh", small, program, image},
                                  .environment = {{kVariable, path}}};
    };
    ToolProcess probe(inSmall("/bin/true"));
    if (probe.wait() != 0) {
        GTEST_SKIP() << "no file system can be mounted here";
    }

    expectRunFails(inSmall(VZDEFRAG_PROGRAM), "Unable to write rollback file " + path +
                                                  ". An error " + std::to_string(ENOSPC) +
                                                  " occurred.");

    EXPECT_TRUE(isMarkedClean());
    expectUnharmed(image, before);
}

TEST_F(RollbackFile, OneThatAnotherProgramHoldsIsInUse)
{
    const std::string other = folder.path("other.img");
    buildVolume(other);
    const auto otherPages = pagesOf(other);
    DefragTranscript run;
    DefragSession session(image, environment());
    session.command("DEFRAG");
    ASSERT_TRUE(session.readToFirstMove(run));

    ToolProcess second({.program = VZDEFRAG_PROGRAM,
                        .arguments = {"--quit", other},
                        .environment = environment()});

    EXPECT_EQ(second.readToEnd(), "ERROR,Rollback file " + rollback + " is in use.\n");
    EXPECT_EQ(second.wait(), 0);
    EXPECT_TRUE(pagesOf(other) == otherPages);
    session.readToDone(run);
    EXPECT_EQ(run.errors(), std::vector<std::string>());
}

}  // namespace
