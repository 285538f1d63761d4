#include <gtest/gtest.h>
#include <plist/plist.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/PlatformPropertyList.h"
#include "Platform/PlatformPropertyListCheck.h"

namespace {

using Strings = PlatformPropertyListStrings;

const std::string kHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n";

std::string xmlWithRoot(const std::string& root)
{
    return kHead + "<plist version=\"1.0\">\n" + root + "\n</plist>\n";
}

std::string repeated(std::string_view text, size_t count)
{
    std::string result;
    result.reserve(text.size() * count);
    for (size_t index = 0; index < count; ++index) {
        result += text;
    }
    return result;
}

/** A binary property list written object by object; every number in it takes @p numberSize. */
class BinaryList {
public:
    explicit BinaryList(size_t numberSize = 2) : _numberSize(numberSize) {}

    /** Adds an object with these bytes and gives its index. */
    size_t object(const std::string& bytes)
    {
        _offsets.push_back(_bytes.size());
        _bytes += bytes;
        return _offsets.size() - 1;
    }
    size_t text(const std::string& text) { return object(marker(0x5, text.size()) + text); }
    size_t units(const std::u16string& units)
    {
        std::string bytes = marker(0x6, units.size());
        for (const char16_t unit : units) {
            bytes += number(unit, 2);
        }
        return object(bytes);
    }
    size_t container(int kind, size_t count, const std::vector<size_t>& references)
    {
        std::string bytes = marker(kind, count);
        for (const size_t reference : references) {
            bytes += number(reference, _numberSize);
        }
        return object(bytes);
    }
    size_t array(const std::vector<size_t>& references)
    {
        return container(0xA, references.size(), references);
    }
    /** The keys first, then the values. */
    size_t dictionary(const std::vector<size_t>& references)
    {
        return container(0xD, references.size() / 2, references);
    }

    [[nodiscard]] std::string build(size_t root) const
    {
        std::string bytes = _bytes;
        for (const size_t offset : _offsets) {
            bytes += number(offset, _numberSize);
        }
        return bytes + std::string(6, '\0') + number(_numberSize, 1) + number(_numberSize, 1) +
               number(_offsets.size(), 8) + number(root, 8) + number(_bytes.size(), 8);
    }

    [[nodiscard]] static std::string number(uint64_t value, size_t size)
    {
        std::string bytes;
        for (size_t shift = size * 8; shift > 0; shift -= 8) {
            bytes.push_back(static_cast<char>(value >> (shift - 8)));
        }
        return bytes;
    }
    [[nodiscard]] static std::string marker(int kind, uint64_t count)
    {
        const auto byte = [kind](uint64_t low) {
            return std::string(1, static_cast<char>((kind << 4) | static_cast<int>(low)));
        };
        return count < 15 ? byte(count) : byte(15) + "\x13" + number(count, 8);
    }

private:
    size_t _numberSize;
    std::string _bytes = "bplist00";
    std::vector<size_t> _offsets;
};

/** What the library itself writes for a property list in XML. */
std::string binaryOfXML(const std::string& xml)
{
    plist_t node = nullptr;
    plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &node);
    EXPECT_NE(node, nullptr);
    char* bytes = nullptr;
    uint32_t size = 0;
    plist_to_bin(node, &bytes, &size);
    std::string binary(bytes, size);
    std::free(bytes);
    plist_free(node);
    return binary;
}

/** Reads @p bytes; no content that is refused or taken may need long. */
std::optional<Strings> stringsIn(std::string_view bytes)
{
    const auto start = std::chrono::steady_clock::now();
    std::optional<Strings> strings = PlatformStringsInPropertyList(bytes);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    EXPECT_LT(seconds.count(), 20);
    return strings;
}

TEST(LinuxPropertyList, XMLGivesItsTextsByTheirKeys)
{
    const std::string xml = xmlWithRoot(
        "<dict><!-- why --><key>Out of memory.</key><string>Kein Speicher &#x2014; &amp; "
        "&lt;aus&gt;.</string><key>%1$@ &amp; %2$u</key><string>%2$u \xC3\xA4 %1$@</string>"
        "<key>empty</key><string></string></dict>");

    EXPECT_EQ(stringsIn(xml), (Strings{{"Out of memory.", "Kein Speicher \xE2\x80\x94 & <aus>."},
                                       {"%1$@ & %2$u", "%2$u \xC3\xA4 %1$@"},
                                       {"empty", ""}}));
}

