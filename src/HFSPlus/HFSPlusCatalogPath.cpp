#include "HFSPlus/HFSPlusCatalogPath.h"

#include <cerrno>

#include "HFSPlus/HFSPlusFormat.h"
#include "HFSPlus/HFSPlusUnicode.h"
#include "VZDefragStringUtilities.h"

namespace {

// The numbers in "An error %1$ld occurred.", of the kind that text converters give.
constexpr int kNotUnicodeStatus = EILSEQ;
constexpr int kDecomposedNameTooLongStatus = E2BIG;

constexpr std::string_view kComponentTooLong =
    "Unicode path conversion failed. A path component exceeded the maximum allowed length.";
constexpr std::string_view kConversionFailed =
    "Unicode path conversion failed. An error %1$ld occurred.";

}  // namespace

bool HFSPlusTakePathComponent(std::string_view& path, std::string_view& component)
{
    const size_t start = path.find_first_not_of('/');
    if (start == std::string_view::npos) {
        return false;
    }
    path.remove_prefix(start);
    component = path.substr(0, path.find('/'));
    path.remove_prefix(component.size());
    return true;
}

bool HFSPlusCatalogName(std::string_view component, std::u16string& name, VZDefragErrorSlot error)
{
    std::u16string units;
    if (!unicodeUnitsOfString(component, units)) {
        return VZDefragFail(error, kConversionFailed, kNotUnicodeStatus);
    }
    if (units.size() > kHFSPlusMaxFileNameLength) {
        return VZDefragFail(error, kComponentTooLong);
    }
    name = HFSPlusDecomposedName(units);
    if (name.size() > kHFSPlusMaxFileNameLength) {
        return VZDefragFail(error, kConversionFailed, kDecomposedNameTooLongStatus);
    }
    return true;
}

std::string_view HFSPlusSpecialFileName(uint32_t cnid)
{
    switch (cnid) {
        case kHFSExtentsFileID:
            return "(HFS+ Extents File)";
        case kHFSCatalogFileID:
            return "(HFS+ Catalog File)";
        case kHFSBadBlockFileID:
            return "(HFS+ Bad Block File)";
        case kHFSAllocationFileID:
            return "(HFS+ Allocation File)";
        case kHFSStartupFileID:
            return "(HFS+ Startup File)";
        case kHFSAttributesFileID:
            return "(HFS+ Attributes File)";
        default:
            return {};
    }
}

bool HFSPlusCatalogPath::prependName(std::span<const uint8_t> name, VZDefragErrorSlot error)
{
    const size_t length = name.size() / 2;
    if (length + 1 > _start) {
        return VZDefragFail(error, kComponentTooLong);
    }
    _start -= length + 1;
    _units[_start] = u'/';
    for (size_t index = 0; index < length; ++index) {
        const auto unit = static_cast<uint16_t>(name[2 * index] << 8 | name[2 * index + 1]);
        _units[_start + 1 + index] = unit == u'/' ? uint16_t{u':'} : unit;
    }
    return true;
}

std::string HFSPlusCatalogPath::string() const
{
    return stringWithUnicodeUnits(std::span<const uint16_t>(_units).subspan(_start));
}
