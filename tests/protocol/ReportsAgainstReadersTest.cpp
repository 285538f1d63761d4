// What the reporting commands print of volumes that a file-system driver filled, against what
// programs of other makers read from the same images.

#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Platform/TemporaryFolder.h"
#include "protocol/OtherReaders.h"
#include "protocol/ToolProcess.h"
#include "protocol/VolumeJudgement.h"
#include "support/OutputFields.h"

namespace {

constexpr uint32_t kRootFolderID = 2;
constexpr size_t kFirstExtentField = 10;

using Extents = std::vector<HFSPlusCheckedExtent>;

/** One FILE line, its fields still escaped. */
struct FileLine {
    std::vector<std::string> fields;

    [[nodiscard]] uint32_t parentID() const { return number(2); }
    [[nodiscard]] uint32_t fileID() const { return number(3); }
    /** By its Finder type, "hlnk". */
    [[nodiscard]] bool isHardLink() const { return fields.at(8) == "686C6E6B"; }
    [[nodiscard]] Extents extents() const
    {
        Extents extents;
        for (size_t index = kFirstExtentField; index + 1 < fields.size(); index += 2) {
            extents.push_back({number(index), number(index + 1)});
        }
        return extents;
    }

private:
    [[nodiscard]] uint32_t number(size_t index) const
    {
        return static_cast<uint32_t>(std::stoul(fields.at(index)));
    }
};

/** A name or path as other listings show it: escapes undone, control characters as "^". */
std::string shownPath(const std::string& field)
{
    constexpr std::string_view kNul = "\\xC0\\x80";
    std::string path;
    for (size_t index = 0; index < field.size(); ++index) {
        if (field.compare(index, kNul.size(), kNul) == 0) {
            path += '^';
            index += kNul.size() - 1;
            continue;
        }
        if (field[index] == '\\') {
            ++index;
        }
        const auto byte = static_cast<unsigned char>(field.at(index));
        path += byte < 0x20 || byte == 0x7F ? '^' : field[index];
    }
    return path;
}

std::vector<uint32_t> blocksOf(const Extents& extents)
{
    std::vector<uint32_t> blocks;
    for (const HFSPlusCheckedExtent& extent : extents) {
        for (uint32_t block = 0; block < extent.blockCount; ++block) {
            blocks.push_back(extent.startBlock + block);
        }
    }
    return blocks;
}

/** The picture of a bitmap by the rules, one block after another. */
std::string pictureOf(const std::vector<bool>& used, uint32_t scale)
{
    std::string bits;
    for (size_t group = 0; group + scale <= used.size(); group += scale) {
        const auto first = used.begin() + static_cast<std::ptrdiff_t>(group);
        const auto set = std::count(first, first + scale, true);
        bits += 2 * set >= static_cast<std::ptrdiff_t>(scale) ? '1' : '0';
    }
    const bool hasOpenGroup = used.size() % scale != 0;
    if (hasOpenGroup && bits.size() % 4 == 0) {
        bits += "0000";
    }
    bits.resize((bits.size() + 3) / 4 * 4, '0');
    std::string digits;
    for (size_t digit = 0; digit < bits.size(); digit += 4) {
        digits += "0123456789ABCDEF"[std::stoul(bits.substr(digit, 4), nullptr, 2)];
    }
    return digits.size() % 2 == 0 ? digits : digits + "0";
}

class ReportsAgainstReaders : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override
    {
        if (!otherReadersAreInstalled()) {
            GTEST_SKIP() << "fls, istat and fsstat (package sleuthkit) are not installed";
        }
        // A volume that another test has open could not be opened.
        copyImage(_sample() + ".img", image);
    }