TEST(LinuxPropertyList, TheBinaryFormGivesTheSameAsXML)
{
    const std::string xml = xmlWithRoot(
        "<dict><key>plain</key><string>short</string><key>long</key><string>more than fifteen "
        "characters</string><key>wide</key><string>\xC3\xA4\xF0\x9F\x92\xBE</string></dict>");

    const std::string binary = binaryOfXML(xml);

    ASSERT_TRUE(binary.starts_with("bplist00"));
    EXPECT_EQ(stringsIn(binary), (Strings{{"plain", "short"},
                                          {"long", "more than fifteen characters"},
                                          {"wide", "\xC3\xA4\xF0\x9F\x92\xBE"}}));
    EXPECT_EQ(stringsIn(binary), stringsIn(xml));
}

TEST(LinuxPropertyList, BinaryListsOfAnyNumberSizeAreRead)
{
    for (const size_t size : {1U, 2U, 3U, 4U, 8U}) {
        BinaryList list(size);
        const size_t key = list.text("key");
        const size_t value = list.units(u"\u00E4\xD83D\xDCBE");
        EXPECT_EQ(stringsIn(list.build(list.dictionary({key, value}))),
                  (Strings{{"key", "\xC3\xA4\xF0\x9F\x92\xBE"}}))
            << size;
    }
}

TEST(LinuxPropertyList, ValuesThatAreNoTextsAreLeftOut)
{
    const std::string xml = xmlWithRoot(
        "<dict><key>a</key><integer>5</integer><key>b</key><true/><key>c</key><array><string>x"
        "</string></array><key>d</key><dict><key>x</key><string>y</string></dict><key>e</key>"
        "<data>AAAA</data><key>f</key><real>1.5</real><key>g</key><string>kept</string></dict>");

    EXPECT_EQ(stringsIn(xml), (Strings{{"g", "kept"}}));
    EXPECT_EQ(stringsIn(binaryOfXML(xml)), (Strings{{"g", "kept"}}));
}

TEST(LinuxPropertyList, AnEmptyDictionaryIsATable)
{
    EXPECT_EQ(stringsIn(xmlWithRoot("<dict/>")), Strings{});
    EXPECT_EQ(stringsIn(binaryOfXML(xmlWithRoot("<dict></dict>"))), Strings{});
}

TEST(LinuxPropertyList, AByteOrderMarkBeforeXMLIsSkipped)
{
    const std::string xml = xmlWithRoot("<dict><key>a</key><string>b</string></dict>");

    EXPECT_EQ(stringsIn("\xEF\xBB\xBF" + xml), (Strings{{"a", "b"}}));
}

TEST(LinuxPropertyList, ARootThatIsNoDictionaryIsRefused)
{
    for (const char* const root : {"<string>x</string>", "<array><dict/></array>", "<true/>", ""}) {
        EXPECT_EQ(stringsIn(xmlWithRoot(root)), std::nullopt) << root;
    }
    BinaryList list;
    EXPECT_EQ(stringsIn(list.build(list.text("x"))), std::nullopt);
    EXPECT_EQ(stringsIn(list.build(list.array({0}))), std::nullopt);
}

TEST(LinuxPropertyList, WhatIsNoPropertyListIsRefused)
{
    for (const std::string_view text :
         {"", " \n", "text", "<html><body/></html>", "<plist/>", "<", "\xEF\xBB\xBF", "bplist00",
          "bplist", "<dict><key>a</key><string>b</string></dict>"}) {
        EXPECT_EQ(stringsIn(text), std::nullopt) << text;
    }
}

TEST(LinuxPropertyList, OnlyXMLAndTheBinaryFormAreTaken)
{
    EXPECT_EQ(stringsIn("{\"a\": \"b\"}"), std::nullopt);
    EXPECT_EQ(stringsIn("{ a = b; }"), std::nullopt);
    EXPECT_EQ(stringsIn("{ a = \"</plist>\"; }"), std::nullopt);
}

TEST(LinuxPropertyList, XMLThatIsCutOffAnywhereIsRefused)
{
    const std::string xml = xmlWithRoot("<dict><key>a</key><string>b &amp; c</string></dict>");

    for (size_t size = 0; size < xml.find("</plist"); ++size) {
        EXPECT_EQ(stringsIn(std::string_view(xml).substr(0, size)), std::nullopt) << size;
    }
}

TEST(LinuxPropertyList, ABinaryListThatIsCutOffAnywhereIsRefused)
{
    const std::string binary =
        binaryOfXML(xmlWithRoot("<dict><key>a</key><string>b</string><key>c</key><array/></dict>"));

    for (size_t size = 0; size < binary.size(); ++size) {
        EXPECT_EQ(stringsIn(std::string_view(binary).substr(0, size)), std::nullopt) << size;
    }
}

