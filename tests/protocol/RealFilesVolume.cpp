#include "protocol/RealFilesVolume.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "support/HFSPlusVolumeBuilder.h"
#include "support/HFSPlusVolumeChecker.h"

namespace {

constexpr uint32_t kBlockSize = 4096;   // bytes
constexpr uint32_t kLongestPiece = 32;  // blocks
constexpr size_t kPieceOfComparison = size_t{1} << 20;

/** A file of this machine and where its copy lies on the volume. */
struct RealFile {
    std::string path;
    uint64_t size = 0;  // bytes
    HFSPlusBuilderExtents extents = {};
};

/** Whether the name needs no conversion. */
bool isPlainPath(const std::string& path)
{
    return std::ranges::all_of(path, [](char character) {
        return character > ' ' && character < 0x7F && character != ':';
    });
}

/** A path on the volume that no other file and no folder has there, where case does not count. */
std::string volumePath(const std::string& path, size_t number)
{
    const size_t name = path.rfind('/') + 1;
    std::string folder = path.substr(0, name);
    std::ranges::transform(folder, folder.begin(), [](char character) {
        return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                    : character;
    });
    // Nothing that was found has a blank in its name.
    return folder + std::to_string(number) + " " + path.substr(name);
}

/** More than enough files of @p wanted bytes, none of which is a large part of them. */
std::vector<RealFile> findFiles(uint64_t wanted)
{
    using Iterator = std::filesystem::recursive_directory_iterator;
    std::vector<RealFile> files;
    uint64_t found = 0;
    for (const char* const folder : {"/usr/bin", "/usr/lib"}) {
        std::error_code error;
        Iterator entry(folder, std::filesystem::directory_options::skip_permission_denied, error);
        for (; !error && entry != Iterator() && found < 4 * wanted; entry.increment(error)) {
            std::error_code unreadable;
            const std::string path = entry->path().string();
            if (entry->is_symlink(unreadable) || !entry->is_regular_file(unreadable) ||
                !isPlainPath(path) || ::access(path.c_str(), R_OK) != 0) {
                continue;
            }
            const uint64_t size = entry->file_size(unreadable);
            if (!unreadable && size > 0 && size < wanted / 8) {
                files.push_back({.path = path, .size = size});
                found += size;
            }
        }
    }
    std::ranges::sort(files, {}, &RealFile::path);
    return files;
}

std::vector<RealFile> chooseFiles(uint64_t wanted, std::mt19937& random)
{
    std::vector<RealFile> files = findFiles(wanted);
    std::ranges::shuffle(files, random);
    uint64_t chosen = 0;
    size_t count = 0;
    while (count < files.size() && chosen < wanted) {
        chosen += files[count++].size;
    }
    files.resize(count);
    return files;
}

/** Deals the blocks from @p block to @p end out to @p files, with free runs between the pieces. */
void placeFiles(std::vector<RealFile>& files, uint32_t block, uint32_t end, std::mt19937& random)
{
    struct Piece {
        size_t file = 0;
        size_t index = 0;
    };
    std::vector<Piece> pieces;
    uint64_t used = 0;
    for (size_t file = 0; file < files.size(); ++file) {
        uint64_t left = (files[file].size + kBlockSize - 1) / kBlockSize;
        used += left;
        const bool isWhole = random() % 4 == 0;
        while (left > 0) {
            const uint64_t length =
                isWhole ? left : std::min<uint64_t>(left, 1 + random() % kLongestPiece);
            pieces.push_back({file, files[file].extents.size()});
            files[file].extents.push_back({0, static_cast<uint32_t>(length)});
            left -= length;
        }
    }
    ASSERT_LT(block + used, end);
    const auto gap = static_cast<uint32_t>((end - block - used) / pieces.size());
    std::ranges::shuffle(pieces, random);
    for (const Piece& piece : pieces) {
        auto& extent = files[piece.file].extents[piece.index];
        extent.startBlock = block;
        block += extent.blockCount + (gap > 0 ? static_cast<uint32_t>(random() % gap) : 0);
    }
}

/** Makes one of neighbours, which the format would have as one extent. */
void joinExtents(HFSPlusBuilderExtents& extents)
{
    size_t last = 0;
    for (size_t index = 1; index < extents.size(); ++index) {
        if (extents[last].startBlock + extents[last].blockCount == extents[index].startBlock) {
            extents[last].blockCount += extents[index].blockCount;
        } else {
            extents[++last] = extents[index];
        }
    }
    extents.resize(last + 1);
}

/** Copies what the machine's file holds into the blocks of its copy. */
bool writeContents(int image, const RealFile& file)
{
    std::ifstream source(file.path, std::ios::binary);
    for (const auto& extent : file.extents) {
        std::vector<char> bytes(size_t{extent.blockCount} * kBlockSize);
        source.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        const auto offset = static_cast<off_t>(extent.startBlock) * kBlockSize;
        if (::pwrite(image, bytes.data(), bytes.size(), offset) !=
            static_cast<ssize_t>(bytes.size())) {
            return false;
        }
    }
    return true;
}

/** Reads a fork's blocks one after another. */
class ForkBytes {
public:
    ForkBytes(HFSPlusCheckReader& reader, const HFSPlusCheckResult& volume,
              const HFSPlusCheckedFork& fork)
        : _reader(reader), _volume(volume), _fork(fork)
    {
    }

