#pragma once

#include <cstdint>
#include <span>

/** Fills @p bytes with the contents that a fork has from byte @p forkOffset on.
 *
 *  Each 16 bytes name their place: file ID, fork block, position within the block in units of 16
 *  bytes (four bytes each), the fork type and the middle bytes of their sum. A block in a wrong
 *  place, or of the wrong file, therefore shows wherever one looks. Both the offset and the size
 *  are multiples of 16.
 */
void fillForkContents(std::span<uint8_t> bytes, uint32_t cnid, uint8_t forkType,
                      uint64_t forkOffset, uint32_t blockSize);
