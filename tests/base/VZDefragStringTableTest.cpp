#include "VZDefragStringTable.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

namespace {

/** The table in a file with this content; null when it is refused. */
std::unique_ptr<VZDefragStringTable> tableIn(const std::string& content)
{
    const std::string path = testing::TempDir() + "vzdefrag-table-" +
                             testing::UnitTest::GetInstance()->current_test_info()->name() +
                             ".plist";
    std::ofstream(path, std::ios::binary) << content;
    std::unique_ptr<VZDefragStringTable> table = VZDefragStringTable::initWithFile(path);
    std::remove(path.c_str());
    return table;
}

std::string xmlWithEntries(const std::string& entries)
{
    return "<plist version=\"1.0\"><dict>" + entries + "</dict></plist>\n";
}

std::string entry(const std::string& key, const std::string& value)
{
    return "<key>" + key + "</key><string>" + value + "</string>";
}

TEST(VZDefragStringTable, AKeyOfTheFileGivesItsTranslationAndAnyOtherItself)
{
    const auto table = tableIn(xmlWithEntries(entry("Out of memory.", "Kein Speicher.")));

    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->localizedStringForKey("Out of memory."), "Kein Speicher.");
    EXPECT_EQ(table->localizedStringForKey("Out of memory"), "Out of memory");
    EXPECT_EQ(table->localizedStringForKey("OUT OF MEMORY."), "OUT OF MEMORY.");
}

TEST(VZDefragStringTable, ValuesThatCannotStandInALineCountAsMissing)
{
    const auto table = tableIn(xmlWithEntries(
        entry("bytes", "\xFF\xFE") + entry("overlong", "\xC0\x80") +
        entry("surrogate", "\xED\xA0\x80") + entry("lines", "one\ntwo") +
        entry("endless", std::string(8193, 'x')) + "<key>number</key><integer>5</integer>"));

    ASSERT_NE(table, nullptr);
    for (const char* const key : {"bytes", "overlong", "surrogate", "lines", "endless", "number"}) {
        EXPECT_EQ(table->localizedStringForKey(key), key);
    }
}

TEST(VZDefragStringTable, TheLongestTranslationIsUsed)
{
    const std::string longest(8192, 'x');
    const auto table = tableIn(xmlWithEntries(entry("long", longest)));

    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->localizedStringForKey("long"), longest);
}

TEST(VZDefragStringTable, AFileOfFourMebibytesIsReadAndALargerOneRefused)
{
    constexpr size_t kLimit = 4 << 20;
    std::string content = xmlWithEntries(entry("key", "value"));
    content.insert(0, kLimit - content.size(), ' ');

    EXPECT_NE(tableIn(content), nullptr);
    EXPECT_EQ(tableIn(" " + content), nullptr);
}

TEST(VZDefragStringTable, WhatCannotBeReadAsAPropertyListIsRefused)
{
    EXPECT_EQ(tableIn(""), nullptr);
    EXPECT_EQ(tableIn("Out of memory. = Kein Speicher."), nullptr);
    EXPECT_EQ(tableIn("<plist><array/></plist>"), nullptr);
    EXPECT_EQ(VZDefragStringTable::initWithFile("/no/such/file"), nullptr);
    EXPECT_EQ(VZDefragStringTable::initWithFile(""), nullptr);
    EXPECT_EQ(VZDefragStringTable::initWithFile(testing::TempDir()), nullptr);
    EXPECT_EQ(VZDefragStringTable::initWithFile("/dev/zero"), nullptr);
}

TEST(VZDefragStringTable, APipeThatNobodyWritesToIsRefusedAtOnce)
{
    const std::string path = testing::TempDir() + "vzdefrag-table-pipe";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);

    EXPECT_EQ(VZDefragStringTable::initWithFile(path), nullptr);
    std::remove(path.c_str());
}

}  // namespace
