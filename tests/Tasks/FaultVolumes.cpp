#include "Tasks/FaultVolumes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "KLKit/KLStringUtilities.h"
#include "Tasks/HFSPlusBitmapTask.h"
#include "Tasks/HFSPlusDefragTask.h"
#include "Tasks/HFSPlusFragInfoTask.h"
#include "Tasks/HFSPlusMapTask.h"
#include "Tasks/HFSPlusScanTask.h"
#include "Tasks/TaskRun.h"
#include "support/BootCachePlaylist.h"
#include "support/HFSPlusVolumeBuilder.h"

namespace {

constexpr uint32_t kUnmountedBit = 0x100;  // of the header's attributes

/** Forks in one to eighteen pieces from @p first on, which alternate with one another. */
void addFiles(HFSPlusVolumeBuilder& builder, uint32_t blockSize, uint32_t first)
{
    HFSPlusBuilderExtents many;
    HFSPlusBuilderExtents few;
    for (uint32_t piece = 0; piece < 18; ++piece) {
        many.push_back({first + piece * 6, 2});
        if (piece % 2 == 0) {
            few.push_back({first + piece * 6 + 3, 1});
        }
    }
    builder.file("/movie", 20).data(many);
    builder.file("/folder/song", 21).data(few).resource({{first + 130, 2}, {first + 120, 3}});
    builder.file("/Applications/A.app/run", 22).data({{first + 150, 3}, {first + 140, 3}});
    builder.file("/Applications/B.app/run", 23)
        .data({{first + 160, 5}})
        .resource({{first + 14, 1}});
    builder.file("/empty", 24);
    const auto range = [&](uint32_t block, uint32_t group) {
        return PlaylistEntry{uint64_t{block} * blockSize, blockSize, group};
    };
    addPlaylist(builder, playlistBytes({range(first + 160, 2), range(first + 130, 1)}),
                {{first + 170, 2}});
}

HFSPlusVolumeBuilder overflowingVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(512).totalBlocks(600).extentsNodeSize(512).catalogNodeSize(4096);
    builder.extentsTree().maximumLeafRecords = 2;
    builder.freeExtentsNodes(6);
    addFiles(builder, 512, 300);
    return builder;
}

HFSPlusVolumeBuilder journaledVolume()
{
    HFSPlusVolumeBuilder builder;
    builder.blockSize(1024).totalBlocks(500).wrapper().journal(100, 8).journalInfoBlock(110);
    builder.extentsNodeSize(1024).catalogNodeSize(4096).catalogExtents({{120, 20}, {150, 20}});
    builder.attributesFile();
    addFiles(builder, 1024, 200);
    return builder;
}

HFSPlusVolumeBuilder volumeOnLargeDeviceBlocks()
{
    HFSPlusVolumeBuilder builder;
    // The headers and the overflow file's nodes are parts of device blocks.
    builder.blockSize(4096).totalBlocks(300).extentsNodeSize(512).catalogNodeSize(4096);
    addFiles(builder, 4096, 100);
    return builder;
}

HFSPlusForkHashes hashesOf(const MemoryBlockDevice& memory, HFSPlusCheckResult* result)
{
    const auto copy = memory.clone();
    HFSPlusCheckDeviceReader reader(*copy);
    *result = checkHFSPlusVolume(reader, {.demandsUnmounted = false});
    return hashForks(reader, *result);
}

FaultVolume make(std::string name, HFSPlusVolumeBuilder builder, uint32_t deviceBlockSize,
                 uint64_t bufferSize)
{
    FaultVolume volume{std::move(name), builder.build(deviceBlockSize), bufferSize, {}};
    EXPECT_NE(volume.memory, nullptr) << builder.error();
    if (volume.memory != nullptr) {
        HFSPlusCheckResult result;
        volume.hashes = hashesOf(*volume.memory, &result);
        EXPECT_TRUE(result.consistent) << result.description();
    }
    return volume;
}

