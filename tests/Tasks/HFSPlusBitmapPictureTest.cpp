#include "Tasks/HFSPlusBitmapPicture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "support/TestSeed.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kNoLimit = UINT32_MAX;

struct Picture {
    std::vector<std::string> lines;
    uint32_t firstUnusedBlock = 0;
    uint32_t lastUsedBlock = 0;

    bool operator==(const Picture&) const = default;
};

/** What is asked of a picture. */
struct Request {
    uint32_t scale = 1;
    uint32_t firstUnmaskedBlock = 0;
    uint32_t lastUsedLimit = kNoLimit;
};

/** The picture as @p pieces, consecutive lengths in bytes, give it. */
Picture drawn(const Request& request, const Bytes& bytes, const std::vector<size_t>& pieces)
{
    Picture result;
    HFSPlusBitmapPicture picture(
        request.scale, [&](std::string_view digits) { result.lines.emplace_back(digits); });
    picture.setFirstUnmaskedBlock(request.firstUnmaskedBlock);
    picture.setLastUsedLimit(request.lastUsedLimit);
    std::span<const uint8_t> rest(bytes);
    for (const size_t piece : pieces) {
        picture.append(rest.first(std::min(piece, rest.size())));
        rest = rest.subspan(std::min(piece, rest.size()));
    }
    picture.append(rest);
    picture.finish();
    result.firstUnusedBlock = picture.firstUnusedBlock();
    result.lastUsedBlock = picture.lastUsedBlock();
    return result;
}

std::string digitsOf(const Request& request, const Bytes& bytes)
{
    std::string digits;
    for (const std::string& line : drawn(request, bytes, {}).lines) {
        digits += line;
    }
    return digits;
}

/** A block a byte, +1 for a used one and -1 for a free one. */
std::vector<int8_t> expanded(const Request& request, const Bytes& bytes)
{
    std::vector<int8_t> blocks;
    for (const uint8_t byte : bytes) {
        for (int mask = 0x80; mask != 0; mask >>= 1) {
            const bool used = (byte & mask) != 0 || blocks.size() < request.firstUnmaskedBlock;
            blocks.push_back(used ? 1 : -1);
        }
    }
    return blocks;
}

std::string linesTogether(std::string digits, std::vector<std::string>& lines)
{
    while (digits.size() >= 4096) {
        lines.push_back(digits.substr(0, 4096));
        digits.erase(0, 4096);
    }
    return digits;
}

/** The picture drawn one block at a time. */
Picture expected(const Request& request, const Bytes& bytes)
{
    const std::vector<int8_t> blocks = expanded(request, bytes);
    Picture result;
    result.firstUnusedBlock = kNoLimit;
    std::string bits;
    int32_t sum = 0;
    uint32_t missing = request.scale;
    for (size_t block = 0; block < blocks.size(); ++block) {
        if (blocks[block] < 0) {
            result.firstUnusedBlock =
                std::min(result.firstUnusedBlock, static_cast<uint32_t>(block));
        } else if (block < request.lastUsedLimit) {
            result.lastUsedBlock = static_cast<uint32_t>(block);
        }
        sum += blocks[block];
        if (--missing == 0) {
            bits += sum >= 0 ? '1' : '0';
            sum = 0;
            missing = request.scale;
        }
    }
    std::string digits;
    size_t bit = 0;
    for (; bit + 4 <= bits.size(); bit += 4) {
        digits += "0123456789ABCDEF"[std::stoul(bits.substr(bit, 4), nullptr, 2)];
    }
    if (bit < bits.size() || missing < request.scale) {
        std::string last = bits.substr(bit);
        last.resize(4, '0');
        digits += "0123456789ABCDEF"[std::stoul(last, nullptr, 2)];
    }
    std::string rest = linesTogether(digits, result.lines);
    rest += rest.size() % 2 != 0 ? "0" : "";
    if (!rest.empty()) {
        result.lines.push_back(rest);
    }
    return result;
}

uint32_t below(std::mt19937& random, size_t limit)
{
    return static_cast<uint32_t>(random() % limit);
}

/** Bytes of any density, with long stretches that are all used or all free. */
Bytes randomBytes(std::mt19937& random, size_t size)
{
    Bytes bytes;
    while (bytes.size() < size) {
        const uint32_t kind = below(random, 6);
        const size_t stretch = 1 + below(random, 40);
        for (size_t index = 0; index < stretch && bytes.size() < size; ++index) {
            const uint32_t any = below(random, 0x10000);
            const uint32_t value = kind == 0   ? 0
                                   : kind == 1 ? 0xFF
                                   : kind == 2 ? any & any >> 8
                                   : kind == 3 ? any | any >> 8
                                               : any;
            bytes.push_back(static_cast<uint8_t>(value));
        }
    }
    return bytes;
}

std::vector<size_t> randomPieces(std::mt19937& random, size_t size)
{
    std::vector<size_t> pieces;
    const size_t most = 1 + below(random, size + 1);
    for (size_t taken = 0; taken < size; taken += pieces.back()) {
        pieces.push_back(below(random, most + 1) + (pieces.size() > 50 ? 100 : 0));
    }
    return pieces;
}

std::vector<uint32_t> manyScales()
{
    std::vector<uint32_t> scales;
    for (uint32_t scale = 1; scale <= 70; ++scale) {
        scales.push_back(scale);
    }
    for (const uint32_t scale :
         {100U, 127U, 128U, 129U, 1000U, 4095U, 4096U, 32768U, 0x7FFFFFFFU}) {
        scales.push_back(scale);
    }
    return scales;
}

