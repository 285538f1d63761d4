#include "support/HFSPlusVolumeCheckerKeys.h"

#include <algorithm>
#include <array>

#include "support/HFSPlusVolumeCheckerBase.h"

namespace {

using Key = HFSPlusCheckKeyRule::Key;

/** Units from first to last, by step, fold to folded, folded + step and so on; all to 0 if that. */
struct FoldedRange {
    uint16_t first;
    uint16_t last;
    uint16_t step;
    uint16_t folded;
};

// Sorted by first; gaps fold to themselves (TN1150, "Case-Insensitive String Comparison").
constexpr std::array<FoldedRange, 73> kFoldedRanges = {{
    {0x0000, 0x0000, 1, 0xFFFF}, {0x0041, 0x005A, 1, 0x0061}, {0x00C6, 0x00C6, 1, 0x00E6},
    {0x00D0, 0x00D0, 1, 0x00F0}, {0x00D8, 0x00D8, 1, 0x00F8}, {0x00DE, 0x00DE, 1, 0x00FE},
    {0x0110, 0x0110, 1, 0x0111}, {0x0126, 0x0126, 1, 0x0127}, {0x0132, 0x0132, 1, 0x0133},
    {0x013F, 0x0141, 2, 0x0140}, {0x014A, 0x014A, 1, 0x014B}, {0x0152, 0x0152, 1, 0x0153},
    {0x0166, 0x0166, 1, 0x0167}, {0x0181, 0x0181, 1, 0x0253}, {0x0182, 0x0184, 2, 0x0183},
    {0x0186, 0x0186, 1, 0x0254}, {0x0187, 0x0187, 1, 0x0188}, {0x0189, 0x018A, 1, 0x0256},
    {0x018B, 0x018B, 1, 0x018C}, {0x018E, 0x018E, 1, 0x01DD}, {0x018F, 0x018F, 1, 0x0259},
    {0x0190, 0x0190, 1, 0x025B}, {0x0191, 0x0191, 1, 0x0192}, {0x0193, 0x0193, 1, 0x0260},
    {0x0194, 0x0194, 1, 0x0263}, {0x0196, 0x0196, 1, 0x0269}, {0x0197, 0x0197, 1, 0x0268},
    {0x0198, 0x0198, 1, 0x0199}, {0x019C, 0x019C, 1, 0x026F}, {0x019D, 0x019D, 1, 0x0272},
    {0x019F, 0x019F, 1, 0x0275}, {0x01A2, 0x01A4, 2, 0x01A3}, {0x01A7, 0x01A7, 1, 0x01A8},
    {0x01A9, 0x01A9, 1, 0x0283}, {0x01AC, 0x01AC, 1, 0x01AD}, {0x01AE, 0x01AE, 1, 0x0288},
    {0x01B1, 0x01B2, 1, 0x028A}, {0x01B3, 0x01B5, 2, 0x01B4}, {0x01B7, 0x01B7, 1, 0x0292},
    {0x01B8, 0x01B8, 1, 0x01B9}, {0x01BC, 0x01BC, 1, 0x01BD}, {0x01C4, 0x01C4, 1, 0x01C6},
    {0x01C5, 0x01C5, 1, 0x01C6}, {0x01C7, 0x01C7, 1, 0x01C9}, {0x01C8, 0x01C8, 1, 0x01C9},
    {0x01CA, 0x01CA, 1, 0x01CC}, {0x01CB, 0x01CB, 1, 0x01CC}, {0x01E4, 0x01E4, 1, 0x01E5},
    {0x01F1, 0x01F1, 1, 0x01F3}, {0x01F2, 0x01F2, 1, 0x01F3}, {0x0391, 0x03A1, 1, 0x03B1},
    {0x03A3, 0x03A9, 1, 0x03C3}, {0x03E2, 0x03EE, 2, 0x03E3}, {0x0402, 0x0404, 2, 0x0452},
    {0x0405, 0x0406, 1, 0x0455}, {0x0408, 0x040B, 1, 0x0458}, {0x040F, 0x040F, 1, 0x045F},
    {0x0410, 0x0418, 1, 0x0430}, {0x041A, 0x042F, 1, 0x043A}, {0x0460, 0x0474, 2, 0x0461},
    {0x0478, 0x0480, 2, 0x0479}, {0x0490, 0x04BE, 2, 0x0491}, {0x04C3, 0x04C3, 1, 0x04C4},
    {0x04C7, 0x04C7, 1, 0x04C8}, {0x04CB, 0x04CB, 1, 0x04CC}, {0x0531, 0x0556, 1, 0x0561},
    {0x10A0, 0x10C5, 1, 0x10D0}, {0x200C, 0x200F, 1, 0x0000}, {0x202A, 0x202E, 1, 0x0000},
    {0x206A, 0x206F, 1, 0x0000}, {0x2160, 0x216F, 1, 0x2170}, {0xFEFF, 0xFEFF, 1, 0x0000},
    {0xFF21, 0xFF3A, 1, 0xFF41},
}};

template <typename Number>
int compareNumbers(Number left, Number right)
{
    return left < right ? -1 : (left > right ? 1 : 0);
}

int compareBytes(Key left, Key right)
{
    const size_t size = std::min(left.size(), right.size());
    const int order = size == 0 ? 0 : std::memcmp(left.data(), right.data(), size);
    return order != 0 ? order : compareNumbers(left.size(), right.size());
}

/** The next folded unit that counts, or 0 at the end; @p name loses what was looked at. */
uint16_t nextFoldedUnit(Key& name)
{
    while (name.size() >= 2) {
        const uint16_t folded = checkedFoldedUnit(checkedUInt16(name.data()));
        name = name.subspan(2);
        if (folded != 0) {
            return folded;
        }
    }
    return 0;
}

int compareFolded(Key left, Key right)
{
    // Both names get shorter until they differ or both have run out.
    while (true) {
        const uint16_t leftUnit = nextFoldedUnit(left);
        const uint16_t rightUnit = nextFoldedUnit(right);
        if (leftUnit != rightUnit) {
            return compareNumbers(leftUnit, rightUnit);
        }
        if (leftUnit == 0) {
            return 0;
        }
    }
}

}  // namespace

