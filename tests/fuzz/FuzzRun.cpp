#include "fuzz/FuzzRun.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusExtents.h"
#include "HFSPlus/HFSPlusFileForkSet.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "Tasks/HFSPlusBitmapTask.h"
#include "Tasks/HFSPlusFragInfoTask.h"
#include "Tasks/HFSPlusMapTask.h"
#include "Tasks/HFSPlusScanTask.h"
#include "Tasks/TaskRun.h"
#include "fuzz/FuzzJudge.h"
#include "fuzz/FuzzScript.h"
#include "support/BootCachePlaylist.h"
#include "support/WatchedBlockDevice.h"

namespace {

using Lines = std::vector<std::string>;

/** The bytes of an input, opened the way the program opens a device. */
struct OpenedInput {
    OpenedInput(std::span<const uint8_t> input, FuzzScript::Volumes volumes)
        : script(input, volumes), memory(script.makeVolume())
    {
        device = VZDefragVolume::initWithBlockDevice(
            "/dev/memory", std::make_unique<WatchedBlockDevice>(memory->share(), watch));
        bool valid = false;
        if (device == nullptr) {
            error = "no device";
        } else if (!HFSPlusVolume::probe(*device, valid, &failure) || !valid) {
            error = failure != nullptr ? failure->description() : "not valid";
        } else {
            volume = HFSPlusVolume::initWithVolume(*device, &failure);
            error = volume != nullptr ? "" : failure->description();
        }
    }

    /** What is wrong with a volume that was not opened, or that was only read. */
    [[nodiscard]] std::string judgeUnchanged() const
    {
        if (watch->isEndless()) {
            return "endless";
        }
        if (volume == nullptr && error.empty()) {
            return "refused without a reason";
        }
        return memory->writeCount() == 0 ? "" : "written to";
    }

