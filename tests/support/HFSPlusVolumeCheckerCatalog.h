#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "support/HFSPlusVolumeCheckerBase.h"
#include "support/HFSPlusVolumeCheckerOverflow.h"
#include "support/HFSPlusVolumeCheckerTree.h"

/** Checks what the catalog's records say about each other, and collects the forks.
 *
 *  Keeps 16 to 24 bytes for each record, whatever the length of its name: names are compared by a
 *  64-bit hash.
 */
class HFSPlusCheckCatalog final : public HFSPlusCheckLeafVisitor {
public:
    HFSPlusCheckCatalog(const HFSPlusCheckedVolume& volume, HFSPlusCheckOverflow& overflow,
                        HFSPlusCheckResult& result, bool collectForks)
        : _volume(volume), _overflow(overflow), _result(result), _collectForks(collectForks)
    {
    }

    void visitRecord(std::span<const uint8_t> key, std::span<const uint8_t> data) override;

    /** Compares records, threads, valences and the header's counts; after the walk. */
    void finish();

    /** Whether there is a file or folder @p cnid. After finish(). */
    [[nodiscard]] bool hasObject(uint32_t cnid) const;

    /** Files and folders whose records say that they have attributes, ascending. After finish(). */
    [[nodiscard]] const std::vector<uint32_t>& objectsWithAttributes() const
    {
        return _withAttributes;
    }

    /** The data fork extents of "/.journal" and "/.journal_info_block"; empty when not there. */
    [[nodiscard]] const std::vector<HFSPlusCheckedExtent>& journalExtents() const
    {
        return _journalExtents;
    }
    [[nodiscard]] const std::vector<HFSPlusCheckedExtent>& journalInfoExtents() const
    {
        return _journalInfoExtents;
    }

private:
    /** A file or folder as its record or its thread describes it. */
    struct Object {
        uint32_t cnid;
        uint32_t parentID;
        uint64_t nameHash;  // of the name and of what kind it is

        bool operator==(const Object&) const = default;
    };
    struct Folder {
        uint32_t cnid;
        uint32_t parentID;
        uint32_t valence;
        uint32_t folderCount;
        bool countsFolders;
    };
    struct Children {
        uint32_t parentID;
        uint32_t objectCount;
        uint32_t folderCount;
    };

    void _visitFolder(std::span<const uint8_t> key, std::span<const uint8_t> data);
    void _visitFile(std::span<const uint8_t> key, std::span<const uint8_t> data);
    void _visitThread(std::span<const uint8_t> key, std::span<const uint8_t> data, bool isFolder);
    void _addObject(std::span<const uint8_t> key, uint32_t cnid, uint16_t flags, bool isFolder);
    void _addFork(const uint8_t* forkData, uint32_t cnid, uint8_t forkType,
                  std::span<const uint8_t> key);
    void _checkCNIDs();
    void _checkThreads();
    void _checkValences();
    void _checkParents();
    [[nodiscard]] const Folder* _folderWithCNID(uint32_t cnid) const;

    const HFSPlusCheckedVolume& _volume;
    HFSPlusCheckOverflow& _overflow;
    HFSPlusCheckResult& _result;
    bool _collectForks;
    std::vector<Object> _objects;  // from records
    std::vector<Object> _threads;  // from thread records
    std::vector<Folder> _folders;
    std::vector<Children> _children;
    std::vector<uint32_t> _withAttributes;
    std::vector<HFSPlusCheckedExtent> _journalExtents;
    std::vector<HFSPlusCheckedExtent> _journalInfoExtents;
    uint64_t _fileCount = 0;
};
