#include "Tasks/HFSPlusMapTask.h"

#include <limits>
#include <string_view>
#include <utility>

#include "HFSPlus/HFSPlusCatalog.h"
#include "HFSPlus/HFSPlusVolume.h"
#include "KLKit/KLStringUtilities.h"
#include "Tasks/HFSPlusFileRecordPrinter.h"
#include "VZDefragOutput.h"
#include "VZDefragStringUtilities.h"

namespace {

bool isPathOption(std::string_view word)
{
    return word == "-p" || word == "--path";
}

bool isCNIDOption(std::string_view word)
{
    return word == "-i" || word == "--cnid";
}

/** The ID that @p word begins with; whatever follows its digits is ignored. */
bool parseCNID(std::string_view word, uint32_t& cnid)
{
    const int64_t number = integerAtStart(word).value_or(0);
    cnid = static_cast<uint32_t>(number);
    return number >= 1 && number <= std::numeric_limits<uint32_t>::max();
}

}  // namespace

HFSPlusMapTask::HFSPlusMapTask(HFSPlusVolume& volume, std::shared_ptr<KLToolEvent> event)
    : HFSPlusReportTask(volume, std::move(event), "MAP")
{
    setAction([this] { performTask([this](auto& error) { _map(error); }); });
}

void HFSPlusMapTask::_map(std::unique_ptr<VZDefragError>& error)
{
    if (arguments().size() > 1) {
        _mapWords(error);
    } else {
        VZDefragFail(&error, "No options specified.");
    }
}

/** Maps what the words ask for; the last thing that went wrong is what is told. */
void HFSPlusMapTask::_mapWords(std::unique_ptr<VZDefragError>& error)
{
    const std::vector<std::string>& words = arguments();
    Gate gate;
    for (size_t index = 1; index < words.size(); ++index) {
        const std::string& word = words[index];
        std::unique_ptr<VZDefragError> failure;
        if (!isPathOption(word) && !isCNIDOption(word)) {
            VZDefragFail(&failure, "Unknown option: %1$@", word);
            error = std::move(failure);
            continue;
        }
        const bool hasValue = ++index < words.size();
        const bool mapped = hasValue
                                ? _mapOption(word, words[index], gate, &failure)
                                : VZDefragFail(&failure, "Option %1$@ requires an argument.", word);
        if (!mapped) {
            error = std::move(failure);
            return;
        }
    }
}

bool HFSPlusMapTask::_mapOption(const std::string& option, const std::string& value, Gate& gate,
                                VZDefragErrorSlot error)
{
    if (!VZDefragCheckNotAborted(error)) {
        return false;
    }
    if (isPathOption(option)) {
        _closeGate(gate);
        return _mapPath(value, error);
    }
    uint32_t cnid = 0;
    if (!parseCNID(value, cnid)) {
        return VZDefragFail(error, "%1$@ is not a valid CNID.", value);
    }
    _closeGate(gate);
    return _mapCNID(cnid, error);
}

void HFSPlusMapTask::_closeGate(Gate& gate)
{
    if (!gate.has_value()) {
        gate.emplace(_volume.gate());
    }
}

bool HFSPlusMapTask::_mapCNID(uint32_t cnid, VZDefragErrorSlot error)
{
    HFSPlusCatalogLookupRecord record;
    if (!_volume.catalog().copyRecordForCNID(record, cnid, error)) {
        return false;
    }
    if (record.recordType == 0) {
        return VZDefragFail(error, "Lookup failed for CNID %1$u.", cnid);
    }
    return _mapCatalogRecord(record, error);
}

bool HFSPlusMapTask::_mapPath(const std::string& path, VZDefragErrorSlot error)
{
    HFSPlusCatalogLookupRecord record;
    if (!_volume.catalog().copyRecordForPath(record, path, error)) {
        return false;
    }
    if (record.recordType == 0) {
        // Escaped once more with the whole message, as readers of the error line expect it.
        return VZDefragFail(error, "Lookup failed for path %1$@.", outputSafeString(path));
    }
    return _mapCatalogRecord(record, error);
}

bool HFSPlusMapTask::_mapCatalogRecord(const HFSPlusCatalogLookupRecord& record,
                                       VZDefragErrorSlot error)
{
    if (!record.isFile() && !record.isFolder()) {
        return true;
    }
    std::string path;
    bool found = false;
    if (!_copyPath(path, record.cnid(), found, error)) {
        return false;
    }
    if (!found) {
        return VZDefragFail(error, "Path lookup failed for CNID %1$@.",
                            std::to_string(record.cnid()));
    }
    const std::string safePath = outputSafeString(path);
    if (record.isFolder()) {
        VZDefragWriteOutput(KLFormatString("%s,DIR,%u,%u,%s\n", name(), record.parentID,
                                           record.folder.folderID, safePath));
        return true;
    }
    HFSPlusFileRecordPrinter printer(_volume, name(), HFSPlusFileRecordPrinter::DateWidth::k32Bits);
    return printer.print(record.parentID, safePath, record.file, error);
}