TEST(LinuxPropertyList, DeeplyNestedXMLIsRefusedWithoutExhaustingTheStack)
{
    constexpr size_t kDepth = 400000;
    const std::string arrays = repeated("<array>", kDepth);

    EXPECT_EQ(stringsIn(xmlWithRoot("<dict><key>a</key>" + arrays + repeated("</array>", kDepth) +
                                    "</dict>")),
              std::nullopt);
    EXPECT_EQ(stringsIn(xmlWithRoot("<dict><key>a</key>" + arrays)), std::nullopt);
    EXPECT_EQ(stringsIn(xmlWithRoot(repeated("<dict><key>a</key>", kDepth) + "<true/>" +
                                    repeated("</dict>", kDepth))),
              std::nullopt);
}

TEST(LinuxPropertyList, XMLWhoseEntitiesTakeForeverIsRefused)
{
    const std::string entities = repeated("&lt;", 1000000);

    EXPECT_EQ(stringsIn(xmlWithRoot("<dict><key>a</key><string>" + entities + "</string></dict>")),
              std::nullopt);
}

TEST(LinuxPropertyList, ADeeplyNestedBinaryListIsRefused)
{
    BinaryList list(4);
    const size_t key = list.text("key");
    size_t inner = list.array({});
    for (int depth = 0; depth < 500000; ++depth) {
        inner = list.array({inner});
    }

    EXPECT_EQ(stringsIn(list.build(list.dictionary({key, inner}))), std::nullopt);
}

TEST(LinuxPropertyList, ABinaryListMayNestAThousandContainersAndNoMore)
{
    BinaryList list;
    const size_t key = list.text("key");
    size_t inner = list.array({});
    for (int depth = 2; depth < 1000; ++depth) {
        inner = list.array({inner});
    }

    EXPECT_TRUE(stringsIn(list.build(list.dictionary({key, inner}))));
    EXPECT_EQ(stringsIn(list.build(list.dictionary({key, list.array({inner})}))), std::nullopt);
}

TEST(LinuxPropertyList, ASmallObjectThatIsRepeatedVeryOftenIsRefused)
{
    for (const auto& [count, taken] : {std::pair(100000, true), std::pair(300000, false)}) {
        BinaryList list(4);
        const size_t key = list.text("key");
        const size_t many = list.array(std::vector<size_t>(static_cast<size_t>(count), key));
        EXPECT_EQ(stringsIn(list.build(list.dictionary({key, many}))).has_value(), taken) << count;
    }
}

TEST(LinuxPropertyList, ABinaryListThatContainsItselfIsRefused)
{
    BinaryList direct;
    const size_t key = direct.text("key");
    EXPECT_EQ(stringsIn(direct.build(direct.dictionary({key, 1}))), std::nullopt);

    BinaryList circle;
    circle.text("key");
    circle.array({2});
    circle.array({1});
    EXPECT_EQ(stringsIn(circle.build(circle.dictionary({0, 1}))), std::nullopt);
}

TEST(LinuxPropertyList, ABinaryListThatDoublesAtEveryLevelIsRefused)
{
    BinaryList list;
    const size_t key = list.text("key");
    size_t inner = list.array({});
    for (int level = 0; level < 60; ++level) {
        inner = list.array({inner, inner});
    }

    EXPECT_EQ(stringsIn(list.build(list.dictionary({key, inner}))), std::nullopt);
}

TEST(LinuxPropertyList, ALargeObjectThatIsRepeatedManyTimesIsRefused)
{
    BinaryList list(4);
    const size_t key = list.text("key");
    const size_t large = list.text(std::string(1 << 20, 'x'));
    const size_t many = list.array(std::vector<size_t>(20000, large));

    EXPECT_EQ(stringsIn(list.build(list.dictionary({key, many}))), std::nullopt);
}

TEST(LinuxPropertyList, CountsThatAreLargerThanTheFileAreRefused)
{
    for (const int kind : {0x4, 0x5, 0x6, 0xA, 0xC, 0xD}) {
        for (const uint64_t count : {uint64_t{100}, uint64_t{1} << 31, uint64_t{1} << 32,
                                     uint64_t{1} << 61, (uint64_t{1} << 63) + 1, UINT64_MAX}) {
            BinaryList list;
            const size_t key = list.text("key");
            const size_t huge = list.object(BinaryList::marker(kind, count));
            EXPECT_EQ(stringsIn(list.build(list.dictionary({key, huge}))), std::nullopt)
                << kind << " " << count;
            EXPECT_EQ(stringsIn(list.build(huge)), std::nullopt) << kind << " " << count;
        }
    }
}

