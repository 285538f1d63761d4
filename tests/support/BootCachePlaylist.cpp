#include "support/BootCachePlaylist.h"

#include <algorithm>

namespace {

/** Appends the lowest @p size bytes of @p value, the lowest first or last. */
void append(std::string& bytes, uint64_t value, size_t size, bool swapped)
{
    std::string number;
    for (size_t index = 0; index < size; ++index) {
        number += static_cast<char>(value >> (8 * index));
    }
    if (swapped) {
        std::ranges::reverse(number);
    }
    bytes += number;
}

}  // namespace

std::string playlistBytes(const std::vector<PlaylistEntry>& entries, bool swapped)
{
    std::string bytes;
    append(bytes, 0xA1B2C3D6, 4, swapped);
    append(bytes, entries.size(), 4, swapped);
    append(bytes, 0x55555555, 4, swapped);
    for (const PlaylistEntry& entry : entries) {
        append(bytes, entry.offset, 8, swapped);
        append(bytes, entry.length, 8, swapped);
        append(bytes, entry.group, 4, swapped);
    }
    return bytes;
}

void setPlaylistNumber(std::string& playlist, size_t offset, uint32_t number)
{
    std::string bytes;
    append(bytes, number, 4, false);
    playlist.replace(offset, 4, bytes);
}

void addPlaylist(HFSPlusVolumeBuilder& builder, const std::string& bytes,
                 const HFSPlusBuilderExtents& extents)
{
    builder.file(kPlaylistPath, kPlaylistID).dataBeginning(bytes).dataSize(bytes.size());
    if (extents.empty()) {
        builder.automaticData(static_cast<uint32_t>((bytes.size() + 4095) / 4096));
    } else {
        builder.data(extents);
    }
}