    /** Fills @p bytes; false when the extents end before. */
    [[nodiscard]] bool read(char* bytes, size_t nbyte)
    {
        while (nbyte > 0) {
            if (_extent == _fork.extents.size()) {
                return false;
            }
            const auto& extent = _fork.extents[_extent];
            const uint64_t size = uint64_t{extent.blockCount} * _volume.blockSize;
            const auto count = static_cast<size_t>(std::min<uint64_t>(nbyte, size - _offset));
            const uint64_t place =
                _volume.volumeOffset + uint64_t{extent.startBlock} * _volume.blockSize + _offset;
            if (!_reader.read(bytes, count, place)) {
                return false;
            }
            bytes += count;
            nbyte -= count;
            _offset += count;
            if (_offset == size) {
                ++_extent;
                _offset = 0;
            }
        }
        return true;
    }

private:
    HFSPlusCheckReader& _reader;
    const HFSPlusCheckResult& _volume;
    const HFSPlusCheckedFork& _fork;
    size_t _extent = 0;
    uint64_t _offset = 0;  // in that extent, bytes
};

bool haveSameBytes(ForkBytes left, ForkBytes right, uint64_t nbyte)
{
    std::vector<char> leftBytes(kPieceOfComparison);
    std::vector<char> rightBytes(kPieceOfComparison);
    while (nbyte > 0) {
        const auto count = static_cast<size_t>(std::min<uint64_t>(nbyte, kPieceOfComparison));
        if (!left.read(leftBytes.data(), count) || !right.read(rightBytes.data(), count) ||
            std::memcmp(leftBytes.data(), rightBytes.data(), count) != 0) {
            return false;
        }
        nbyte -= count;
    }
    return true;
}

}  // namespace

void makeRealFilesVolume(const std::string& path, const RealFilesOptions& options)
{
    std::mt19937 random(options.seed);
    std::vector<RealFile> files = chooseFiles(options.filesSize, random);
    ASSERT_GT(files.size(), 4U) << "the machine has no files to speak of";
    const auto blocks = static_cast<uint32_t>(options.volumeSize / kBlockSize);
    ASSERT_NO_FATAL_FAILURE(placeFiles(files, blocks / 32, blocks - 2, random));

    HFSPlusVolumeBuilder builder;
    builder.blockSize(kBlockSize).totalBlocks(blocks).contents(false);
    size_t number = 0;
    for (RealFile& file : files) {
        joinExtents(file.extents);
        builder.file(volumePath(file.path, ++number));
        builder.data(file.extents).dataSize(file.size);
    }
    ASSERT_TRUE(builder.buildFile(path)) << builder.error();
    const int image = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const bool written = std::ranges::all_of(
        files, [&](const RealFile& file) { return writeContents(image, file); });
    ::close(image);
    ASSERT_TRUE(written);
}

std::string differenceOfForks(const std::string& path, const std::string& originalPath)
{
    const auto reader = HFSPlusCheckFileReader::initWithPath(path);
    const auto originalReader = HFSPlusCheckFileReader::initWithPath(originalPath);
    if (reader == nullptr || originalReader == nullptr) {
        return "an image cannot be opened";
    }
    const HFSPlusCheckResult volume = checkHFSPlusVolume(*reader);
    const HFSPlusCheckResult original = checkHFSPlusVolume(*originalReader);
    std::map<std::pair<uint32_t, uint8_t>, const HFSPlusCheckedFork*> forks;
    for (const HFSPlusCheckedFork& fork : volume.forks) {
        forks[{fork.cnid, fork.forkType}] = &fork;
    }
    for (const HFSPlusCheckedFork& wanted : original.forks) {
        if (wanted.isSpecial) {
            continue;
        }
        const auto found = forks.find({wanted.cnid, wanted.forkType});
        const std::string name = "the fork of file " + std::to_string(wanted.cnid);
        if (found == forks.end()) {
            return name + " is missing";
        }
        const HFSPlusCheckedFork& fork = *found->second;
        if (fork.logicalSize != wanted.logicalSize || fork.totalBlocks != wanted.totalBlocks) {
            return name + " has another size";
        }
        if (!haveSameBytes({*reader, volume, fork}, {*originalReader, original, wanted},
                           uint64_t{wanted.totalBlocks} * original.blockSize)) {
            return name + " has other bytes";
        }
    }
    return volume.forks.size() == original.forks.size() ? "" : "there are other forks";
}
