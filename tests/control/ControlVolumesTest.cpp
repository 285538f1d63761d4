#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "control/ControlCommand.h"
#include "protocol/ToolProcess.h"
#include "protocol/VolumeImage.h"
#include "protocol/VolumeJudgement.h"

namespace {

/** What the lines of SCAN and FRAGINFO add up to, counted in the plainest way. */
struct Counted {
    uint64_t files = 0;
    uint64_t blocks = 0;
    uint64_t extents = 0;
    uint64_t fragmentedFiles = 0;
    uint64_t fragmentedBlocks = 0;
    uint64_t consideredBlocks = 0;
    uint64_t percent = 0;
    uint64_t mostExtents = 0;
};

/** The fields of @p record; a comma behind a backslash is none between fields. */
std::vector<std::string> fieldsOf(const std::string& record)
{
    std::vector<std::string> fields(1);
    for (size_t index = 0; index < record.size(); index++) {
        if (record[index] == '\\') {
            fields.back() += record.substr(index++, 2);
        } else if (record[index] == ',') {
            fields.emplace_back();
        } else {
            fields.back() += record[index];
        }
    }
    return fields;
}

/** The records of @p command, names with line breaks in one piece. */
std::vector<std::string> answersTo(ToolProcess& tool, const std::string& command)
{
    const std::string word = command.substr(0, command.find(' ')) + ",";
    tool.write(command + "\n");
    std::vector<std::string> records;
    while (const std::optional<std::string> line = tool.readLine()) {
        if (!line->starts_with(word)) {
            records.back() += "\n" + *line;
        } else if (*line == word + "DONE") {
            break;
        } else {
            records.push_back(*line);
        }
    }
    return records;
}

Counted countedBy(const std::string& image)
{
    ToolProcess tool({.program = VZDEFRAG_PROGRAM, .arguments = {image}});
    EXPECT_EQ(tool.readLine().value_or(""), "READY");
    Counted counted;
    for (const std::string& record : answersTo(tool, "SCAN")) {
        const std::vector<std::string> fields = fieldsOf(record);
        if (fields[1] != "FILE") {
            continue;
        }
        counted.files++;
        counted.extents += (fields.size() - 10) / 2;
        counted.mostExtents = std::max<uint64_t>(counted.mostExtents, (fields.size() - 10) / 2);
        for (size_t index = 11; index < fields.size(); index += 2) {
            counted.blocks += std::stoull(fields[index]);
        }
    }
    for (const std::string& record : answersTo(tool, "SCAN --frag-only")) {
        counted.fragmentedFiles += record.starts_with("SCAN,FILE,") ? 1 : 0;
    }
    for (const std::string& record : answersTo(tool, "FRAGINFO")) {
        const std::vector<std::string> fields = fieldsOf(record);
        if (fields.size() == 4) {
            counted.fragmentedBlocks = std::stoull(fields[1]);
            counted.consideredBlocks = std::stoull(fields[2]);
            counted.percent = std::stoull(fields[3]);
        }
    }
    return counted;
}

class ControlVolumes : public testing::TestWithParam<const char*> {};

TEST_P(ControlVolumes, FiguresAgreeWithWhatTheLinesAddUpTo)
{
    const std::string image = uniqueTemporaryPath("volume.img");
    copyImage(std::string(VZ_SAMPLE_VOLUMES_DIR) + "/" + GetParam() + ".img", image);
    const Counted counted = countedBy(image);

    const ControlResult result = ControlCommand().run({"info", image, "--json", "--top", "1"});
    const VolumeState state = readVolumeStateWithoutHashes(image);
    std::filesystem::remove(image);

    ASSERT_EQ(result.status, 0) << result.messages;
    const nlohmann::json document = nlohmann::json::parse(result.output);
    EXPECT_EQ(document["files"]["count"], counted.files);
    EXPECT_EQ(document["files"]["blocks"], counted.blocks);
    const nlohmann::json& fragmentation = document["fragmentation"];
    EXPECT_EQ(fragmentation["files"], counted.fragmentedFiles);
    EXPECT_EQ(fragmentation["extents"], counted.extents);
    EXPECT_EQ(fragmentation["fragmentedBlocks"], counted.fragmentedBlocks);
    EXPECT_EQ(fragmentation["consideredBlocks"], counted.consideredBlocks);
    EXPECT_EQ(fragmentation["percent"], counted.percent);
    ASSERT_EQ(document["worstFiles"].size(), 1U);
    EXPECT_EQ(document["worstFiles"][0]["extents"], counted.mostExtents);

    // The forks in pieces are not told; the bounds hold what a checker counts.
    std::set<std::pair<uint32_t, uint8_t>> forks;
    for (const HFSPlusCheckedFork& fork : state.check.forks) {
        if (fork.cnid >= 16 && fork.extents.size() > 1) {
            forks.insert({fork.cnid, fork.forkType});
        }
    }
    EXPECT_LE(fragmentation["leastForks"].get<size_t>(), forks.size());
    EXPECT_GE(fragmentation["mostForks"].get<size_t>(), forks.size());
    EXPECT_EQ(document["volume"]["totalBlocks"], state.check.totalBlocks);
    EXPECT_EQ(document["volume"]["blockSize"], state.check.blockSize);
    EXPECT_EQ(document["freeSpace"]["blocks"], state.check.freeBlocks);
}

INSTANTIATE_TEST_SUITE_P(Samples, ControlVolumes,
                         testing::Values("plain4k", "blk1k", "journaled", "attrs"),
                         [](const auto& volume) { return std::string(volume.param); });

}  // namespace
