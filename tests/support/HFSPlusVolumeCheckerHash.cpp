#include <algorithm>
#include <fstream>
#include <vector>

#include "support/HFSPlusVolumeChecker.h"
#include "support/SHA256.h"

namespace {

constexpr uint64_t kPieceSize = uint64_t{1} << 20;
constexpr const char* kLinesHashMark = "# all-lines-sha256 ";

/** The fields of a manifest line; the path is the rest and is not wanted. */
constexpr size_t kFieldCount = 7;

std::vector<std::string> fieldsOf(const std::string& line)
{
    std::vector<std::string> fields;
    size_t start = 0;
    while (fields.size() < kFieldCount && start < line.size()) {
        const size_t end = std::min(line.find(' ', start), line.size());
        fields.push_back(line.substr(start, end - start));
        start = end + 1;
    }
    return fields;
}

}  // namespace

std::string hashFork(HFSPlusCheckReader& reader, const HFSPlusCheckResult& result,
                     const HFSPlusCheckedFork& fork, bool hashBlocks)
{
    SHA256 hash;
    std::vector<uint8_t> piece;
    uint64_t left = hashBlocks ? uint64_t{fork.totalBlocks} * result.blockSize : fork.logicalSize;
    for (const HFSPlusCheckedExtent& extent : fork.extents) {
        uint64_t offset = result.volumeOffset + uint64_t{extent.startBlock} * result.blockSize;
        uint64_t extentLeft = std::min(left, uint64_t{extent.blockCount} * result.blockSize);
        left -= extentLeft;
        while (extentLeft > 0) {
            piece.resize(static_cast<size_t>(std::min(kPieceSize, extentLeft)));
            if (!reader.read(piece.data(), piece.size(), offset)) {
                return "unreadable";
            }
            hash.update(piece.data(), piece.size());
            offset += piece.size();
            extentLeft -= piece.size();
        }
    }
    return left == 0 ? hash.finish() : "unreadable";
}

HFSPlusForkHashes hashForks(HFSPlusCheckReader& reader, const HFSPlusCheckResult& result,
                            const HFSPlusHashOptions& options)
{
    HFSPlusForkHashes hashes;
    for (const HFSPlusCheckedFork& fork : result.forks) {
        if (!fork.isSpecial || options.includeSpecial) {
            hashes[{fork.cnid, fork.forkType}] = hashFork(reader, result, fork, options.hashBlocks);
        }
    }
    return hashes;
}

std::optional<HFSPlusForkHashes> loadManifest(const std::string& path)
{
    std::ifstream file(path);
    HFSPlusForkHashes hashes;
    SHA256 allLines;
    std::string wantedHash;
    std::string line;
    while (std::getline(file, line)) {
        if (line.starts_with(kLinesHashMark)) {
            wantedHash = line.substr(std::string(kLinesHashMark).size());
        }
        if (line.empty() || line[0] < 'a' || line[0] > 'z') {
            continue;
        }
        line += '\n';
        allLines.update(line.data(), line.size());
        const std::vector<std::string> fields = fieldsOf(line);
        if (fields.size() != kFieldCount) {
            return std::nullopt;
        }
        if (fields[0] != "f" && fields[0] != "l" && fields[0] != "r") {
            continue;
        }
        uint32_t cnid = 0;
        for (const char digit : fields[1]) {
            cnid = cnid * 10 + static_cast<uint32_t>(digit - '0');
        }
        const uint8_t forkType =
            fields[0] == "r" ? kHFSPlusCheckResourceFork : kHFSPlusCheckDataFork;
        hashes[{cnid, forkType}] = fields[6];
    }
    // A manifest that was cut off would prove too little.
    if (wantedHash.empty() || allLines.finish() != wantedHash) {
        return std::nullopt;
    }
    return hashes;
}
