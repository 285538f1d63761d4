#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

/** SHA-256 (FIPS 180-4) of bytes given in pieces. */
class SHA256 {
public:
    SHA256() = default;

    /** Takes the next @p nbyte bytes of the message. */
    void update(const void* bytes, size_t nbyte);

    /** Ends the message; 64 lower-case hexadecimal digits. Nothing may follow. */
    [[nodiscard]] std::string finish();

    /** The hash of one string. */
    [[nodiscard]] static std::string hashOf(const std::string& message);

private:
    void _compress(const uint8_t* block);

    std::array<uint32_t, 8> _state = {0x6A09E667, 0xBB67AE85, 0x3C6EF372, 0xA54FF53A,
                                      0x510E527F, 0x9B05688C, 0x1F83D9AB, 0x5BE0CD19};
    std::array<uint8_t, 64> _pending = {};
    size_t _pendingSize = 0;  // bytes in _pending, always less than 64 between calls
    uint64_t _messageSize = 0;
};
