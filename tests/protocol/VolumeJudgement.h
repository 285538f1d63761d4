#pragma once

#include <string>
#include <vector>

#include "support/HFSPlusDataOrder.h"

/** What an image holds. */
struct VolumeState {
    HFSPlusCheckResult check;
    HFSPlusForkHashes hashes;  // of all blocks of every fork of the catalog

    /** The forks that a run may move and that lie in several extents. */
    std::vector<HFSPlusCheckedFork> fragments;
    /** What a run may move, in the order in which it lies there. */
    std::vector<HFSPlusDataRun> order;
    /** The free runs among that. */
    std::vector<HFSPlusCheckedExtent> gaps;
};

/** Reads the volume in the image at @p path; a failure of the test when it cannot be opened. */
[[nodiscard]] VolumeState readVolumeState(const std::string& path);

/** The check alone, which is quick, and the fragments. */
[[nodiscard]] VolumeState readVolumeStateWithoutHashes(const std::string& path);

/** Hashes of the bytes of every fork, its slack blocks aside, as manifests give them. */
[[nodiscard]] HFSPlusForkHashes readForkHashes(const std::string& path);

/** Whether the format's own checker accepts the image; true, and said so, where it is missing. */
[[nodiscard]] bool isAcceptedByFsck(const std::string& path);

/** Expects a volume that both checkers accept, with the numbers that it had @p before. */
void expectSoundAsBefore(const std::string& path, const VolumeState& now,
                         const VolumeState& before);

/** Expects that besides, every block of every fork has the content that it had @p before. */
void expectUnharmed(const std::string& path, const VolumeState& before);

/** Copies an image, its holes as holes. */
void copyImage(const std::string& source, const std::string& target);