    /** What the program answers to @p command, the lines of START, PROGRESS and DONE aside. */
    [[nodiscard]] std::vector<std::string> report(const std::string& command) const
    {
        const std::string name = command.substr(0, command.find(' '));
        ToolProcess process({.program = VZDEFRAG_PROGRAM, .arguments = {image}});
        EXPECT_EQ(process.readLine(), "READY");
        process.write(command + "\n");
        EXPECT_EQ(process.readLine(), name + ",START");
        std::vector<std::string> lines;
        while (const auto line = process.readLine()) {
            if (*line == name + ",DONE") {
                return lines;
            }
            if (!line->starts_with(name + ",")) {
                // A name may hold line breaks.
                lines.back() += "\n" + *line;
            } else if (!line->starts_with(name + ",PROGRESS,")) {
                lines.push_back(*line);
            }
        }
        ADD_FAILURE() << command << " did not end";
        return lines;
    }

    [[nodiscard]] std::vector<FileLine> fileLines(const std::string& command) const
    {
        std::vector<FileLine> files;
        for (const std::string& line : report(command)) {
            FileLine file{fieldsOf(line)};
            EXPECT_GE(file.fields.size(), kFirstExtentField) << line;
            EXPECT_EQ(file.fields.at(1), "FILE") << line;
            files.push_back(std::move(file));
        }
        return files;
    }

    /** The IDs of what the system's own driver showed of the volume, by path. */
    [[nodiscard]] std::map<std::string, uint32_t> manifestPaths() const
    {
        std::map<std::string, uint32_t> paths;
        std::ifstream manifest(_sample() + ".txt");
        for (std::string line; std::getline(manifest, line);) {
            std::istringstream words(line);
            std::string kind;
            uint32_t cnid = 0;
            std::string skipped;
            std::string path;
            words >> kind >> cnid >> skipped >> skipped >> skipped >> skipped >> skipped;
            if (kind != "r" && kind != "x" && std::getline(words >> std::ws, path)) {
                paths["/" + path] = cnid;
            }
        }
        return paths;
    }

    /** Where FRAGINFO begins to count. */
    [[nodiscard]] uint32_t firstBlockCounted() const
    {
        ToolProcess process({.program = VZDEFRAG_PROGRAM,
                             .arguments = {image},
                             .environment = {{"KLDebugLevel", "debug"}}});
        process.write("FRAGINFO\n");
        while (const auto line = process.readErrorLine()) {
            const size_t found = line->find("FRAGINFO,DEBUG,Starting at block ");
            uint32_t block = 0;
            if (found != std::string::npos &&
                std::sscanf(line->c_str() + found, "FRAGINFO,DEBUG,Starting at block %" SCNx32,
                            &block) == 1) {
                return block;
            }
        }
        ADD_FAILURE() << "no start block was logged";
        return 0;
    }

    [[nodiscard]] std::string _sample() const
    {
        return std::string(VZ_SAMPLE_VOLUMES_DIR) + "/" + GetParam();
    }

    TemporaryFolder _folder;
    const std::string image = _folder.path("volume.img");
};

TEST_P(ReportsAgainstReaders, ScanListsTheFilesWithTheirPathsAndFolders)
{
    const VolumeState state = readVolumeStateWithoutHashes(image);
    const std::map<uint32_t, ListedObject> objects = listedObjects(image);
    const std::map<std::string, uint32_t> mounted = manifestPaths();
    std::map<std::string, uint32_t> folders = {{"", kRootFolderID}};
    std::map<uint32_t, std::string> expected;
    for (const auto& [cnid, object] : objects) {
        if (object.isFolder) {
            folders[object.path] = cnid;
        } else {
            expected[cnid] = object.path;
        }
    }
    ASSERT_GT(expected.size(), 300U);
    std::set<std::string> listedFolders;
    for (const auto& [cnid, path] : expected) {
        listedFolders.insert(path.substr(0, path.rfind('/')));
    }

    size_t found = 0;
    for (const FileLine& file : fileLines("SCAN --full-paths")) {
        const std::string path = shownPath(file.fields[4]);
        const std::string folder = path.substr(0, path.rfind('/'));
        const auto listed = expected.find(file.fileID());
        if (listed != expected.end()) {
            EXPECT_EQ(path, listed->second);
            EXPECT_TRUE(folders.contains(folder)) << path;
            EXPECT_EQ(folders[folder], file.parentID()) << path;
            expected.erase(listed);
        } else {
            // Hard links end the listing of their folder and of those after it; the system's own
            // driver showed them all.
            EXPECT_FALSE(listedFolders.contains(folder)) << path;
            ASSERT_TRUE(mounted.contains(path) && mounted.contains(folder)) << path;
            EXPECT_EQ(mounted.at(folder), file.parentID()) << path;
        }
        ++found;
    }

    EXPECT_TRUE(expected.empty()) << expected.begin()->second;
    EXPECT_EQ(found, state.check.fileCount);
}

