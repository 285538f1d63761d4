#include "protocol/VolumeJudgement.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace {

VolumeState readState(const std::string& path, bool hashed)
{
    VolumeState state;
    const auto reader = HFSPlusCheckFileReader::initWithPath(path);
    if (reader == nullptr) {
        ADD_FAILURE() << path << " cannot be opened";
        return state;
    }
    state.check = checkHFSPlusVolume(*reader);
    if (hashed) {
        state.hashes = hashForks(*reader, state.check, {.hashBlocks = true});
    }
    const std::vector<HFSPlusCheckedFork> movable = movableForks(*reader, state.check);
    std::ranges::copy_if(movable, std::back_inserter(state.fragments),
                         [](const HFSPlusCheckedFork& fork) { return fork.extents.size() > 1; });
    state.order = dataOrder(movable);
    state.gaps = gapsAmongData(*reader, state.check, 0);
    return state;
}

/** Where the format's own checker is installed, which is not on everybody's search path. */
std::string fsckPath()
{
    for (const char* path : {"/usr/sbin/fsck.hfsplus", "/sbin/fsck.hfsplus",
                             "/usr/local/sbin/fsck.hfsplus", "/usr/bin/fsck.hfsplus"}) {
        if (::access(path, X_OK) == 0) {
            return path;
        }
    }
    return "";
}

/** Copies the bytes from @p offset to @p end; false when a transfer fails. */
bool copyBytes(int source, int target, off_t offset, off_t end)
{
    std::vector<char> buffer(1 << 20);
    while (offset < end) {
        const auto wanted = std::min<size_t>(buffer.size(), static_cast<size_t>(end - offset));
        const ssize_t count = ::pread(source, buffer.data(), wanted, offset);
        if (count <= 0 ||
            ::pwrite(target, buffer.data(), static_cast<size_t>(count), offset) != count) {
            return false;
        }
        offset += count;
    }
    return true;
}

}  // namespace

VolumeState readVolumeState(const std::string& path)
{
    return readState(path, true);
}

VolumeState readVolumeStateWithoutHashes(const std::string& path)
{
    return readState(path, false);
}

HFSPlusForkHashes readForkHashes(const std::string& path)
{
    const auto reader = HFSPlusCheckFileReader::initWithPath(path);
    if (reader == nullptr) {
        ADD_FAILURE() << path << " cannot be opened";
        return {};
    }
    return hashForks(*reader, checkHFSPlusVolume(*reader));
}

bool isAcceptedByFsck(const std::string& path)
{
    const std::string program = fsckPath();
    if (program.empty()) {
        std::fprintf(stderr, "fsck.hfsplus is not installed: only our own verdict counts.\n");
        return true;
    }
    std::FILE* const output = ::popen((program + " -fn '" + path + "' 2>&1").c_str(), "r");
    if (output == nullptr) {
        return false;
    }
    std::string text;
    std::array<char, 4096> bytes;
    while (const size_t count = std::fread(bytes.data(), 1, bytes.size(), output)) {
        text.append(bytes.data(), count);
    }
    const bool accepted =
        ::pclose(output) == 0 && text.find("appears to be OK") != std::string::npos;
    if (!accepted) {
        std::fprintf(stderr, "%s\n", text.c_str());
    }
    return accepted;
}

void expectSoundAsBefore(const std::string& path, const VolumeState& now, const VolumeState& before)
{
    EXPECT_TRUE(now.check.consistent) << now.check.description();
    EXPECT_TRUE(isAcceptedByFsck(path));
    EXPECT_EQ(now.check.freeBlocks, before.check.freeBlocks);
    EXPECT_EQ(now.check.totalBlocks, before.check.totalBlocks);
    EXPECT_EQ(now.check.fileCount, before.check.fileCount);
    EXPECT_EQ(now.check.folderCount, before.check.folderCount);
    EXPECT_EQ(now.check.nextCatalogID, before.check.nextCatalogID);
    EXPECT_EQ(now.check.attributes, before.check.attributes);
    EXPECT_EQ(now.check.journalInfoBlock, before.check.journalInfoBlock);
    EXPECT_EQ(now.check.attributeForks, before.check.attributeForks);
    EXPECT_EQ(now.check.forks.size(), before.check.forks.size());
}

void expectUnharmed(const std::string& path, const VolumeState& before)
{
    ASSERT_FALSE(before.hashes.empty());
    const VolumeState now = readVolumeState(path);

    expectSoundAsBefore(path, now, before);
    EXPECT_EQ(now.hashes, before.hashes);
}

void copyImage(const std::string& source, const std::string& target)
{
    const int from = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    const int to = ::open(target.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    const off_t size = ::lseek(from, 0, SEEK_END);
    bool copied = from >= 0 && to >= 0 && size > 0 && ::ftruncate(to, size) == 0;
    off_t offset = copied ? ::lseek(from, 0, SEEK_DATA) : -1;
    // Ends behind the last data, where there are none to find.
    while (copied && offset >= 0) {
        const off_t end = ::lseek(from, offset, SEEK_HOLE);
        copied = copyBytes(from, to, offset, end);
        offset = ::lseek(from, end, SEEK_DATA);
    }
    EXPECT_TRUE(copied) << source;
    ::close(from);
    ::close(to);
}
