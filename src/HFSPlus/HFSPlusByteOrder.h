#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

/** A number kept in big-endian bytes: the field type of every structure on disk.
 *
 *  Trivial, of alignment 1; reading costs one load and one swap.
 */
template <std::unsigned_integral T>
class HFSPlusBigEndian {
public:
    HFSPlusBigEndian() = default;
    HFSPlusBigEndian(T value) { _store(value); }  // NOLINT(google-explicit-constructor)
    HFSPlusBigEndian& operator=(T value)
    {
        _store(value);
        return *this;
    }

    // NOLINTNEXTLINE(google-explicit-constructor): a field reads like the number it holds
    operator T() const { return value(); }

    [[nodiscard]] T value() const
    {
        T raw;
        std::memcpy(&raw, _bytes.data(), sizeof raw);
        return _swapped(raw);
    }

private:
    static T _swapped(T raw)
    {
        if constexpr (std::endian::native == std::endian::big || sizeof(T) == 1) {
            return raw;
        } else if constexpr (sizeof(T) == 2) {
            return __builtin_bswap16(raw);
        } else if constexpr (sizeof(T) == 4) {
            return __builtin_bswap32(raw);
        } else {
            return __builtin_bswap64(raw);
        }
    }
    void _store(T value)
    {
        const T raw = _swapped(value);
        std::memcpy(_bytes.data(), &raw, sizeof raw);
    }

    std::array<uint8_t, sizeof(T)> _bytes;
};

/** Field types of a structure as it lies on disk. */
struct HFSPlusDiskOrder {
    using UInt16 = HFSPlusBigEndian<uint16_t>;
    using UInt32 = HFSPlusBigEndian<uint32_t>;
    using UInt64 = HFSPlusBigEndian<uint64_t>;
};

/** Field types of a structure as we compute with it. */
struct HFSPlusHostOrder {
    using UInt16 = uint16_t;
    using UInt32 = uint32_t;
    using UInt64 = uint64_t;
};
