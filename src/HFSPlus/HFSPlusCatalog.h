#pragma once

#include <array>
#include <string>
#include <string_view>

#include "HFSPlus/HFSPlusBTreeFile.h"
#include "HFSPlus/HFSPlusCatalogKey.h"

/** What a lookup found, in host order. */
struct HFSPlusCatalogLookupRecord {
    uint16_t recordType = 0;  // 0 nothing; a thread's only where a thread leads to a thread
    uint16_t keyLength = 0;
    uint32_t parentID = 0;
    uint16_t nameLength = 0;  // UTF-16 units
    std::array<uint16_t, kHFSPlusMaxFileNameLength> name = {};
    HFSPlusHostCatalogFolder folder = {};  // with recordType folder
    HFSPlusHostCatalogFile file = {};      // with recordType file

    [[nodiscard]] bool isFile() const { return recordType == kHFSPlusFileRecord; }
    [[nodiscard]] bool isFolder() const { return recordType == kHFSPlusFolderRecord; }
    [[nodiscard]] uint32_t cnid() const { return isFile() ? file.fileID : folder.folderID; }
};

/** Receives the children of a folder, in disk order; valid during the call only. */
class HFSPlusCatalogFolderDelegate {
public:
    virtual ~HFSPlusCatalogFolderDelegate() = default;
    virtual void iterateFolderWillStart() {}
    /** @p key is the whole key with its name; false ends the walk with @p error. */
    [[nodiscard]] virtual bool iterateFolderFile(const HFSPlusCatalogFile& file,
                                                 std::span<const uint8_t> key,
                                                 VZDefragErrorSlot error) = 0;
    [[nodiscard]] virtual bool iterateFolderFolder(const HFSPlusCatalogFolder& folder,
                                                   std::span<const uint8_t> key,
                                                   VZDefragErrorSlot error) = 0;
    virtual void iterateFolderDidFinish() {}
};

/** The catalog file (TN1150, "Catalog File"): finds records by ID and by path, rewrites extents.
 *
 *  Every search goes down from the root and takes at most kBTMaxTreeDepth nodes; keys and records
 *  are checked before they are believed. No record is ever inserted or deleted here.
 */
class HFSPlusCatalog : public HFSPlusBTreeFile {
public:
    [[nodiscard]] static std::unique_ptr<HFSPlusCatalog> initWithVolume(HFSPlusVolume& volume,
                                                                        VZDefragErrorSlot error);

    /** Order of two raw keys whose names lie inside them. */
    [[nodiscard]] int compare(std::span<const uint8_t> left, std::span<const uint8_t> right) const;
    /** Finding nothing succeeds with record type 0. A thread that leads to a thread gives the
     *  type of that one, and no record. */
    [[nodiscard]] bool copyRecordForCNID(HFSPlusCatalogLookupRecord& record, uint32_t cnid,
                                         VZDefragErrorSlot error);
    /** Finds "/folder/name", UTF-8; ":" in @p path also stands for a "/" in a name.
     *
     *  Succeeds whether or not all of it exists. A missing first component leaves record type 0,
     *  as does one with a ":"; any other missing component leaves the last one that was found.
     */
    [[nodiscard]] bool copyRecordForPath(HFSPlusCatalogLookupRecord& record, std::string_view path,
                                         VZDefragErrorSlot error);
    /** The same, but leaves record type 0 unless all of it exists, the parents being folders. */
    [[nodiscard]] bool copyRecordForWholePath(HFSPlusCatalogLookupRecord& record,
                                              std::string_view path, VZDefragErrorSlot error);
    /** The path of @p cnid, UTF-8, "/" in names shown as ":"; special files have fixed names.
     *
     *  Empty for the root folder and the IDs below it, and for an ID that cannot be followed up to
     *  the root folder because it or one of its parents is not in the catalog.
     */
    [[nodiscard]] bool copyPathForCNID(std::string& path, uint32_t cnid, VZDefragErrorSlot error);
    /** Hands the children of @p folderID to @p delegate in key order.
     *
     *  What follows the folder in the catalog ends the walk; without anything, it fails.
     */
    [[nodiscard]] bool iterateFolderID(uint32_t folderID, HFSPlusCatalogFolderDelegate& delegate,
                                       VZDefragErrorSlot error);
    /** Replaces the first eight extents of a fork, and makes it empty with @p setZeroLength.
     *
     *  The change reaches the disk with flush().
     */
    [[nodiscard]] bool updateForkExtents(const HFSPlusHostExtentRecord& extents, uint32_t fileID,
                                         uint8_t forkType, bool setZeroLength,
                                         VZDefragErrorSlot error);

private:
    /** Where a key is, or would be, in its leaf. */
    struct Position {
        HFSPlusCachedNode node;
        uint32_t index = 0;  // of the first record that is not less; recordCount() for none
        bool isEqual = false;
    };
    using KeyCompareProc = int (*)(std::span<const uint8_t>, std::span<const uint8_t>);

    explicit HFSPlusCatalog(HFSPlusVolume& volume);
    [[nodiscard]] bool _initWithVolume(VZDefragErrorSlot error);
    [[nodiscard]] bool _recordAtIndex(const HFSPlusBTreeNode& node, uint32_t index,
                                      HFSPlusCatalogRecord& record, VZDefragErrorSlot error) const;
    [[nodiscard]] bool _findInNode(const HFSPlusCatalogKey& key, Position& position,
                                   VZDefragErrorSlot error) const;
    [[nodiscard]] bool _find(const HFSPlusCatalogKey& key, Position& position,
                             VZDefragErrorSlot error);
    [[nodiscard]] bool _findObjectKey(uint32_t cnid, HFSPlusCatalogKey& key, bool& found,
                                      VZDefragErrorSlot error);
    [[nodiscard]] bool _copyRecordForKey(HFSPlusCatalogLookupRecord& record,
                                         const HFSPlusCatalogKey& key, uint16_t& type,
                                         VZDefragErrorSlot error);
    [[nodiscard]] bool _walkPath(HFSPlusCatalogLookupRecord& record, std::string_view path,
                                 bool& complete, VZDefragErrorSlot error);
    [[nodiscard]] bool _walkFolder(uint32_t folderID, HFSPlusCatalogFolderDelegate& delegate,
                                   VZDefragErrorSlot error);
    [[nodiscard]] bool _walkFolderInNode(uint32_t folderID, const Position& position,
                                         HFSPlusCatalogFolderDelegate& delegate, bool& ended,
                                         VZDefragErrorSlot error) const;

    bool _binaryKeyCompare = false;
    KeyCompareProc _keyCompareProc = nullptr;  // the one that _binaryKeyCompare stands for
};
