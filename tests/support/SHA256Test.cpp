#include "support/SHA256.h"

#include <gtest/gtest.h>

TEST(SHA256, GivesThePublishedHashesOfShortMessages)
{
    EXPECT_EQ(SHA256::hashOf(""),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(SHA256::hashOf("abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(SHA256::hashOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST(SHA256, GivesThePublishedHashOfAMillionLetters)
{
    EXPECT_EQ(SHA256::hashOf(std::string(1000000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(SHA256, PiecesOfAnySizeGiveTheHashOfTheWhole)
{
    std::string message;
    for (int index = 0; index < 300; ++index) {
        message += static_cast<char>(index * 7);
    }

    for (size_t size = 1; size < 130; ++size) {
        SHA256 hash;
        for (size_t start = 0; start < message.size(); start += size) {
            const std::string piece = message.substr(start, size);
            hash.update(piece.data(), piece.size());
        }
        EXPECT_EQ(hash.finish(), SHA256::hashOf(message)) << "pieces of " << size;
    }
}
