#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "ControlMap.h"

/** A run of allocation blocks. */
struct ControlExtent {
    uint32_t start = 0;
    uint32_t count = 0;

    bool operator==(const ControlExtent& other) const = default;
};

/** One file as SCAN lists it. */
struct ControlFile {
    uint32_t folderID = 0;
    uint32_t fileID = 0;
    std::string path;     // UTF-8 as on disk, control characters and all; from the root, "/a/b"
    int64_t created = 0;  // seconds since 1970
    int64_t changed = 0;
    int64_t read = 0;
    uint32_t type = 0;  // Finder type and creator, four characters each
    uint32_t creator = 0;
    std::vector<ControlExtent> extents;  // of the data fork, then of the resource fork
    bool isFragmented = false;           // a fork is in more than one piece

    [[nodiscard]] uint64_t blockCount() const;
};

/** Free runs of at least so many blocks, and less than twice as many. */
struct ControlRunClass {
    uint64_t runs = 0;
    uint64_t blocks = 0;
};

/** The free space of a volume. Class i holds the runs of 2^i to 2^(i+1) - 1 blocks. */
struct ControlFreeSpace {
    uint64_t blocks = 0;
    uint64_t runs = 0;
    uint32_t largestRun = 0;
    std::array<ControlRunClass, 32> classes = {};
};

/** What may keep DEFRAG and COMPACT from working on a volume. */
struct ControlReadiness {
    uint64_t neededBlocks = 0;  // free blocks that the engine needs
    bool isEnough = false;
};

/** How DEFRAG's and COMPACT's work shows: FRAGINFO's line, and what SCAN's lines add up to. */
struct ControlFragmentation {
    uint64_t files = 0;       // files with a fork in pieces
    uint64_t leastForks = 0;  // forks in pieces; the protocol does not part a file's two
    uint64_t mostForks = 0;
    uint64_t extents = 0;           // of all files
    uint32_t fragmentedBlocks = 0;  // FRAGINFO: blocks of forks in pieces
    uint32_t consideredBlocks = 0;  // FRAGINFO: blocks of all forks
    uint32_t percent = 0;           // FRAGINFO, recomputed without its 32-bit wrap
};

/** All that is known of a volume at one time. Everything comes from vzdefrag's answers. */
struct ControlFigures {
    std::string image;   // as given on the command line
    std::string format;  // "HFS Plus" or "HFSX"
    bool isJournaled = false;
    uint32_t blockSize = 0;  // bytes
    uint32_t totalBlocks = 0;
    uint64_t fileCount = 0;
    uint64_t fileBlocks = 0;      // of all forks of all files
    uint32_t firstFreeBlock = 0;  // BITMAP's, UINT32_MAX if there is none
    uint32_t lastUsedBlock = 0;
    ControlFragmentation fragmentation;
    ControlFreeSpace freeSpace;
    ControlReadiness readiness;
    std::vector<ControlFile> worst;  // in the order asked for, the worst first
    ControlMap map;

    [[nodiscard]] uint64_t usedBlocks() const { return totalBlocks - freeSpace.blocks; }
    /** Blocks in use that belong to no file. */
    [[nodiscard]] uint64_t ownBlocks() const
    {
        return usedBlocks() - std::min(usedBlocks(), fileBlocks);
    }
    [[nodiscard]] uint64_t bytes(uint64_t blocks) const { return blocks * blockSize; }
};