TEST_P(ReportsAgainstReaders, ScanNamesAreTheLastComponentsOfThePaths)
{
    std::map<uint32_t, std::string> paths;
    for (const FileLine& file : fileLines("SCAN -f")) {
        paths[file.fileID()] = file.fields[4];
    }
    const std::vector<FileLine> files = fileLines("SCAN");

    EXPECT_EQ(files.size(), paths.size());
    for (const FileLine& file : files) {
        const std::string& path = paths[file.fileID()];
        EXPECT_EQ(path.substr(path.rfind('/') + 1), file.fields[4]);
    }
}

TEST_P(ReportsAgainstReaders, ScanListsTheExtentsOfBothForks)
{
    const VolumeState state = readVolumeStateWithoutHashes(image);
    std::map<std::pair<uint32_t, uint8_t>, Extents> forks;
    for (const HFSPlusCheckedFork& fork : state.check.forks) {
        forks[{fork.cnid, fork.forkType}] = fork.extents;
    }
    const auto countOfBlocks = [&](uint64_t size) {
        return (size + state.check.blockSize - 1) / state.check.blockSize;
    };
    // A fork may own blocks beyond its size, which the other reader does not list.
    const auto expectBeginning = [&](const Extents& whole, const Extents& runs, uint64_t size) {
        std::vector<uint32_t> blocks = blocksOf(whole);
        ASSERT_GE(blocks.size(), countOfBlocks(size));
        blocks.resize(countOfBlocks(size));
        EXPECT_EQ(blocks, blocksOf(runs));
    };
    const std::vector<FileLine> files = fileLines("SCAN");
    ASSERT_GT(files.size(), 300U);

    for (const FileLine& file : files) {
        Extents expected = forks[{file.fileID(), kHFSPlusCheckDataFork}];
        const Extents resource = forks[{file.fileID(), kHFSPlusCheckResourceFork}];
        if (file.isHardLink()) {
            // The other reader shows the file that the link leads to, where it finds it.
            EXPECT_EQ(file.extents(), Extents()) << file.fields[4];
        } else {
            const ListedForks listed = listedForks(image, file.fileID());
            expectBeginning(expected, listed.data, listed.dataSize);
            expectBeginning(resource, listed.resource, listed.resourceSize);
        }
        expected.insert(expected.end(), resource.begin(), resource.end());
        EXPECT_EQ(file.extents(), expected) << file.fields[4];
    }
}

TEST_P(ReportsAgainstReaders, MapOfEveryFileSaysWhatScanSays)
{
    std::string command = "MAP";
    std::vector<std::vector<std::string>> expected;
    for (FileLine& file : fileLines("SCAN -f")) {
        command += " -i " + file.fields[3];
        file.fields[0] = "MAP";
        expected.push_back(std::move(file.fields));
    }
    std::vector<std::vector<std::string>> found;
    for (const FileLine& file : fileLines(command)) {
        found.push_back(file.fields);
    }

    EXPECT_EQ(found, expected);
}

