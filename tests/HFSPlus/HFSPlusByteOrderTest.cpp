#include "HFSPlus/HFSPlusByteOrder.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <type_traits>

TEST(HFSPlusByteOrder, MostSignificantByteComesFirst)
{
    const HFSPlusBigEndian<uint16_t> two = uint16_t{0x482B};
    const HFSPlusBigEndian<uint32_t> four = 0x01020304u;
    const HFSPlusBigEndian<uint64_t> eight = uint64_t{0x0102030405060708};

    EXPECT_EQ((std::bit_cast<std::array<uint8_t, 2>>(two)), (std::array<uint8_t, 2>{0x48, 0x2B}));
    EXPECT_EQ((std::bit_cast<std::array<uint8_t, 4>>(four)), (std::array<uint8_t, 4>{1, 2, 3, 4}));
    EXPECT_EQ((std::bit_cast<std::array<uint8_t, 8>>(eight)),
              (std::array<uint8_t, 8>{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(HFSPlusByteOrder, FieldReadsLikeTheNumberItHolds)
{
    HFSPlusBigEndian<uint32_t> field = 0xFFFFFFFFu;
    EXPECT_EQ(field, 0xFFFFFFFFu);

    field = 12u;
    EXPECT_EQ(field + 1, 13u);
    EXPECT_EQ(field.value(), 12u);
}

TEST(HFSPlusByteOrder, FieldsArePackedTrivialBytes)
{
    EXPECT_EQ(alignof(HFSPlusBigEndian<uint64_t>), 1u);
    EXPECT_EQ(sizeof(HFSPlusBigEndian<uint64_t>), 8u);
    EXPECT_TRUE((std::is_trivial_v<HFSPlusBigEndian<uint32_t>>));
    EXPECT_TRUE((std::is_trivially_copyable_v<HFSPlusBigEndian<uint32_t>>));
}