    FuzzScript script;
    std::unique_ptr<MemoryBlockDevice> memory;
    std::shared_ptr<WatchedBlockDevice::Watch> watch =
        std::make_shared<WatchedBlockDevice::Watch>();
    std::unique_ptr<VZDefragVolume> device;
    std::unique_ptr<VZDefragError> failure;
    std::unique_ptr<HFSPlusVolume> volume;  // null when it could not be opened
    std::string error;
};

bool isWhole(const Lines& lines, const std::string& name)
{
    return lines.size() >= 2 && lines.front() == name + ",START" && lines.back() == name + ",DONE";
}

template <typename Task>
std::string runReading(HFSPlusVolume& volume, const std::string& name, const std::string& words)
{
    return isWhole(runReport<Task>(volume, name + words), name)
               ? ""
               : name + ": START or DONE is missing";
}

/** What else reads the volume, on behalf of no command's own. */
std::string readHotFiles(HFSPlusVolume& volume)
{
    std::ignore = volume.immutableForkIDs(true, nullptr);  // may well fail
    return "";
}

/** The report that @p choice asks for. */
std::string runReportOfChoice(HFSPlusVolume& volume, uint8_t choice, uint8_t detail)
{
    static const std::array<std::string, 8> kMapWords = {
        " -i 20",
        " -i 2 -i 16 -i 17 -i 25",
        " -p /",
        " -p /folder\\ 1/file\\ 1",
        " -p /pieces -p /small",
        " -p /Applications/A.app/run -p /Applications/A.app/help/page",
        " -i 4294967295 -p /a/b/c/d",
        " -i 30 -p /one -p /two",
    };
    switch (choice % 8) {
        case 0:
            return readHotFiles(volume);
        case 1:
            return runReading<HFSPlusScanTask>(volume, "SCAN", "");
        case 2:
            return runReading<HFSPlusScanTask>(volume, "SCAN", " -f");
        case 3:
            return runReading<HFSPlusScanTask>(volume, "SCAN", " --frag-only -f");
        case 4:
            return runReading<HFSPlusFragInfoTask>(volume, "FRAGINFO", "");
        case 5:
            return runReading<HFSPlusMapTask>(volume, "MAP", kMapWords[detail % 8]);
        case 6:
            return runReading<HFSPlusMapTask>(volume, "MAP",
                                              " -i " + std::to_string(uint32_t{detail} + 1));
        default:
            return runReading<HFSPlusBitmapTask>(
                volume, "BITMAP", (detail % 2 == 0 ? " " : " -m ") + std::to_string(1 + detail));
    }
}

std::string runReports(std::span<const uint8_t> input, FuzzScript::Volumes volumes)
{
    const OpenedInput opened(input, volumes);
    if (opened.volume == nullptr) {
        return opened.judgeUnchanged();
    }
    const uint8_t choices = opened.script.choice(0);
    std::string wrong = runReportOfChoice(*opened.volume, choices, opened.script.choice(1));
    if (wrong.empty() && (choices & 8) != 0) {
        wrong = runReportOfChoice(*opened.volume, choices >> 4, opened.script.choice(2));
    }
    return wrong.empty() ? opened.judgeUnchanged() : wrong;
}

/** Whether a run with the playlist ends the process because the file is no playlist, as it has to.
 */
bool hasForeignPlaylist(const OpenedInput& opened)
{
    HFSPlusCatalogLookupRecord record;
    if (!opened.volume->catalog().copyRecordForWholePath(record, kPlaylistPath, nullptr) ||
        !record.isFile()) {
        return false;
    }
    std::array<uint8_t, 4> magic{};
    const uint64_t block = record.file.dataFork.extents[0].startBlock;
    opened.memory->peek(magic.data(), magic.size(),
                        opened.script.volume().survey->result().volumeOffset +
                            block * opened.volume->hostVolumeHeader().blockSize);
    const std::array<uint8_t, 4> kMagic = {0xA1, 0xB2, 0xC3, 0xD6};
    return !std::ranges::equal(magic, kMagic) &&
           !std::equal(magic.rbegin(), magic.rend(), kMagic.begin());
}

std::string runMoving(std::span<const uint8_t> input, const std::string& command,
                      FuzzScript::Volumes volumes)
{
    OpenedInput opened(input, volumes);
    if (opened.volume == nullptr) {
        return opened.judgeUnchanged();
    }
    const auto before = opened.script.makeVolume();
    HFSPlusVolume& volume = *opened.volume;
    const FuzzScript& script = opened.script;
    Lines words = {command};
    const bool usesPlaylist =
        command == "DEFRAG" && (script.choice(0) & 1) != 0 && !hasForeignPlaylist(opened);
    if (usesPlaylist) {
        words.insert(words.end(), {"-p", (script.choice(0) & 2) != 0 ? "boot,app" : "boot"});
    } else if (command == "DEFRAG" && (script.choice(0) & 2) != 0) {
        words.insert(words.end(), {"--profile", "app"});
    }
    if ((script.choice(0) & 4) != 0) {
        volume.catalog().setNodeCacheSize(8192);
        volume.extents().setNodeCacheSize(8192);
    }
    const uint64_t bufferSize =
        (1 + uint64_t{script.choice(1)}) * volume.hostVolumeHeader().blockSize;
    const DefragOutput output = runDefrag(volume, bufferSize, words, [&](HFSPlusDefragTask& task) {
        const bool hasData = script.volume().hasData;
        if (hasData && (script.choice(0) & 8) != 0) {
            task.setSpanMemory(32 * (20 + uint64_t{script.choice(2)}));
        } else if (script.choice(2) != 0 || !hasData) {
            opened.watch->call = [&task] { task.abort(); };
            opened.watch->callAt = opened.watch->operations + 1 + 2 * script.choice(2);
        }
    });
    opened.volume.reset();  // what it writes then is part of the run
    if (opened.watch->isEndless()) {
        return "endless";
    }
    return judgeFuzzedRun({.before = *before,
                           .after = *opened.memory,
                           .output = output,
                           .hasData = script.volume().hasData,
                           .emptiesPlaylist = usesPlaylist});
}

/** Sample volumes take far longer than small ones, so a target of their own has them. */
std::string runOnSample(std::span<const uint8_t> input)
{
    using Volumes = FuzzScript::Volumes;
    switch (FuzzScript(input, Volumes::kSamples).choice(0) >> 5 & 3) {
        case 0:
            return runMoving(input, "DEFRAG", Volumes::kSamples);
        case 1:
            return runMoving(input, "COMPACT", Volumes::kSamples);
        default:
            return runReports(input, Volumes::kSamples);
    }
}

}  // namespace

std::string runFuzzInput(FuzzTarget target, std::span<const uint8_t> input)
{
    switch (target) {
        case FuzzTarget::kReading:
            return runReports(input, FuzzScript::Volumes::kBuilt);
        case FuzzTarget::kDefrag:
            return runMoving(input, "DEFRAG", FuzzScript::Volumes::kBuilt);
        case FuzzTarget::kCompact:
            return runMoving(input, "COMPACT", FuzzScript::Volumes::kBuilt);
        case FuzzTarget::kSamples:
            return runOnSample(input);
    }
    return "no such target";
}
