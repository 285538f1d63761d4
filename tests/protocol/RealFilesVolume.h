#pragma once

#include <cstdint>
#include <string>

/** What a volume of this machine's own files is to be like. */
struct RealFilesOptions {
    uint64_t volumeSize = 0;  // bytes
    uint64_t filesSize = 0;   // bytes, of all files together, roughly
    uint32_t seed = 0;        // of the choice of files and of their places
};

/** Writes a volume of 4 KiB blocks with files that the machine has, most of them in many pieces
 *  that lie about in any order. A failure of the test when that does not succeed.
 */
void makeRealFilesVolume(const std::string& path, const RealFilesOptions& options);

/** What a fork of the volume at @p path differs in from what it is at @p originalPath.
 *
 *  Both are read through the independent checker's extents, byte by byte and to the ends of the
 *  last blocks. Empty when all forks of all files are there and the same.
 */
[[nodiscard]] std::string differenceOfForks(const std::string& path,
                                            const std::string& originalPath);
