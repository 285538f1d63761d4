#include "ControlVerifier.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace {

constexpr size_t kPieceSize = size_t{4} << 20;
// The wrapper's volume header and its fields (Inside Macintosh: Files, "Master Directory Blocks").
constexpr size_t kMasterBlock = 1024;
constexpr size_t kAllocationBlockSize = kMasterBlock + 20;
constexpr size_t kFirstBlock = kMasterBlock + 28;
constexpr size_t kEmbeddedSignature = kMasterBlock + 124;
constexpr size_t kEmbeddedStart = kMasterBlock + 126;

/** An open file, closed with the object. */
class Descriptor {
public:
    explicit Descriptor(const std::string& path) : _file(::open(path.c_str(), O_RDONLY | O_CLOEXEC))
    {
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (_file >= 0) {
            ::close(_file);
        }
    }
    [[nodiscard]] int file() const { return _file; }

private:
    int _file;
};

/** Reads exactly @p count bytes; false with errno, which is 0 at the end of the file. */
bool readAll(int file, unsigned char* bytes, size_t count, uint64_t offset)
{
    while (count > 0) {
        errno = 0;
        const ssize_t got = ::pread(file, bytes, count, static_cast<off_t>(offset));
        if (got <= 0 && errno != EINTR) {
            return false;
        }
        const size_t read = got > 0 ? static_cast<size_t>(got) : 0;
        bytes += read;
        count -= read;
        offset += read;
    }
    return true;
}

bool failForRead(ControlErrorSlot error, const std::string& image)
{
    const std::string reason = errno != 0 ? std::strerror(errno) : "it ends before the volume does";
    return ControlFail(error, ControlStatus::kInputOutput,
                       "Unable to read " + image + ": " + reason + ".");
}

/** A SHA-256 over pieces. */
class Hash {
public:
    Hash() : _context(::EVP_MD_CTX_new(), ::EVP_MD_CTX_free) {}

    [[nodiscard]] bool begin()
    {
        return _context && ::EVP_DigestInit_ex(_context.get(), ::EVP_sha256(), nullptr) == 1;
    }
    [[nodiscard]] bool add(const unsigned char* bytes, size_t count)
    {
        return ::EVP_DigestUpdate(_context.get(), bytes, count) == 1;
    }
    [[nodiscard]] bool end(ControlVerifier::Digest& digest)
    {
        return ::EVP_DigestFinal_ex(_context.get(), digest.data(), nullptr) == 1;
    }

private:
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> _context;
};

uint64_t bigEndian(const unsigned char* bytes, size_t count)
{
    uint64_t number = 0;
    for (size_t index = 0; index < count; index++) {
        number = number << 8U | bytes[index];
    }
    return number;
}

}  // namespace

uint64_t volumeStartIn(const std::array<unsigned char, 2048>& first)
{
    if (bigEndian(&first.at(kMasterBlock), 2) != 0x4244 ||
        bigEndian(&first.at(kEmbeddedSignature), 2) != 0x482B) {
        return 0;
    }
    return bigEndian(&first.at(kFirstBlock), 2) * 512 +
           bigEndian(&first.at(kEmbeddedStart), 2) * bigEndian(&first.at(kAllocationBlockSize), 4);
}

void ControlVerifier::addFile(const ControlFile& file)
{
    if (!_leftOut.empty() && file.path == _leftOut) {
        return;
    }
    _files.push_back(
        {.fileID = file.fileID, .extentCount = static_cast<uint32_t>(file.extents.size())});
    _extents.insert(_extents.end(), file.extents.begin(), file.extents.end());
    _blocks += file.blockCount();
}

bool ControlVerifier::hashFiles(const std::string& image, uint32_t blockSize, Digests& digests,
                                const Progress& progress, ControlErrorSlot error) const
{
    const Descriptor source(image);
    std::array<unsigned char, 2048> first = {};
    if (source.file() < 0 || !readAll(source.file(), first.data(), first.size(), 0)) {
        return failForRead(error, image);
    }
    // What is compared has to come from the disk, not from memory, where the system allows it.
    ::posix_fadvise(source.file(), 0, 0, POSIX_FADV_DONTNEED);
    const uint64_t start = volumeStartIn(first);
    std::vector<unsigned char> piece(kPieceSize);
    Hash hash;
    auto extent = _extents.begin();
    uint64_t done = 0;
    for (const File& file : _files) {
        bool isHashed = hash.begin();
        for (uint32_t index = 0; index < file.extentCount; index++, ++extent) {
            uint64_t offset = start + uint64_t{extent->start} * blockSize;
            uint64_t left = uint64_t{extent->count} * blockSize;
            while (left > 0 && isHashed) {
                const auto count = static_cast<size_t>(std::min<uint64_t>(left, kPieceSize));
                if (!readAll(source.file(), piece.data(), count, offset)) {
                    return failForRead(error, image);
                }
                isHashed = hash.add(piece.data(), count);
                offset += count;
                left -= count;
                if (!progress(done + extent->count - left / blockSize, _blocks)) {
                    return false;
                }
            }
            done += extent->count;
        }
        if (!isHashed || !hash.end(digests[file.fileID])) {
            return ControlFail(error, ControlStatus::kToolFailed, "SHA-256 is not available.");
        }
    }
    return true;
}

std::vector<uint32_t> differences(const ControlVerifier::Digests& before,
                                  const ControlVerifier::Digests& after)
{
    std::vector<uint32_t> files;
    for (const auto& [file, digest] : before) {
        const auto found = after.find(file);
        if (found == after.end() || found->second != digest) {
            files.push_back(file);
        }
    }
    for (const auto& [file, digest] : after) {
        if (!before.contains(file)) {
            files.push_back(file);
        }
    }
    return files;
}
