#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Tasks/HFSPlusDefragTask.h"

/** One move as a line of output tells it. */
struct DefragMove {
    int percent = 0;
    uint32_t source = 0;
    uint32_t destination = 0;
    uint32_t count = 0;
    uint32_t allocatedBlocks = 0;
};

/** What a run of DEFRAG or COMPACT printed. */
struct DefragOutput {
    std::vector<std::string> lines;
    std::string command = "DEFRAG";

    [[nodiscard]] std::string error() const;
    [[nodiscard]] bool isWhole() const;
    [[nodiscard]] std::vector<DefragMove> moves() const;
};

/** Runs the command of the given words, DEFRAG or COMPACT, on @p volume, in memory, to its end.
 *
 *  Cycles carry @p bufferSize bytes, since the default would take a small volume whole.
 */
[[nodiscard]] DefragOutput runDefrag(
    HFSPlusVolume& volume, uint64_t bufferSize, std::vector<std::string> words = {"DEFRAG"},
    const std::function<void(HFSPlusDefragTask&)>& prepare = nullptr);
