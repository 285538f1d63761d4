#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "support/HFSPlusVolumeChecker.h"

/** What other programs that read the format say of an image; none of our code has a hand in it. */

/** A file or folder in another program's listing. */
struct ListedObject {
    std::string path;  // "/folder/name", control characters as "^"
    bool isFolder = false;
};

/** The runs of a file's forks as far as their sizes go, in fork order. */
struct ListedForks {
    uint64_t dataSize = 0;      // bytes
    uint64_t resourceSize = 0;  // bytes
    std::vector<HFSPlusCheckedExtent> data;
    std::vector<HFSPlusCheckedExtent> resource;
};

/** Whether the programs are installed (Debian's sleuthkit). */
[[nodiscard]] bool otherReadersAreInstalled();

/** Everything that `fls` finds, by catalog node ID; special files and the root folder aside. */
[[nodiscard]] std::map<uint32_t, ListedObject> listedObjects(const std::string& image);

/** What `istat` says of file @p cnid. */
[[nodiscard]] ListedForks listedForks(const std::string& image, uint32_t cnid);

/** The number of free blocks that `fsstat` reads. */
[[nodiscard]] uint32_t listedFreeBlocks(const std::string& image);
