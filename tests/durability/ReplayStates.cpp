#include "durability/ReplayStates.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <random>

#include "support/BootCachePlaylist.h"
#include "support/TestSeed.h"

namespace {

constexpr uint64_t kMostPrinted = 10;
constexpr size_t kMostOfFault = 400;  // characters

// Every state that is opened would give its warnings.
const int kQuietLog = setenv("KLDebugLevel", "err", 0);

/** The volumes of one pass: at first those that are listed, then others like them. */
std::vector<ReplayVolume> volumesOfPass(uint32_t pass, std::mt19937& random)
{
    std::vector<ReplayVolume> volumes = replayVolumes();
    if (pass == 0) {
        return volumes;
    }
    for (ReplayVolume& volume : volumes) {
        varyReplay(volume, random);
    }
    for (uint32_t count = 0; count < 30; ++count) {
        volumes.push_back(randomReplayVolume(random));
    }
    return volumes;
}

ReplayCase replayCase(const ReplayVolume& volume, const std::string& command, bool hasRollbackFile)
{
    ReplayRun run = runRecorded(volume, command, hasRollbackFile);
    CrashStates states(*run.before, std::nullopt, run.events);
    ReplayExpectation expected(*run.before);
    if (command == "DEFRAG" && volume.profiles.find("boot") != std::string::npos) {
        expected.allowEmpty(kPlaylistID);
    }
    return {volume.name + ", " + command, std::move(run), std::move(states), std::move(expected)};
}

}  // namespace

void ReplayCount::addLost(const ReplayCase& given, const std::string& state,
                          const std::string& fault)
{
    ++_states;
    if (++_lost <= kMostPrinted) {
        std::cout << "LOST " << given.name << ": " << state << ":" << fault.substr(0, kMostOfFault)
                  << std::endl;
    }
}

void forEachReplay(uint64_t quickStates, bool hasRollbackFile, const ReplayCount& count,
                   const ReplayJudge& judge)
{
    const uint32_t seed = testSeed(1);
    const uint64_t wanted = testRounds(static_cast<uint32_t>(quickStates));
    for (uint32_t pass = 0; count.states() < wanted; ++pass) {
        std::mt19937 random(seed + pass);
        const std::vector<ReplayVolume> volumes = volumesOfPass(pass, random);
        const uint64_t each = std::max<uint64_t>(1, wanted / (2 * volumes.size()));
        const uint64_t before = count.states();
        for (const ReplayVolume& volume : volumes) {
            for (const char* command : {"DEFRAG", "COMPACT"}) {
                if (HFSPlusVolumeBuilder builder = volume.builder; !builder.build()) {
                    ADD_FAILURE() << volume.name << ": " << builder.error();
                    continue;
                }
                const ReplayCase given = replayCase(volume, command, hasRollbackFile);
                judge(given, each, random());
            }
        }
        if (count.states() == before) {
            ADD_FAILURE() << "no states to judge";
            return;
        }
    }
}

void forPrefixes(uint64_t last, uint64_t states, uint64_t seed,
                 const std::function<void(uint64_t place)>& visit)
{
    const uint64_t count = last + 1;
    const uint64_t wanted = std::min(states, count);
    for (uint64_t turn = 0; turn < wanted; ++turn) {
        // One from each of so many equal parts.
        const uint64_t first = turn * count / wanted;
        const uint64_t end = (turn + 1) * count / wanted;
        visit(first + seed % (end - first));
    }
}
