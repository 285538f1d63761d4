#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "HFSPlus/HFSPlusBTreeFormat.h"
#include "VZDefragError.h"

class HFSPlusBTreeFile;

/** One node of a B-tree in memory, in disk order (TN1150, "Node Structure").
 *
 *  What comes from disk is checked by hasSoundRecords() before any record is looked at; after
 *  that every record index below recordCount() lies inside the node, and the edits below keep it
 *  so. An edit that is refused changes nothing and fails with an internal error.
 */
class HFSPlusBTreeNode {
public:
    /** A node from @p data, or read from disk when that is empty. */
    [[nodiscard]] static std::unique_ptr<HFSPlusBTreeNode> initWithBTree(
        HFSPlusBTreeFile& btree, uint32_t index, std::span<const uint8_t> data,
        VZDefragErrorSlot error);

    [[nodiscard]] uint32_t index() const { return _index; }
    [[nodiscard]] uint32_t size() const { return _size; }  // bytes
    [[nodiscard]] std::span<const uint8_t> bytes() const { return {_data.get(), _size}; }
    [[nodiscard]] uint32_t fLink() const { return _descriptor().fLink; }
    [[nodiscard]] uint32_t bLink() const { return _descriptor().bLink; }
    [[nodiscard]] int8_t kind() const { return _descriptor().kind; }
    [[nodiscard]] uint8_t height() const { return _descriptor().height; }
    [[nodiscard]] uint16_t recordCount() const { return _descriptor().numRecords; }
    void setFLink(uint32_t index);
    void setBLink(uint32_t index);
    void setKind(int8_t kind);
    void setHeight(uint8_t height);

    /** Whether the record offsets are even, ascending and inside the node. */
    [[nodiscard]] bool hasSoundRecords() const;
    /** What its tree has found good already, so that a node in the cache is not checked again.
     *
     *  Edits keep a good node good; bytes that come from elsewhere begin unchecked.
     */
    enum class Checked : uint8_t { kNothing, kOffsets, kRecords };
    [[nodiscard]] Checked checked() const { return _checked; }
    void setChecked(Checked checked) { _checked = checked; }
    /** Record @p index, writable in place; aborts beyond the last record. */
    [[nodiscard]] uint8_t* recordDataAtIndex(uint32_t index);
    [[nodiscard]] uint16_t recordSizeAtIndex(uint32_t index) const;
    /** Record @p index, empty where it would leave an unsound node. */
    [[nodiscard]] std::span<const uint8_t> recordAtIndex(uint32_t index) const;
    /** Record @p index as a structure, or null when the record is too short for it at @p offset. */
    template <typename T>
    [[nodiscard]] const T* recordAs(uint32_t index, size_t offset = 0) const
    {
        static_assert(alignof(T) == 1);
        const std::span<const uint8_t> record = recordAtIndex(index);
        if (record.size() < offset || record.size() - offset < sizeof(T)) {
            return nullptr;
        }
        return reinterpret_cast<const T*>(record.data() + offset);
    }
    /** Bytes between the last record and the offsets table. */
    [[nodiscard]] uint32_t freeSpace() const;

    void setupNewNode(int8_t kind);
    /** All bytes zero, as nodes that are given up are left. */
    void zero();
    /** Replaces the data of a record behind an unchanged key. */
    [[nodiscard]] bool setRecordData(std::span<const uint8_t> record, uint32_t index,
                                     VZDefragErrorSlot error);
    /** Refuses a record that would leave the node exactly full. Counts records of leaves. */
    [[nodiscard]] bool insertRecordData(std::span<const uint8_t> record, uint32_t index,
                                        VZDefragErrorSlot error);
    /** Only for nodes whose records all have one size: the offsets table stays as it is. */
    [[nodiscard]] bool deleteRecordAtIndex(uint32_t index, VZDefragErrorSlot error);

    [[nodiscard]] bool dirty() const { return _dirty; }
    void setDirty(bool dirty) { _dirty = dirty; }
    /** Writes a changed node. A write that fails is logged and not tried again. */
    [[nodiscard]] bool flush();

private:
    friend class HFSPlusBTreeFile;

    HFSPlusBTreeNode(HFSPlusBTreeFile& btree, uint32_t index);
    [[nodiscard]] const BTNodeDescriptor& _descriptor() const;
    [[nodiscard]] BTNodeDescriptor& _descriptor();
    [[nodiscard]] uint16_t _offsetAtIndex(uint32_t index) const;
    void _setOffsetAtIndex(uint32_t index, uint16_t offset);

    HFSPlusBTreeNode* _cachePrevLink = nullptr;  // queue links, null while referenced
    HFSPlusBTreeNode* _cacheNextLink = nullptr;
    bool _cacheParked = false;  // changed, unreferenced and kept from eviction
    uint32_t _cacheRetainCount = 0;
    HFSPlusBTreeFile& _btree;
    uint32_t _index;
    uint32_t _size;  // bytes
    std::unique_ptr<uint8_t[]> _data;
    bool _dirty = false;
    Checked _checked = Checked::kNothing;
};
