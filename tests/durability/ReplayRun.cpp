#include "durability/ReplayRun.h"

#include <cstring>
#include <optional>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "HFSPlus/HFSPlusVolumeProber.h"
#include "Tasks/DefragRun.h"
#include "support/BootCachePlaylist.h"
#include "support/RecordingBlockDevice.h"

namespace {

/** Opens a device in memory, and records what is written to it. */
class RecordingOpener final : public PlatformDeviceOpener {
public:
    RecordingOpener(const MemoryBlockDevice& device, std::shared_ptr<Recording> recording)
        : _device(device), _recording(std::move(recording))
    {
    }

    std::unique_ptr<PlatformBlockDevice> openDevice(const std::string& /*path*/, Mode /*mode*/,
                                                    int& /*errorNumber*/) override
    {
        return std::make_unique<RecordingBlockDevice>(_device.share(), _recording);
    }
    MountState mountState(const std::string& /*path*/) override { return {}; }

private:
    const MemoryBlockDevice& _device;
    std::shared_ptr<Recording> _recording;
};

/** Opens the volume on @p device as the program does; null with @p error set. */
std::unique_ptr<VZDefragVolume> openVolume(const MemoryBlockDevice& device,
                                           const RecordingFile* file,
                                           const std::shared_ptr<Recording>& recording,
                                           std::string& error)
{
    RecordingOpener opener(device, recording);
    HFSPlusVolumeProber prober;
    if (file != nullptr) {
        prober.setRollbackFile(std::make_shared<HFSPlusRollbackFile>("/rollback", file->opener()));
    }
    std::unique_ptr<VZDefragError> failure;
    auto volume = VZDefragVolume::initWithDevice("/dev/memory", opener, prober, &failure);
    error = failure != nullptr ? failure->description() : "";
    return volume;
}

std::vector<std::string> wordsFor(const ReplayVolume& volume, const std::string& command)
{
    std::vector<std::string> words = {command};
    if (command == "DEFRAG" && !volume.profiles.empty()) {
        words.insert(words.end(), {"-p", volume.profiles});
    }
    return words;
}

/** Reads the bytes of a fork; nothing where its extents do not reach. */
std::optional<std::vector<uint8_t>> contentsOf(const MemoryBlockDevice& device,
                                               const HFSPlusCheckResult& result,
                                               const HFSPlusCheckedFork& fork)
{
    std::vector<uint8_t> bytes;
    for (const HFSPlusCheckedExtent& extent : fork.extents) {
        const uint64_t size = uint64_t{extent.blockCount} * result.blockSize;
        const uint64_t offset =
            result.volumeOffset + uint64_t{extent.startBlock} * result.blockSize;
        if (offset > device.size() || size > device.size() - offset) {
            return std::nullopt;
        }
        bytes.resize(bytes.size() + size);
        device.peek(bytes.data() + bytes.size() - size, size, offset);
    }
    if (bytes.size() < fork.logicalSize) {
        return std::nullopt;
    }
    bytes.resize(fork.logicalSize);
    return bytes;
}

}  // namespace

std::string ReplayCommands::description() const
{
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", then ") + name;
    }
    return text + (abortAfter != 0 ? " told to end after " + std::to_string(abortAfter) : "");
}

ReplayRun runRecorded(ReplayVolume given, const ReplayCommands& commands, bool hasRollbackFile)
{
    ReplayRun run;
    const std::unique_ptr<MemoryBlockDevice> memory = given.builder.build(given.deviceBlockSize);
    if (memory == nullptr) {
        run.error = given.builder.error();
        return run;
    }
    run.before = memory->clone();
    const auto recording = std::make_shared<Recording>();
    const RecordingFile file(recording);
    run.lines =
        runOn(*memory, hasRollbackFile ? &file : nullptr, recording, given, commands, run.error);
    run.after = memory->clone();
    run.fileAfter = file.bytes();
    run.events = recording->events();
    return run;
}

std::vector<std::string> runOn(const MemoryBlockDevice& device, const RecordingFile* file,
                               const std::shared_ptr<Recording>& recording,
                               const ReplayVolume& given, const ReplayCommands& commands,
                               std::string& error)
{
    std::vector<std::string> lines;
    const auto opened = openVolume(device, file, recording, error);
    if (opened == nullptr) {
        return lines;
    }
    // The prober opens nothing else.
    auto& volume = static_cast<HFSPlusVolume&>(*opened);
    if (given.nodeCacheSize != 0) {
        volume.catalog().setNodeCacheSize(given.nodeCacheSize);
        volume.extents().setNodeCacheSize(given.nodeCacheSize);
    }
    for (const std::string& command : commands.names) {
        const bool isTold = commands.abortAfter != 0 && &command == &commands.names.back();
        const auto prepare = [&](HFSPlusDefragTask& task) {
            if (given.spanMemory != 0) {
                task.setSpanMemory(given.spanMemory);
            }
            if (isTold) {
                recording->callAfter(commands.abortAfter, [&task] { task.abort(); });
            }
        };
        const DefragOutput output =
            runDefrag(volume, given.bufferSize, wordsFor(given, command), prepare);
        recording->callAfter(0, nullptr);
        lines.insert(lines.end(), output.lines.begin(), output.lines.end());
        error = output.error();
    }
    return lines;
}

std::string openRecorded(const MemoryBlockDevice& device, const RecordingFile& file,
                         const std::shared_ptr<Recording>& recording)
{
    std::string error;
    std::ignore = openVolume(device, &file, recording, error);
    return error;
}

ReplayExpectation::ReplayExpectation(const MemoryBlockDevice& device)
{
    const HFSPlusCheckResult result = judged(device);
    _problems.insert(result.problems.begin(), result.problems.end());
    for (const HFSPlusCheckedFork& fork : result.forks) {
        if (!fork.isSpecial) {
            _contents[{fork.cnid, fork.forkType}] =
                contentsOf(device, result, fork).value_or(std::vector<uint8_t>());
        }
    }
}

std::string ReplayExpectation::newProblems(const HFSPlusCheckResult& result) const
{
    std::string problems;
    for (const std::string& problem : result.problems) {
        problems += _problems.contains(problem) ? "" : " " + problem + "\n";
    }
    return problems;
}

std::string ReplayExpectation::losses(const MemoryBlockDevice& device,
                                      const HFSPlusCheckResult& result) const
{
    std::map<std::pair<uint32_t, uint8_t>, const HFSPlusCheckedFork*> forks;
    for (const HFSPlusCheckedFork& fork : result.forks) {
        forks[{fork.cnid, fork.forkType}] = &fork;
    }
    std::string losses;
    for (const auto& [key, bytes] : _contents) {
        const auto found = forks.find(key);
        if (found == forks.end()) {
            losses += " fork " + std::to_string(key.first) + " is gone;";
            continue;
        }
        const auto now = contentsOf(device, result, *found->second);
        const bool isEmptied = key.first == _mayBeEmpty && now && now->empty();
        if (!isEmptied && now != bytes) {
            losses += " fork " + std::to_string(key.first) + " has other bytes;";
        }
    }
    return losses;
}

HFSPlusCheckResult judged(const MemoryBlockDevice& device, const HFSPlusCheckOptions& options)
{
    const std::unique_ptr<MemoryBlockDevice> handle = device.share();
    HFSPlusCheckDeviceReader reader(*handle);
    return checkHFSPlusVolume(reader, options);
}