template <typename Task>
std::shared_ptr<KLToolTask> makeReport(HFSPlusVolume& volume, const std::string& command)
{
    return std::make_shared<Task>(volume,
                                  std::make_shared<KLToolEvent>(KLToolEventStringType, command));
}

}  // namespace

std::vector<FaultVolume> faultVolumes()
{
    std::vector<FaultVolume> volumes;
    volumes.push_back(make("overflowing", overflowingVolume(), 512, uint64_t{40} * 512));
    volumes.push_back(make("journaled", journaledVolume(), 512, uint64_t{60} * 1024));
    volumes.push_back(
        make("large device blocks", volumeOnLargeDeviceBlocks(), 4096, uint64_t{30} * 4096));
    return volumes;
}

const std::vector<std::string>& faultCommands()
{
    static const std::vector<std::string> commands = {"SCAN --full-paths",
                                                      "FRAGINFO",
                                                      "MAP -p /folder/song -i 20",
                                                      "BITMAP 4",
                                                      "DEFRAG",
                                                      "COMPACT",
                                                      "DEFRAG --profile boot,app"};
    return commands;
}

bool movesData(const std::string& command)
{
    return command.starts_with("DEFRAG") || command.starts_with("COMPACT");
}

std::shared_ptr<KLToolTask> makeFaultTask(HFSPlusVolume& volume, const std::string& command,
                                          uint64_t bufferSize)
{
    if (command.starts_with("SCAN")) {
        return makeReport<HFSPlusScanTask>(volume, command);
    }
    if (command.starts_with("FRAGINFO")) {
        return makeReport<HFSPlusFragInfoTask>(volume, command);
    }
    if (command.starts_with("MAP")) {
        return makeReport<HFSPlusMapTask>(volume, command);
    }
    if (command.starts_with("BITMAP")) {
        return makeReport<HFSPlusBitmapTask>(volume, command);
    }
    const auto task = std::make_shared<HFSPlusDefragTask>(volume, command.starts_with("COMPACT"));
    task->setCopyBufferSize(bufferSize);
    task->setArguments(trimmedComponentsSeparatedByCharactersInSet(command, " "));
    return task;
}

bool isFramed(const std::vector<std::string>& lines)
{
    const auto isDone = [](const std::string& line) { return line.ends_with(",DONE"); };
    return lines.size() >= 2 && lines.front().ends_with(",START") && isDone(lines.back()) &&
           std::ranges::count_if(lines, isDone) == 1;
}

std::string errorOf(const std::vector<std::string>& lines)
{
    std::string error;
    for (const std::string& line : lines) {
        const size_t head = line.find(",ERROR,");
        if (head != std::string::npos) {
            error = error.empty() ? line.substr(head + 7) : "?";
        }
    }
    return error;
}

FaultVerdict judge(const FaultVolume& volume, const MemoryBlockDevice& memory)
{
    if (memory.hasSameBytesAs(*volume.memory)) {
        return {.isConsistent = true, .hasAllData = true};
    }
    HFSPlusCheckResult result;
    HFSPlusForkHashes hashes = hashesOf(memory, &result);
    FaultVerdict verdict;
    verdict.isMarked = (result.attributes & kUnmountedBit) == 0;
    verdict.isConsistent = result.consistent;
    verdict.problems = result.description();
    // The playlist is emptied once it was used.
    const HFSPlusCheckedFork* const playlist = result.forkWithCNID(kPlaylistID);
    verdict.hasAllData = playlist != nullptr;
    if (playlist != nullptr && playlist->logicalSize == 0) {
        hashes[{kPlaylistID, 0}] = volume.hashes.at({kPlaylistID, 0});
    }
    for (const auto& [fork, hash] : volume.hashes) {
        const auto found = hashes.find(fork);
        if (found == hashes.end() || found->second != hash) {
            verdict.hasAllData = false;
            verdict.problems += "\nfile " + std::to_string(fork.first) + " has other data";
        }
    }
    return verdict;
}