void expectAsDrawnBlockByBlock(std::mt19937& random, const Request& request, size_t size)
{
    const Bytes bytes = randomBytes(random, size);
    const std::vector<size_t> pieces = randomPieces(random, size);

    const Picture picture = drawn(request, bytes, pieces);

    const Picture plain = expected(request, bytes);
    EXPECT_EQ(picture.lines, plain.lines);
    EXPECT_EQ(picture.firstUnusedBlock, plain.firstUnusedBlock);
    EXPECT_EQ(picture.lastUsedBlock, plain.lastUsedBlock);
}

}  // namespace

TEST(HFSPlusBitmapPicture, IsTheOneThatIsDrawnBlockByBlock)
{
    std::mt19937 random(testSeed());
    for (uint32_t round = 0; round < testRounds(20); ++round) {
        for (const uint32_t scale : manyScales()) {
            const size_t size = below(random, 700);
            const uint32_t blocks = static_cast<uint32_t>(size) * 8 + 1;
            Request request{.scale = scale};
            request.firstUnmaskedBlock = below(random, 2) * below(random, blocks + 10);
            request.lastUsedLimit = below(random, 2) == 0 ? kNoLimit : below(random, blocks);
            SCOPED_TRACE("scale " + std::to_string(scale) + ", bytes " + std::to_string(size));
            expectAsDrawnBlockByBlock(random, request, size);
            if (::testing::Test::HasFailure()) {
                return;
            }
        }
    }
}

TEST(HFSPlusBitmapPicture, OfManyLinesIsTheOneThatIsDrawnBlockByBlock)
{
    std::mt19937 random(testSeed());
    for (const uint32_t scale : {1U, 2U, 3U, 5U, 8U}) {
        // The last round ends on a full line.
        for (const size_t size : {size_t{2047}, size_t{2049}, size_t{10000} + below(random, 10000),
                                  size_t{2048} * scale}) {
            SCOPED_TRACE("scale " + std::to_string(scale) + ", bytes " + std::to_string(size));
            expectAsDrawnBlockByBlock(random, {.scale = scale, .firstUnmaskedBlock = 9001}, size);
        }
    }
}

TEST(HFSPlusBitmapPicture, OfScaleOneIsTheBitmapInHex)
{
    EXPECT_EQ(digitsOf({.scale = 1}, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0x5A}),
              "0123456789ABCDEF5A");
}

TEST(HFSPlusBitmapPicture, GroupsRunAcrossBytesAndPieces)
{
    // 11100 000|01 11100 0: the third group ends inside the second byte.
    EXPECT_EQ(digitsOf({.scale = 5}, {0xE0, 0x78}), "A0");
    EXPECT_EQ(drawn({.scale = 5}, {0x03, 0xC0}, {1}).lines, (std::vector<std::string>{"40"}));
}

TEST(HFSPlusBitmapPicture, ATieCountsAsUsed)
{
    EXPECT_EQ(digitsOf({.scale = 2}, {0b10011100}), "E0");
    EXPECT_EQ(digitsOf({.scale = 8}, {0x0F, 0x07}), "80");
    EXPECT_EQ(digitsOf({.scale = 64}, {0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}), "80");
}

TEST(HFSPlusBitmapPicture, AGroupOfTooFewBlocksHasNoBitButFillsADigit)
{
    EXPECT_EQ(digitsOf({.scale = 16}, {0xFF}), "00");
    // Four groups fill a digit, and the last one begins another.
    EXPECT_EQ(digitsOf({.scale = 10}, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), "F0");
}

TEST(HFSPlusBitmapPicture, HasAnEvenNumberOfDigits)
{
    EXPECT_EQ(digitsOf({.scale = 8}, {0xFF, 0xFF, 0xFF, 0xFF}), "F0");
    EXPECT_EQ(digitsOf({.scale = 8}, Bytes(12, 0xFF)), "FFF0");
}

TEST(HFSPlusBitmapPicture, OfNothingHasNoDigits)
{
    const Picture picture = drawn({.scale = 1}, {}, {});

    EXPECT_EQ(picture, (Picture{{}, kNoLimit, 0}));
}

TEST(HFSPlusBitmapPicture, ALineHas4096Digits)
{
    EXPECT_EQ(drawn({.scale = 1}, Bytes(2048), {}).lines,
              (std::vector<std::string>{std::string(4096, '0')}));
    EXPECT_EQ(drawn({.scale = 1}, Bytes(2049), {}).lines,
              (std::vector<std::string>{std::string(4096, '0'), "00"}));
}

TEST(HFSPlusBitmapPicture, MaskedBlocksCountAsUsedForEverything)
{
    const Picture picture = drawn({.scale = 1, .firstUnmaskedBlock = 11}, {0, 0, 0}, {1});

    EXPECT_EQ(picture, (Picture{{"FFE000"}, 11, 10}));
}

TEST(HFSPlusBitmapPicture, LeavesTheBytesAsTheyAre)
{
    const Bytes bytes(5000);

    ASSERT_EQ(drawn({.scale = 1, .firstUnmaskedBlock = 50000}, bytes, {}).firstUnusedBlock,
              kNoLimit);

    EXPECT_EQ(bytes, Bytes(5000));
}

TEST(HFSPlusBitmapPicture, TheLastUsedBlockIsBelowItsLimit)
{
    EXPECT_EQ(drawn({.lastUsedLimit = 15}, {0x80, 0x81}, {}).lastUsedBlock, 8u);
    EXPECT_EQ(drawn({.lastUsedLimit = 16}, {0x80, 0x81}, {}).lastUsedBlock, 15u);
    EXPECT_EQ(drawn({.lastUsedLimit = 8}, {0x80, 0x81}, {}).lastUsedBlock, 0u);
}
