#include "HFSPlus/HFSPlusAttributesScanner.h"

#include <algorithm>
#include <cstring>

#include "HFSPlus/HFSPlusAttributes.h"
#include "HFSPlus/HFSPlusBTreeBulkIterator.h"
#include "HFSPlus/HFSPlusBTreeLeafSet.h"
#include "HFSPlus/HFSPlusFormatConversion.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "VZDefragTask.h"

namespace {

constexpr std::string_view kInconsistent = "Volume is inconsistent.";

/** A record of the attributes file: its key's head, and its data, which begin with a number. */
struct AttributeRecord {
    HFSPlusAttrKeyHead key = {};
    HFSPlusDiskOrder::UInt32 number = 0;  // of a leaf the record's type, else the child
    std::span<const uint8_t> data;

    /** False when the key has an impossible length or the record is too short. */
    [[nodiscard]] bool setBytes(std::span<const uint8_t> record)
    {
        if (record.size() < sizeof key) {
            return false;
        }
        std::memcpy(&key, record.data(), sizeof key);
        const size_t nameSize = 2 * size_t{key.attrNameLength};
        const size_t keySize = sizeof key.keyLength + key.keyLength;
        const bool isKey = key.keyLength % 2 == 0 && sizeof key + nameSize <= keySize &&
                           keySize <= sizeof key + 2 * kHFSPlusAttrMaxNameLength;
        if (!isKey || record.size() < keySize + sizeof number) {
            return false;
        }
        data = record.subspan(keySize);
        std::memcpy(&number, data.data(), sizeof number);
        return true;
    }

    /** The extents that the record holds, if any; false when it is too short for them. */
    [[nodiscard]] bool copyExtents(HFSPlusHostExtentRecord& extents) const
    {
        size_t offset = 0;
        switch (uint32_t{number}) {
            case kHFSPlusAttrForkData:
                offset = offsetof(HFSPlusAttrForkDataRecord, fork.extents);
                break;
            case kHFSPlusAttrExtents:
                offset = offsetof(HFSPlusAttrExtentsRecord, extents);
                break;
            default:
                extents = {};
                return true;
        }
        HFSPlusExtentRecord stored;
        if (data.size() < offset + sizeof stored) {
            return false;
        }
        std::memcpy(&stored, data.data() + offset, sizeof stored);
        extents = hostOrder(stored);
        return true;
    }
};

std::optional<uint32_t> childOfIndexRecord(std::span<const uint8_t> bytes)
{
    AttributeRecord record;
    return record.setBytes(bytes) ? std::optional<uint32_t>(record.number) : std::nullopt;
}

}  // namespace

bool HFSPlusAttributesScanner::scanForkExtents(const Visitor& visit, VZDefragErrorSlot error)
{
    if (_volume.attributes() == nullptr) {
        return true;
    }
    const auto iterator = HFSPlusBTreeBulkIterator::initWithBTree(*_volume.attributes(), error);
    if (iterator == nullptr) {
        return false;
    }
    HFSPlusBTreeLeafSet leaves(*_volume.attributes(), childOfIndexRecord);
    while (true) {
        HFSPlusCachedNode node;
        if (!VZDefragCheckNotAborted(error) || !iterator->nextCachedNode(node, error)) {
            return false;
        }
        if (!node) {
            return leaves.checkIndex(kInconsistent, error);
        }
        if (node->kind() == kBTLeafNode &&
            (!leaves.addLeaf(*node, kInconsistent, error) || !_scanLeaf(*node, visit, error))) {
            return false;
        }
    }
}

bool HFSPlusAttributesScanner::_scanLeaf(const HFSPlusBTreeNode& node, const Visitor& visit,
                                         VZDefragErrorSlot error)
{
    if (!node.hasSoundRecords()) {
        return VZDefragFail(error, kInconsistent);
    }
    for (uint32_t index = 0; index < node.recordCount(); ++index) {
        AttributeRecord record;
        HFSPlusHostExtentRecord extents;
        if (!record.setBytes(node.recordAtIndex(index)) || !record.copyExtents(extents)) {
            return VZDefragFail(error, kInconsistent);
        }
        for (const HFSPlusHostExtentDescriptor& extent : extents) {
            if (!extent.isEmpty() && !visit(extent, record.key.fileID, error)) {
                return false;
            }
        }
    }
    return true;
}
