#include "support/HFSPlusVolumeBuilderNames.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace {

struct Folding {
    char16_t unit;
    char16_t folded;
};

constexpr Folding kFoldings[] = {
#include "HFSPlusVolumeBuilderFoldings.inc"
};

/** The folded unit of every 16-bit unit. */
const std::array<char16_t, 65536>& foldingTable()
{
    static const std::array<char16_t, 65536> table = [] {
        std::array<char16_t, 65536> made{};
        for (size_t unit = 0; unit < made.size(); unit++) {
            made[unit] = static_cast<char16_t>(unit);
        }
        for (const Folding& folding : kFoldings) {
            made[folding.unit] = folding.folded;
        }
        return made;
    }();
    return table;
}

/** The next folded unit that counts, or 0 when the name has run out. */
char16_t nextFolded(std::u16string_view name, size_t& index)
{
    while (index < name.size()) {
        const char16_t folded = foldingTable()[name[index++]];
        if (folded != 0) {
            return folded;
        }
    }
    return 0;
}

void appendCodePoint(std::u16string& units, uint32_t code)
{
    if (code < 0x10000) {
        units.push_back(static_cast<char16_t>(code));
        return;
    }
    units.push_back(static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10)));
    units.push_back(static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF)));
}

}  // namespace

std::u16string unitsOfText(std::string_view text)
{
    std::u16string units;
    size_t index = 0;
    while (index < text.size()) {
        const uint8_t lead = static_cast<uint8_t>(text[index++]);
        const size_t more = lead < 0xC0 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
        if ((lead >= 0x80 && lead < 0xC0) || lead >= 0xF8 || text.size() - index < more) {
            units.push_back(0xFFFD);
            continue;
        }
        uint32_t code = more == 0 ? lead : lead & (0x3FU >> more);
        for (size_t count = 0; count < more; count++) {
            code = code << 6 | (static_cast<uint8_t>(text[index++]) & 0x3FU);
        }
        appendCodePoint(units, code);
    }
    return units;
}

std::vector<std::u16string> unitsOfPath(std::string_view path)
{
    std::vector<std::u16string> components;
    size_t start = 0;
    while (start < path.size()) {
        const size_t end = std::min(path.find('/', start), path.size());
        if (end > start) {
            components.push_back(unitsOfText(path.substr(start, end - start)));
            std::ranges::replace(components.back(), u':', u'/');
        }
        start = end + 1;
    }
    return components;
}

int compareNames(std::u16string_view one, std::u16string_view two, bool binary)
{
    if (binary) {
        const size_t common = std::min(one.size(), two.size());
        for (size_t index = 0; index < common; index++) {
            if (one[index] != two[index]) {
                return one[index] < two[index] ? -1 : 1;
            }
        }
        return one.size() == two.size() ? 0 : one.size() < two.size() ? -1 : 1;
    }
    size_t indexOne = 0;
    size_t indexTwo = 0;
    while (true) {  // ends when both names have run out, as each step consumes a unit of one
        const char16_t unitOne = nextFolded(one, indexOne);
        const char16_t unitTwo = nextFolded(two, indexTwo);
        if (unitOne != unitTwo) {
            return unitOne < unitTwo ? -1 : 1;
        }
        if (unitOne == 0) {
            return 0;
        }
    }
}