TEST_P(ReportsAgainstReaders, MapOfEveryFolderNamesItsPathAndItsParent)
{
    const std::map<uint32_t, ListedObject> objects = listedObjects(image);
    std::map<std::string, uint32_t> folders = {{"", kRootFolderID}};
    std::string command = "MAP";
    for (const auto& [cnid, object] : objects) {
        if (object.isFolder) {
            folders[object.path] = cnid;
            command += " --cnid " + std::to_string(cnid);
        }
    }
    ASSERT_GT(folders.size(), 3U);

    const std::vector<std::string> lines = report(command);

    EXPECT_EQ(lines.size(), folders.size() - 1);
    for (const std::string& line : lines) {
        const std::vector<std::string> fields = fieldsOf(line);
        ASSERT_EQ(fields.size(), 5U) << line;
        EXPECT_EQ(fields[1], "DIR");
        const std::string path = shownPath(fields[4]);
        EXPECT_EQ(std::to_string(folders[path]), fields[3]) << line;
        EXPECT_EQ(std::to_string(folders[path.substr(0, path.rfind('/'))]), fields[2]) << line;
    }
}

TEST_P(ReportsAgainstReaders, FragInfoCountsWhatTheExtentsGive)
{
    const VolumeState state = readVolumeStateWithoutHashes(image);
    const uint64_t first = firstBlockCounted();
    uint32_t total = 0;
    uint32_t fragmented = 0;
    for (const HFSPlusCheckedFork& fork : state.check.forks) {
        uint32_t pieces = 0;
        uint32_t blocks = 0;
        for (const HFSPlusCheckedExtent& extent : fork.extents) {
            const uint64_t end = uint64_t{extent.startBlock} + extent.blockCount;
            if (!fork.isSpecial && end > first) {
                ++pieces;
                blocks += static_cast<uint32_t>(end - std::max<uint64_t>(extent.startBlock, first));
            }
        }
        total += blocks;
        fragmented += pieces > 1 ? blocks : 0;
    }
    ASSERT_GT(fragmented, 0U);

    EXPECT_EQ(report("FRAGINFO"),
              std::vector<std::string>{"FRAGINFO," + std::to_string(fragmented) + "," +
                                       std::to_string(total) + "," +
                                       std::to_string(fragmented * 100 / total)});
}

TEST_P(ReportsAgainstReaders, BitmapShowsTheBlocksOfEveryFork)
{
    ASSERT_TRUE(isAcceptedByFsck(image));
    const VolumeState state = readVolumeStateWithoutHashes(image);
    const uint32_t totalBlocks = state.check.totalBlocks;
    ASSERT_EQ(totalBlocks % 8, 0U);  // no bits beyond the volume take part
    std::vector<bool> used(totalBlocks);
    for (uint32_t block = 0; block * state.check.blockSize < 1536; ++block) {
        used[block] = true;
    }
    used[totalBlocks - 1] = true;
    for (const HFSPlusCheckedFork& fork : state.check.forks) {
        for (const uint32_t block : blocksOf(fork.extents)) {
            used[block] = true;
        }
    }
    EXPECT_EQ(std::ranges::count(used, false), listedFreeBlocks(image));
    const auto firstUnused = std::ranges::find(used, false) - used.begin();
    const auto beforeLast = used.rbegin() + 1;
    const auto lastUsed = totalBlocks - 2 - (std::find(beforeLast, used.rend(), true) - beforeLast);

    for (const uint32_t scale : {1U, 3U, 64U, 4096U}) {
        const std::string picture = pictureOf(used, scale);
        std::vector<std::string> expected = {
            "BITMAP,LENGTH," + std::to_string(((totalBlocks + scale - 1) / scale + 7) / 8)};
        for (size_t digit = 0; digit < picture.size(); digit += 4096) {
            expected.push_back("BITMAP,DATA," + picture.substr(digit, 4096));
        }
        expected.push_back("BITMAP,FIRSTUNUSEDBLOCK," + std::to_string(firstUnused));
        expected.push_back("BITMAP,LASTUSEDBLOCK," + std::to_string(lastUsed));
        EXPECT_EQ(report("BITMAP " + std::to_string(scale)), expected) << scale;
    }
}

INSTANTIATE_TEST_SUITE_P(Program, ReportsAgainstReaders,
                         testing::Values("plain4k", "blk1k", "journaled", "attrs"),
                         [](const auto& instance) { return std::string(instance.param); });

}  // namespace
