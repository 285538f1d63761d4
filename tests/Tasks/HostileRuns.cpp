#include "Tasks/HostileRuns.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <sstream>
#include <vector>

#include "HFSPlus/HFSPlusVolume.h"
#include "Tasks/DefragRun.h"
#include "Tasks/HFSPlusBitmapTask.h"
#include "Tasks/HFSPlusFragInfoTask.h"
#include "Tasks/HFSPlusMapTask.h"
#include "Tasks/HFSPlusScanTask.h"
#include "Tasks/TaskRun.h"
#include "fuzz/FuzzJudge.h"
#include "support/WatchedBlockDevice.h"

namespace {

constexpr uint64_t kCopyBufferSize = 1 << 20;  // bytes

/** A number of kilobytes from this process's status, in bytes. */
uint64_t statusBytes(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == name) {
            uint64_t kilobytes = 0;
            status >> kilobytes;
            return kilobytes * 1024;
        }
    }
    ADD_FAILURE() << name << " is not told";
    return 0;
}

/** How much the resident memory rises above what it was. */
class MemoryRise {
public:
    MemoryRise()
    {
        std::ofstream("/proc/self/clear_refs") << "5";  // the peak is what there is now
        _before = statusBytes("VmRSS:");
    }
    [[nodiscard]] uint64_t bytes() const
    {
        const uint64_t peak = statusBytes("VmHWM:");
        return peak > _before ? peak - _before : 0;
    }

private:
    uint64_t _before = 0;
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsTold = false;  // a sanitizer's own memory is no concern of ours
#else
constexpr bool kMemoryIsTold = true;
#endif

using Command = std::function<DefragOutput(HFSPlusVolume& volume)>;

template <typename Task>
Command report(const std::string& line)
{
    return [line](HFSPlusVolume& volume) {
        return DefragOutput{runReport<Task>(volume, line), line.substr(0, line.find(' '))};
    };
}

Command mover(const std::vector<std::string>& words)
{
    return [words](HFSPlusVolume& volume) { return runDefrag(volume, kCopyBufferSize, words); };
}

std::vector<std::pair<std::string, Command>> commands()
{
    // Every ID that the volumes of the tests use, and some that they do not.
    std::string everyFile = "MAP -i 4294967295";
    for (uint32_t cnid = 1; cnid < 80; ++cnid) {
        everyFile += " -i " + std::to_string(cnid);
    }
    return {{"SCAN", report<HFSPlusScanTask>("SCAN -f")},
            {"FRAGINFO", report<HFSPlusFragInfoTask>("FRAGINFO")},
            {"MAP", report<HFSPlusMapTask>(everyFile)},
            {"MAP by path", report<HFSPlusMapTask>("MAP -p /folder/pieces -p /small -p /a/b")},
            {"BITMAP 1", report<HFSPlusBitmapTask>("BITMAP 1")},
            {"BITMAP 3", report<HFSPlusBitmapTask>("BITMAP -m 3")},
            {"BITMAP 64", report<HFSPlusBitmapTask>("BITMAP 64")},
            {"DEFRAG", mover({"DEFRAG"})},
            {"COMPACT", mover({"COMPACT"})},
            {"PROFILE", mover({"DEFRAG", "--profile", "boot,app"})}};
}

/** Runs one command on a copy of the volume. */
class HostileRun {
public:
    explicit HostileRun(const MemoryBlockDevice& damaged)
        : _before(damaged),
          _memory(damaged.clone()),
          _watch(std::make_shared<WatchedBlockDevice::Watch>())
    {
    }

    void run(const std::string& name, const Command& command, HostileRuns& runs)
    {
        SCOPED_TRACE(name);
        const MemoryRise rise;
        if (const auto volume = _open(runs.openError)) {
            _output = command(*volume);
            runs.errors[name] = _output.error();
        }
        // The volume is closed: what it writes then is part of the run.
        runs.memory = std::max(runs.memory, rise.bytes());
        EXPECT_FALSE(_watch->isEndless());
        _judge(name, runs);
    }

private:
    [[nodiscard]] std::unique_ptr<HFSPlusVolume> _open(std::string& openError)
    {
        _device = VZDefragVolume::initWithBlockDevice(
            "/dev/memory", std::make_unique<WatchedBlockDevice>(_memory->share(), _watch));
        std::unique_ptr<VZDefragError> failure;
        bool valid = false;
        if (!HFSPlusVolume::probe(*_device, valid, &failure) || !valid) {
            openError = failure != nullptr ? failure->description() : "not valid";
            return nullptr;
        }
        auto volume = HFSPlusVolume::initWithVolume(*_device, &failure);
        openError = volume == nullptr ? failure->description() : "";
        return volume;
    }

    void _judge(const std::string& name, const HostileRuns& runs)
    {
        const bool moves = name == "DEFRAG" || name == "COMPACT" || name == "PROFILE";
        if (!runs.openError.empty() || !moves ||
            (!runs.errors.at(name).empty() && _output.moves().empty())) {
            EXPECT_TRUE(_memory->hasSameBytesAs(_before)) << runs.error();
        }
        if (!runs.openError.empty()) {
            return;
        }
        EXPECT_TRUE(_output.isWhole());
        if (moves) {
            EXPECT_EQ(judgeFuzzedRun({.before = _before,
                                      .after = *_memory,
                                      .output = _output,
                                      .emptiesPlaylist = name == "PROFILE"}),
                      "");
        }
    }

    const MemoryBlockDevice& _before;
    std::unique_ptr<MemoryBlockDevice> _memory;
    std::shared_ptr<WatchedBlockDevice::Watch> _watch;
    std::unique_ptr<VZDefragVolume> _device;
    DefragOutput _output;
};

}  // namespace

std::string HostileRuns::error() const
{
    if (!openError.empty()) {
        return openError;
    }
    const std::string& defrag = errors.at("DEFRAG");
    const auto compact = errors.find("COMPACT");
    return compact == errors.end() || compact->second == defrag
               ? defrag
               : "DEFRAG: " + defrag + " COMPACT: " + compact->second;
}

namespace {

HostileRuns runCommands(const MemoryBlockDevice& damaged, bool withPictures)
{
    HostileRuns runs;
    for (const auto& [name, command] : commands()) {
        if (!withPictures && name.starts_with("BITMAP")) {
            continue;
        }
        HostileRun(damaged).run(name, command, runs);
        if (!runs.openError.empty()) {
            break;  // no command runs on a volume that was not opened
        }
    }
    if (kMemoryIsTold) {
        EXPECT_LT(runs.memory, kMostHostileMemory + kCopyBufferSize);
    }
    return runs;
}

}  // namespace

HostileRuns runEveryCommand(const MemoryBlockDevice& damaged)
{
    return runCommands(damaged, true);
}

HostileRuns runEveryCommandButBitmap(const MemoryBlockDevice& damaged)
{
    return runCommands(damaged, false);
}
