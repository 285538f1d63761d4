#include "durability/ReplayStates.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <random>

#include "support/BootCachePlaylist.h"
#include "support/TestSeed.h"

namespace {

constexpr uint64_t kMostPrinted = 10;
constexpr size_t kMostOfFault = 400;  // characters

// Every state that is opened would give its warnings.
const int kQuietLog = setenv("KLDebugLevel", "err", 0);

/** A volume, and what is to be done with it. */
struct Assignment {
    ReplayVolume volume;
    ReplayCommands commands;
};

/** What the first pass does: each command on each volume that is listed, and on some of them more.
 */
std::vector<Assignment> listedAssignments()
{
    std::vector<ReplayVolume> volumes = replayVolumes();
    std::ranges::move(volumesWithAWrongBitmap(), std::back_inserter(volumes));
    std::vector<Assignment> assignments;
    for (size_t index = 0; index < volumes.size(); ++index) {
        const ReplayVolume& volume = volumes[index];
        assignments.push_back({volume, {{"DEFRAG"}}});
        assignments.push_back({volume, {{"COMPACT"}}});
        if (index % 5 == 1) {
            assignments.push_back({volume, {{"DEFRAG", "COMPACT"}}});
        } else if (index % 5 == 3) {
            assignments.push_back({volume, {{index % 2 != 0 ? "COMPACT" : "DEFRAG"}, 10 + index}});
        }
    }
    return assignments;
}

/** What any other pass does: other volumes, commands and ways to run. */
std::vector<Assignment> randomAssignments(std::mt19937& random)
{
    constexpr uint32_t kOfAnyLayout = 40;
    std::vector<Assignment> assignments = listedAssignments();
    for (Assignment& given : assignments) {
        varyReplay(given.volume, random);
    }
    for (uint32_t count = 0; count < kOfAnyLayout; ++count) {
        const char* first = random() % 2 != 0 ? "DEFRAG" : "COMPACT";
        const char* second = random() % 2 != 0 ? "DEFRAG" : "COMPACT";
        ReplayCommands commands = {{first}};
        if (random() % 3 == 0) {
            commands.names.emplace_back(second);
        }
        commands.abortAfter = random() % 3 == 0 ? 1 + random() % 200 : 0;
        assignments.push_back({randomReplayVolume(random), std::move(commands)});
    }
    return assignments;
}

ReplayCase replayCase(const Assignment& given, bool hasRollbackFile)
{
    ReplayRun run = runRecorded(given.volume, given.commands, hasRollbackFile);
    CrashStates states(*run.before, std::nullopt, run.events);
    ReplayExpectation expected(*run.before);
    if (given.volume.profiles.find("boot") != std::string::npos) {
        expected.allowEmpty(kPlaylistID);
    }
    return {given.volume, given.volume.name + ", " + given.commands.description(), std::move(run),
            std::move(states), std::move(expected)};
}

}  // namespace

ReplayCount::~ReplayCount()
{
    std::cout << "REPLAY states=" << _states << " lost=" << _lost << " " << _what << std::endl;
}

void ReplayCount::add(const ReplayCase& given, const std::string& state, const std::string& fault)
{
    ++_states;
    if (!fault.empty() && ++_lost <= kMostPrinted) {
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
        const std::vector<Assignment> assignments =
            pass == 0 ? listedAssignments() : randomAssignments(random);
        const uint64_t each = (wanted - count.states()) / assignments.size() + 1;
        const uint64_t before = count.states();
        for (const Assignment& given : assignments) {
            if (HFSPlusVolumeBuilder builder = given.volume.builder; !builder.build()) {
                ADD_FAILURE() << given.volume.name << ": " << builder.error();
                continue;
            }
            judge(replayCase(given, hasRollbackFile), each, random());
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
