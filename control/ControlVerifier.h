#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ControlFileSink.h"
#include "ControlStatus.h"

/** Hashes the blocks of every file of a volume, in file order, from the bytes of the image.
 *
 *  Whole blocks are hashed, the ends behind a file's last byte too.
 */
class ControlVerifier : public ControlFileSink {
public:
    using Digest = std::array<unsigned char, 32>;
    /** Told how many of how many blocks are done; false stops. */
    using Progress = std::function<bool(uint64_t done, uint64_t total)>;

    /** The files' digests. */
    using Digests = std::map<uint32_t, Digest>;

    /** Leaves the file at @p path out: one that a run changes on purpose. */
    void leaveOut(std::string path) { _leftOut = std::move(path); }

    void addFile(const ControlFile& file) override;

    /** Reads all files' blocks from @p image; false with an error, or when @p progress says so. */
    [[nodiscard]] bool hashFiles(const std::string& image, uint32_t blockSize, Digests& digests,
                                 const Progress& progress, ControlErrorSlot error) const;

private:
    struct File {
        uint32_t fileID = 0;
        uint32_t extentCount = 0;
    };

    std::string _leftOut;
    std::vector<File> _files;
    std::vector<ControlExtent> _extents;  // of all files, one after the other
    uint64_t _blocks = 0;
};

/** The files that differ between two sets: missing, new, or with other bytes. */
[[nodiscard]] std::vector<uint32_t> differences(const ControlVerifier::Digests& before,
                                                const ControlVerifier::Digests& after);

/** Where the HFS Plus volume in the image begins, in bytes: behind an HFS wrapper or at 0.
 *
 *  @p first holds the first 2 KiB of the image (TN1150, "HFS Wrapper").
 */
[[nodiscard]] uint64_t volumeStartIn(const std::array<unsigned char, 2048>& first);
