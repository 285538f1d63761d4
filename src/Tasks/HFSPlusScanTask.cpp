#include "Tasks/HFSPlusScanTask.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "HFSPlus/HFSPlusCatalogKey.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLThreadGate.h"
#include "Tasks/HFSPlusFileRecordPrinter.h"
#include "VZDefragStringUtilities.h"

namespace {

constexpr int32_t kWholePercent = 100;

bool isContiguous(const HFSPlusForkData& fork)
{
    return fork.extents[0].blockCount == fork.totalBlocks;
}

bool isFragmented(const HFSPlusCatalogFile& file)
{
    const bool isEmpty = file.dataFork.totalBlocks == 0u && file.resourceFork.totalBlocks == 0u;
    return !isEmpty && !(isContiguous(file.dataFork) && isContiguous(file.resourceFork));
}

/** Appends a name of plain characters as it is printed; false, with nothing appended, when some
 *  unit needs more than a byte of its own. */
bool appendPlainName(std::string& text, std::span<const uint8_t> units)
{
    const size_t oldSize = text.size();
    const size_t length = units.size() / 2;
    text.resize(oldSize + length);
    char* const name = text.data() + oldSize;
    unsigned special = 0;
    for (size_t index = 0; index < length; ++index) {
        const unsigned high = units[2 * index];
        const unsigned low = units[2 * index + 1];
        const unsigned isSpecial = low == ',' || low == '\\' || low == '\0' ? 1 : 0;
        special |= high | (low & 0x80) | isSpecial;
        name[index] = low == '/' ? ':' : static_cast<char>(low);
    }
    if (special != 0) {
        text.resize(oldSize);
        return false;
    }
    return true;
}

/** Appends the name in a catalog key, safe for output. */
void appendSafeName(std::string& text, std::span<const uint8_t> key)
{
    if (!appendPlainName(text, HFSPlusCatalogKeyName(key))) {
        const size_t nameOffset = offsetof(HFSPlusCatalogKeyHead, nameLength);
        text += outputSafeString(stringWithHFSUniStr255(key.subspan(nameOffset)));
    }
}

}  // namespace

HFSPlusScanTask::HFSPlusScanTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event)
    : HFSPlusReportTask(volume, std::move(event), "SCAN")
{
    setAction([this] { performTask([this](auto& error) { _scan(error); }); });
}

HFSPlusScanTask::~HFSPlusScanTask() = default;

void HFSPlusScanTask::_scan(std::unique_ptr<VZDefragError>& error)
{
    _parseOptions(error);
    _scanCatalog(error);
}

/** An unknown word is reported in the end, but keeps nothing from being listed. */
void HFSPlusScanTask::_parseOptions(std::unique_ptr<VZDefragError>& error)
{
    const std::vector<std::string>& words = arguments();
    for (size_t index = 1; index < words.size(); ++index) {
        const std::string& word = words[index];
        if (word == "-f" || word == "--full-paths") {
            _fullPaths = true;
        } else if (word == "--frag-only") {
            _fragOnly = true;
        } else {
            error.reset();
            VZDefragFail(&error, "Unknown option: %1$@", word);
        }
    }
}

void HFSPlusScanTask::_scanCatalog(std::unique_ptr<VZDefragError>& error)
{
    const KLClosedGate gate(_volume.gate());
    std::unique_ptr<VZDefragError> failure;
    if (!_volume.scanCatalogFiles(*this, &failure)) {
        error = std::move(failure);
    }
}

void HFSPlusScanTask::scanCatalogFilesWillStart()
{
    _printer = std::make_unique<HFSPlusFileRecordPrinter>(
        _volume, name(), HFSPlusFileRecordPrinter::DateWidth::k64Bits);
    _fileCount = _volume.hostVolumeHeader().fileCount;
    _fileIndex = 0;
    _progress = 0;
    _lastParentID = 0;
    _lastParentPath.clear();
    updateTaskProgress(0);
}

bool HFSPlusScanTask::scanCatalogFile(const HFSPlusCatalogFile& file, std::span<const uint8_t> key,
                                      VZDefragErrorSlot error)
{
    if (_fragOnly && !isFragmented(file)) {
        return true;
    }
    const uint32_t parentID = HFSPlusCatalogKeyParentID(key);
    _safeName.clear();
    if (_fullPaths) {
        if (!_findFolder(parentID, file.fileID, error)) {
            return false;
        }
        _safeName = _lastParentPath;
        _safeName += '/';
    }
    appendSafeName(_safeName, key);
    if (!_printer->print(parentID, _safeName, file, error)) {
        return false;
    }
    _countFile();
    return true;
}

/** Makes _lastParentPath the path of folder @p parentID; files of one folder come together. */
bool HFSPlusScanTask::_findFolder(uint32_t parentID, uint32_t fileID, VZDefragErrorSlot error)
{
    if (parentID == _lastParentID) {
        return true;
    }
    _lastParentID = 0;
    _lastParentPath.clear();
    std::string path;
    bool found = false;
    if (!_copyPath(path, parentID, found, error)) {
        return false;
    }
    if (!found) {
        return VZDefragFail(error, "Path lookup failed for file ID %1$u.", fileID);
    }
    _lastParentID = parentID;
    _lastParentPath = outputSafeString(path);
    return true;
}

void HFSPlusScanTask::_countFile()
{
    _fileIndex += 1;
    // Bounded before it is cut: a header that counts too few files makes it as large as can be.
    const double percent = _fileIndex / _fileCount * kWholePercent;
    const auto progress = static_cast<int32_t>(std::clamp<double>(percent, 0, kWholePercent));
    if (progress != _progress) {
        _progress = progress;
        updateTaskProgress(_progress);
    }
}

void HFSPlusScanTask::scanCatalogFilesDidFinish()
{
    if (_progress < kWholePercent) {
        updateTaskProgress(kWholePercent);
    }
    _printer.reset();
    _lastParentPath.clear();
}