TEST(LinuxPropertyList, TrailersThatPointOutsideAreRefused)
{
    BinaryList list;
    const size_t key = list.text("key");
    const std::string good = list.build(list.dictionary({key, list.text("value")}));
    const size_t trailer = good.size() - 32;
    ASSERT_TRUE(stringsIn(good));

    for (const size_t field : {6U, 7U}) {
        for (const int size : {0, 9, 16, 255}) {
            std::string bad = good;
            bad[trailer + field] = static_cast<char>(size);
            EXPECT_EQ(stringsIn(bad), std::nullopt) << field << " " << size;
        }
    }
    for (const size_t field : {8U, 16U, 24U}) {
        for (const uint64_t value : {uint64_t{good.size()}, uint64_t{1} << 32, UINT64_MAX}) {
            std::string bad = good;
            bad.replace(trailer + field, 8, BinaryList::number(value, 8));
            EXPECT_EQ(stringsIn(bad), std::nullopt) << field << " " << value;
        }
    }
}

TEST(LinuxPropertyList, ReferencesAndOffsetsBeyondTheObjectsAreRefused)
{
    BinaryList list;
    const size_t key = list.text("key");
    EXPECT_EQ(stringsIn(list.build(list.dictionary({key, 60000}))), std::nullopt);

    const std::string good = list.build(list.dictionary({key, key}));
    std::string bad = good;
    bad.replace(good.size() - 32 - 2 * 3, 2, "\xFF\xFF");  // where the key is
    EXPECT_EQ(stringsIn(bad), std::nullopt);
}

TEST(LinuxPropertyList, AKeyThatIsNoTextIsRefused)
{
    BinaryList list;
    const size_t number = list.object("\x10\x05");

    EXPECT_EQ(stringsIn(list.build(list.dictionary({number, number}))), std::nullopt);
}

TEST(LinuxPropertyList, AKeyThatHoldsANulIsRefused)
{
    BinaryList plain;
    const size_t key = plain.text(std::string("a\0b", 3));
    EXPECT_EQ(stringsIn(plain.build(plain.dictionary({key, key}))), std::nullopt);

    BinaryList wide;
    const size_t units = wide.units(std::u16string(u"\u0100\0b", 3));
    EXPECT_EQ(stringsIn(wide.build(wide.dictionary({units, units}))), std::nullopt);

    for (const std::string& nul :
         {std::string(1, '\0'), std::string("&#0;"), std::string("&#x0;")}) {
        EXPECT_EQ(stringsIn(xmlWithRoot("<dict><key>a" + nul + "b</key><string>c</string></dict>")),
                  std::nullopt);
    }
}

TEST(LinuxPropertyList, KeysAndTextsOfAnyUnitsAreReadWithoutHarm)
{
    std::mt19937 random(20260102);
    for (int round = 0; round < 20000; ++round) {
        BinaryList list;
        std::u16string units;
        std::string bytes;
        for (auto count = 1 + random() % 8; count > 0; --count) {
            const char16_t bases[] = {u'a',   u'\xFF', 0xD800, 0xDBFF,
                                      0xDC00, 0xDFFF,  0xFFFF, 0xFEFF};
            units.push_back(bases[random() % 8]);
            bytes.push_back(static_cast<char>(1 + random() % 255));
        }
        const size_t wide = list.units(units);
        const size_t narrow = list.text(bytes);
        EXPECT_TRUE(stringsIn(list.build(list.dictionary({wide, narrow, wide, narrow})))) << round;
    }
}

TEST(LinuxPropertyList, ListsThatWereDamagedAtRandomNeverCrash)
{
    const std::string xml = xmlWithRoot(
        "<dict><key>a</key><string>b&amp;\xC3\xA4</string><key>c</key><array><dict><key>d</key>"
        "<integer>7</integer></dict><date>2001-01-01T00:00:00Z</date></array><key>e</key>"
        "<data>AAECAw==</data><key>f</key><real>2.5</real></dict>");
    std::mt19937 random(20260101);
    int taken = 0;
    for (const std::string& sound : {xml, binaryOfXML(xml)}) {
        for (int round = 0; round < 20000; ++round) {
            std::string bytes = sound;
            for (auto change = 1 + random() % 4; change > 0; --change) {
                bytes[random() % bytes.size()] = static_cast<char>(random());
            }
            taken += PlatformStringsInPropertyList(bytes) ? 1 : 0;
        }
    }
    // Neither all nor none, or the damage would show nothing.
    EXPECT_GT(taken, 1000);
    EXPECT_LT(taken, 39000);
}

TEST(LinuxPropertyList, AnOrdinaryTableIsFarFromTheLimits)
{
    std::string entries;
    for (int index = 0; index < 2000; ++index) {
        entries += "<key>Message " + std::to_string(index) + " of %1$@</key><string>" +
                   repeated("&quot;\xC3\xA4&quot; ", 20) + "</string>";
    }
    const std::string xml = xmlWithRoot("<dict>" + entries + "</dict>");

    EXPECT_EQ(stringsIn(xml).value_or(Strings{}).size(), 2000U);
    EXPECT_EQ(stringsIn(binaryOfXML(xml)), stringsIn(xml));
}

}  // namespace
