#include "HFSPlus/HFSPlusUnicode.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "HFSPlus/HFSPlusUnicodeTables.h"

namespace {

// Hangul syllables decompose by arithmetic (The Unicode Standard, "Conjoining Jamo Behavior").
constexpr uint16_t kFirstSyllable = 0xAC00;
constexpr uint16_t kLastSyllable = 0xD7A3;
constexpr uint16_t kFirstLeadingJamo = 0x1100;
constexpr uint16_t kFirstVowelJamo = 0x1161;
constexpr uint16_t kBeforeTrailingJamo = 0x11A7;
constexpr unsigned kTrailingCount = 28;        // none included
constexpr unsigned kSyllablesPerLead = 588;    // vowels times trailing jamos
constexpr uint16_t kFirstDecomposed = 0x00C0;  // everything below stays as it is

/** The units of one name that the case-folding comparison does not ignore, one after another. */
class FoldedUnits {
public:
    explicit FoldedUnits(std::span<const uint8_t> name)
        : _next(name.data()), _end(name.data() + name.size() / 2 * 2)
    {
    }

    /** The next folded unit, 0 once the name has run out. */
    uint16_t next()
    {
        while (_next != _end) {
            const auto unit = static_cast<uint16_t>(_next[0] << 8 | _next[1]);
            _next += 2;
            const uint16_t folded = HFSPlusFoldedUnit(unit);
            if (folded != 0) {
                return folded;
            }
        }
        return 0;
    }

private:
    const uint8_t* _next;
    const uint8_t* _end;
};

void appendSyllable(std::u16string& decomposed, uint16_t unit)
{
    const unsigned syllable = unit - unsigned{kFirstSyllable};
    const unsigned trailing = syllable % kTrailingCount;
    const auto append = [&decomposed](unsigned jamo) {
        decomposed.push_back(static_cast<char16_t>(jamo));
    };
    append(kFirstLeadingJamo + syllable / kSyllablesPerLead);
    append(kFirstVowelJamo + syllable % kSyllablesPerLead / kTrailingCount);
    if (trailing != 0) {
        append(kBeforeTrailingJamo + trailing);
    }
}

void appendDecomposed(std::u16string& decomposed, uint16_t unit)
{
    if (unit < kFirstDecomposed) {
        decomposed.push_back(unit);
        return;
    }
    if (unit >= kFirstSyllable && unit <= kLastSyllable) {
        appendSyllable(decomposed, unit);
        return;
    }
    const auto* const found =
        std::lower_bound(kDecomposedUnits.begin(), kDecomposedUnits.end(), unit);
    if (found == kDecomposedUnits.end() || *found != unit) {
        decomposed.push_back(unit);
        return;
    }
    const auto row = static_cast<size_t>(std::distance(kDecomposedUnits.begin(), found));
    for (size_t part = kDecompositionStarts[row]; part < kDecompositionStarts[row + 1]; ++part) {
        decomposed.push_back(kDecompositions[part]);
    }
}

uint8_t combiningClass(char16_t unit)
{
    const auto* const run = std::lower_bound(kCombiningRuns.begin(), kCombiningRuns.end(), unit,
                                             [](const HFSPlusCombiningRun& candidate,
                                                char16_t value) { return candidate.last < value; });
    return run != kCombiningRuns.end() && run->first <= unit ? run->combiningClass : uint8_t{0};
}

/** Puts every run of combining marks in the order of their classes. */
void orderCombiningMarks(std::u16string& name)
{
    const auto isBase = [](char16_t unit) { return combiningClass(unit) == 0; };
    auto next = name.begin();
    while (next != name.end()) {
        const auto first = std::find_if_not(next, name.end(), isBase);
        next = std::find_if(first, name.end(), isBase);
        // Marks of one class keep their order, since swapping them would show another letter.
        std::stable_sort(first, next, [](char16_t left, char16_t right) {
            return combiningClass(left) < combiningClass(right);
        });
    }
}

}  // namespace

uint16_t HFSPlusFoldedUnit(uint16_t unit)
{
    const uint8_t page = kFoldPageOfHighByte[unit >> 8];
    return page == kFoldsToItself ? unit : kFoldPages[page][unit & 0xFF];
}

int HFSPlusFastUnicodeCompare(std::span<const uint8_t> left, std::span<const uint8_t> right)
{
    FoldedUnits leftUnits(left);
    FoldedUnits rightUnits(right);
    while (true) {
        const uint16_t leftUnit = leftUnits.next();
        const uint16_t rightUnit = rightUnits.next();
        if (leftUnit != rightUnit) {
            return leftUnit < rightUnit ? -1 : 1;
        }
        if (leftUnit == 0) {
            return 0;
        }
    }
}

int HFSPlusBinaryUnicodeCompare(std::span<const uint8_t> left, std::span<const uint8_t> right)
{
    // Bytes order big-endian units as the units themselves would.
    const size_t common = std::min(left.size(), right.size());
    const int order = common == 0 ? 0 : std::memcmp(left.data(), right.data(), common);
    if (order != 0) {
        return order;
    }
    return left.size() == right.size() ? 0 : left.size() < right.size() ? -1 : 1;
}

std::u16string HFSPlusDecomposedName(std::u16string_view name)
{
    std::u16string decomposed;
    decomposed.reserve(name.size());
    for (const char16_t unit : name) {
        appendDecomposed(decomposed, unit);
    }
    orderCombiningMarks(decomposed);
    return decomposed;
}
