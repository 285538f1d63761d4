#include "support/SHA256.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

constexpr std::array<uint32_t, 64> kRoundConstants = {
    0x428A2F98, 0x71374491, 0xB5C0FBCF, 0xE9B5DBA5, 0x3956C25B, 0x59F111F1, 0x923F82A4, 0xAB1C5ED5,
    0xD807AA98, 0x12835B01, 0x243185BE, 0x550C7DC3, 0x72BE5D74, 0x80DEB1FE, 0x9BDC06A7, 0xC19BF174,
    0xE49B69C1, 0xEFBE4786, 0x0FC19DC6, 0x240CA1CC, 0x2DE92C6F, 0x4A7484AA, 0x5CB0A9DC, 0x76F988DA,
    0x983E5152, 0xA831C66D, 0xB00327C8, 0xBF597FC7, 0xC6E00BF3, 0xD5A79147, 0x06CA6351, 0x14292967,
    0x27B70A85, 0x2E1B2138, 0x4D2C6DFC, 0x53380D13, 0x650A7354, 0x766A0ABB, 0x81C2C92E, 0x92722C85,
    0xA2BFE8A1, 0xA81A664B, 0xC24B8B70, 0xC76C51A3, 0xD192E819, 0xD6990624, 0xF40E3585, 0x106AA070,
    0x19A4C116, 0x1E376C08, 0x2748774C, 0x34B0BCB5, 0x391C0CB3, 0x4ED8AA4A, 0x5B9CCA4F, 0x682E6FF3,
    0x748F82EE, 0x78A5636F, 0x84C87814, 0x8CC70208, 0x90BEFFFA, 0xA4506CEB, 0xBEF9A3F7, 0xC67178F2};

uint32_t wordAt(const uint8_t* bytes)
{
    return (uint32_t{bytes[0]} << 24) | (uint32_t{bytes[1]} << 16) | (uint32_t{bytes[2]} << 8) |
           uint32_t{bytes[3]};
}

}  // namespace

void SHA256::_compress(const uint8_t* block)
{
    std::array<uint32_t, 64> w;
    for (size_t index = 0; index < 16; ++index) {
        w[index] = wordAt(block + 4 * index);
    }
    for (size_t index = 16; index < 64; ++index) {
        const uint32_t x = w[index - 15];
        const uint32_t y = w[index - 2];
        w[index] = w[index - 16] + (std::rotr(x, 7) ^ std::rotr(x, 18) ^ (x >> 3)) + w[index - 7] +
                   (std::rotr(y, 17) ^ std::rotr(y, 19) ^ (y >> 10));
    }
    auto [a, b, c, d, e, f, g, h] = _state;
    for (size_t index = 0; index < 64; ++index) {
        const uint32_t t1 = h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) +
                            ((e & f) ^ (~e & g)) + kRoundConstants[index] + w[index];
        const uint32_t t2 =
            (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
        h = g;
        g = f;
        f = e;
        e = d + t1;
        d = c;
        c = b;
        b = a;
        a = t1 + t2;
    }
    const std::array<uint32_t, 8> after = {a, b, c, d, e, f, g, h};
    for (size_t index = 0; index < after.size(); ++index) {
        _state[index] += after[index];
    }
}

void SHA256::update(const void* bytes, size_t nbyte)
{
    const auto* next = static_cast<const uint8_t*>(bytes);
    _messageSize += nbyte;
    while (nbyte > 0) {
        if (_pendingSize == 0 && nbyte >= _pending.size()) {
            _compress(next);
            next += _pending.size();
            nbyte -= _pending.size();
            continue;
        }
        const size_t count = std::min(nbyte, _pending.size() - _pendingSize);
        std::memcpy(_pending.data() + _pendingSize, next, count);
        _pendingSize += count;
        next += count;
        nbyte -= count;
        if (_pendingSize == _pending.size()) {
            _compress(_pending.data());
            _pendingSize = 0;
        }
    }
}

std::string SHA256::finish()
{
    const uint64_t bitCount = _messageSize * 8;
    std::array<uint8_t, 72> tail = {0x80};
    // The length ends a block: pad to 56 bytes, in the next block when this one is too full.
    const size_t padSize = (_pendingSize < 56 ? 56 : 120) - _pendingSize;
    for (size_t index = 0; index < 8; ++index) {
        tail[padSize + index] = static_cast<uint8_t>(bitCount >> (56 - 8 * index));
    }
    update(tail.data(), padSize + 8);

    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const uint32_t word : _state) {
        for (int shift = 28; shift >= 0; shift -= 4) {
            text += kDigits[(word >> shift) & 0xF];
        }
    }
    return text;
}

std::string SHA256::hashOf(const std::string& message)
{
    SHA256 hash;
    hash.update(message.data(), message.size());
    return hash.finish();
}