uint16_t checkedFoldedUnit(uint16_t unit)
{
    const auto* after = std::upper_bound(
        kFoldedRanges.begin(), kFoldedRanges.end(), unit,
        [](uint16_t value, const FoldedRange& range) { return value < range.first; });
    const FoldedRange& range = *std::prev(after);  // the first range begins at 0
    if (unit > range.last || (unit - range.first) % range.step != 0) {
        return unit;
    }
    return range.folded == 0 ? uint16_t{0}
                             : static_cast<uint16_t>(range.folded + (unit - range.first));
}

bool HFSPlusCheckCatalogKeyRule::isValid(Key key) const
{
    if (key.size() < 8) {
        return false;
    }
    const size_t nameLength = checkedUInt16(key.data() + 6);
    return nameLength <= 255 && key.size() == 8 + 2 * nameLength;
}

int HFSPlusCheckCatalogKeyRule::compare(Key left, Key right) const
{
    const uint32_t leftParent = checkedUInt32(left.data() + 2);
    const uint32_t rightParent = checkedUInt32(right.data() + 2);
    if (leftParent != rightParent) {
        return compareNumbers(leftParent, rightParent);
    }
    return _isBinary ? compareBytes(left.subspan(8), right.subspan(8))
                     : compareFolded(left.subspan(8), right.subspan(8));
}

bool HFSPlusCheckExtentsKeyRule::isValid(Key key) const
{
    return key.size() == 12 &&
           (key[2] == kHFSPlusCheckDataFork || key[2] == kHFSPlusCheckResourceFork);
}

int HFSPlusCheckExtentsKeyRule::compare(Key left, Key right) const
{
    const int byFile = compareBytes(left.subspan(4, 4), right.subspan(4, 4));
    if (byFile != 0) {
        return byFile;
    }
    const int byFork = compareNumbers(left[2], right[2]);
    return byFork != 0 ? byFork : compareBytes(left.subspan(8, 4), right.subspan(8, 4));
}

bool HFSPlusCheckAttributesKeyRule::isValid(Key key) const
{
    if (key.size() < 14) {
        return false;
    }
    const size_t nameLength = checkedUInt16(key.data() + 12);
    return nameLength <= 127 && key.size() == 14 + 2 * nameLength;
}

int HFSPlusCheckAttributesKeyRule::compare(Key left, Key right) const
{
    const int byFile = compareBytes(left.subspan(4, 4), right.subspan(4, 4));
    if (byFile != 0) {
        return byFile;
    }
    const int byName = compareBytes(left.subspan(14), right.subspan(14));
    return byName != 0 ? byName : compareBytes(left.subspan(8, 4), right.subspan(8, 4));
}
