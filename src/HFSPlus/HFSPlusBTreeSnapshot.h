#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "HFSPlus/HFSPlusBTreeFile.h"

/** A tree as it was when a transaction began: header record, map and the nodes taken since. */
struct HFSPlusBTreeFile::Snapshot {
    struct NodeImage {
        std::vector<uint8_t> bytes;
        bool dirty = false;
    };

    BTHostHeaderRec hostHeaderRec;
    std::vector<uint8_t> freeNodeMap;
    bool updated = false;
    bool heldWrites = false;
    std::unordered_map<uint32_t, NodeImage> nodes;  // by index
};
