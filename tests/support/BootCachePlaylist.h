#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/HFSPlusVolumeBuilder.h"

constexpr const char* kPlaylistPath = "/private/var/db/BootCache.playlist";
constexpr uint32_t kPlaylistID = 600;

/** One range of a boot-cache playlist. */
struct PlaylistEntry {
    uint64_t offset = 0;  // bytes
    uint64_t length = 0;  // bytes
    uint32_t group = 0;
};

/** The bytes of a playlist; @p swapped in the other byte order than this machine's. */
[[nodiscard]] std::string playlistBytes(const std::vector<PlaylistEntry>& entries,
                                        bool swapped = false);

/** Replaces the 32 bits at @p offset of @p playlist, in this machine's byte order. */
void setPlaylistNumber(std::string& playlist, size_t offset, uint32_t number);

/** Adds @p bytes as the playlist, in @p extents; in one free extent when there are none. */
void addPlaylist(HFSPlusVolumeBuilder& builder, const std::string& bytes,
                 const HFSPlusBuilderExtents& extents = {});
