#include "HFSPlus/HFSPlusAttributes.h"

#include <algorithm>
#include <cstring>

#include "HFSPlus/HFSPlusUnicode.h"
#include "KLKit/KLDebug.h"
#include "KLKit/KLStringUtilities.h"

namespace {

constexpr size_t kHeadSize = sizeof(HFSPlusAttrKeyHead);

/** The parts of a raw key; those beyond its end are 0 and empty. */
struct AttributeKey {
    explicit AttributeKey(std::span<const uint8_t> key)
    {
        std::memcpy(&head, key.data(), std::min(key.size(), kHeadSize));
        if (key.size() > kHeadSize) {
            const size_t nameSize = 2 * size_t{head.attrNameLength};
            name = key.subspan(kHeadSize, std::min(nameSize, key.size() - kHeadSize));
        }
    }

    HFSPlusAttrKeyHead head = {};
    std::span<const uint8_t> name;  // big-endian units
};

int compareNumbers(uint32_t left, uint32_t right)
{
    return left == right ? 0 : left < right ? -1 : 1;
}

}  // namespace

std::unique_ptr<HFSPlusAttributes> HFSPlusAttributes::initWithVolume(HFSPlusVolume& volume,
                                                                     VZDefragErrorSlot error)
{
    std::unique_ptr<HFSPlusAttributes> attributes(new HFSPlusAttributes(volume));
    if (!attributes->_open(error)) {
        return nullptr;
    }
    const HFSPlusAttributes& tree = *attributes;
    KLDebugLog(KLDebugLevel::kInfo,
               "Attributes size     = %@ (node size = %@, total nodes = %lu)\n",
               stringWithPrettySize(uint64_t{tree.nodeCount()} * tree.nodeSize()),
               stringWithPrettySize(tree.nodeSize()), tree.nodeCount());
    KLDebugLog(KLDebugLevel::kInfo,
               "Attributes root node = %lu (first leaf node = %lu, last leaf node = %lu)\n",
               tree.rootNode(), tree.firstLeafNode(), tree.lastLeafNode());
    return attributes;
}

HFSPlusAttributes::HFSPlusAttributes(HFSPlusVolume& volume)
    : HFSPlusBTreeFile(volume, kHFSAttributesFileID)
{
}

int HFSPlusAttributes::compare(std::span<const uint8_t> left, std::span<const uint8_t> right)
{
    const AttributeKey leftKey(left);
    const AttributeKey rightKey(right);
    int order = compareNumbers(leftKey.head.fileID, rightKey.head.fileID);
    if (order == 0) {
        order = HFSPlusBinaryUnicodeCompare(leftKey.name, rightKey.name);
    }
    if (order == 0) {
        order = compareNumbers(leftKey.head.startBlock, rightKey.head.startBlock);
    }
    return order;
}

bool HFSPlusAttributes::flush()
{
    return true;
}
